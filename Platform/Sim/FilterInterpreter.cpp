// An interpreter of classic BPF, as far as the daemon's programs go.
//
// A program has one accumulator and one index register and only jumps forward, so it always ends. What the kernel
// refuses when a program is installed is refused here too, an instruction that this interpreter doesn't know included;
// what the kernel answers with "drop" while a program runs, a load from outside the frame, is dropped here.

#include "FilterInterpreter.h"

#include <array>
#include <cstddef>
#include <optional>

namespace sim {
namespace {

// Codes of <linux/filter.h>.
constexpr uint16_t kLoadHalf = 0x28;             // A = the 16 bits at k
constexpr uint16_t kLoadByte = 0x30;             // A = the byte at k
constexpr uint16_t kLoadHalfIndexed = 0x48;      // A = the 16 bits at X + k
constexpr uint16_t kLoadIndexFromHeader = 0xB1;  // X = 4 times the low four bits of the byte at k
constexpr uint16_t kJumpEqual = 0x15;            // A == k
constexpr uint16_t kJumpAnyBit = 0x45;           // A & k
constexpr uint16_t kReturn = 0x06;               // k bytes pass

constexpr size_t kMaxInstructions = 4096;  // BPF_MAXINSNS

bool IsKnown(uint16_t code) {
    constexpr std::array<uint16_t, 7> kCodes{kLoadHalf,  kLoadByte,   kLoadHalfIndexed, kLoadIndexFromHeader,
                                             kJumpEqual, kJumpAnyBit, kReturn};
    for (const uint16_t known : kCodes) {
        if (known == code) return true;
    }
    return false;
}

bool IsJump(uint16_t code) {
    return code == kJumpEqual || code == kJumpAnyBit;
}

std::optional<uint32_t> Load(std::span<const uint8_t> frame, uint64_t offset, size_t size) {
    if (offset > frame.size() || size > frame.size() - offset) return std::nullopt;
    uint32_t value = 0;
    for (const uint8_t byte : frame.subspan(static_cast<size_t>(offset), size)) value = (value << 8) | byte;
    return value;
}

}  // namespace

bool IsFilterValid(std::span<const l2_filter_instruction> program) {
    if (program.empty() || program.size() > kMaxInstructions || program.back().code != kReturn) return false;
    for (size_t i = 0; i < program.size(); ++i) {
        if (!IsKnown(program[i].code)) return false;
        const size_t following = program.size() - i - 1;
        if (IsJump(program[i].code) && (program[i].jt >= following || program[i].jf >= following)) return false;
    }
    return true;
}

uint32_t RunFilter(std::span<const l2_filter_instruction> program, std::span<const uint8_t> frame) {
    uint32_t accumulator = 0;
    uint32_t index = 0;
    for (size_t i = 0; i < program.size(); ++i) {
        const l2_filter_instruction& step = program[i];
        if (step.code == kReturn) return step.k;
        if (IsJump(step.code)) {
            const bool holds = step.code == kJumpEqual ? accumulator == step.k : (accumulator & step.k) != 0;
            i += holds ? step.jt : step.jf;
            continue;
        }
        const uint64_t offset = step.code == kLoadHalfIndexed ? uint64_t{index} + step.k : step.k;
        const size_t size = step.code == kLoadHalf || step.code == kLoadHalfIndexed ? 2 : 1;
        const std::optional<uint32_t> loaded = Load(frame, offset, size);
        if (!loaded) return 0;
        if (step.code == kLoadIndexFromHeader) {
            index = (*loaded & 0x0F) * 4;
        } else {
            accumulator = *loaded;
        }
    }
    return 0;
}

}  // namespace sim
