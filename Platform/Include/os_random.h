// The device's entropy.
#pragma once

#include <cstdint>
#include <span>

// Fills `bytes` with what no neighbour can guess. A device whose entropy is not ready yet gives what it has at once.
void os_random_bytes(std::span<uint8_t> bytes) noexcept;
