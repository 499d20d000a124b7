// Classic BPF programs, checked and run as the kernel does it.
#pragma once

#include <cstdint>
#include <span>

#include "l2_packet.h"

namespace sim {

// Whether the kernel would take the program: only known instructions, every jump inside it, a return at its end.
[[nodiscard]] bool IsFilterValid(std::span<const l2_filter_instruction> program);

// How many bytes of the frame a valid program passes: 0 drops it, as does a load from outside the frame.
[[nodiscard]] uint32_t RunFilter(std::span<const l2_filter_instruction> program, std::span<const uint8_t> frame);

}  // namespace sim
