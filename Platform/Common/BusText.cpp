// Text as the bus takes it.
//
// The rule is the bus library's, written out: shortest form, no surrogates, nothing above U+10FFFF, no noncharacters.
// It stands here so that the simulated bus refuses what the real one refuses.
#include "BusText.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";                 // U+FFFD
constexpr std::array<uint32_t, 5> kSmallest{0, 1, 0x80, 0x800, 0x10000};  // of a sequence of so many bytes
constexpr unsigned char kFirstWithNoncharacters = 0xEF;                   // U+F000 and above

constexpr bool IsNoncharacter(uint32_t character) {
    return (character >= 0xFDD0 && character <= 0xFDEF) || (character & 0xFFFE) == 0xFFFE;
}
constexpr bool IsSurrogate(uint32_t character) {
    return character >= 0xD800 && character <= 0xDFFF;
}

// How many bytes the sequence with that first byte has; 0: none begins so.
constexpr size_t LengthOf(unsigned char first) {
    if (first < 0x80) return 1;
    if (first < 0xC0) return 0;
    if (first < 0xE0) return 2;
    if (first < 0xF0) return 3;
    return first < 0xF8 ? 4 : 0;
}

// The character of a sequence whose length is right, whatever its bytes.
uint32_t Decode(std::string_view sequence) {
    const auto first = static_cast<unsigned char>(sequence[0]);
    uint32_t character = sequence.size() == 1 ? first : first & (0x7FU >> sequence.size());
    for (const char next : sequence.substr(1)) character = character << 6 | (static_cast<unsigned char>(next) & 0x3FU);
    return character;
}

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// How much of the text's front is plainly ASCII: most of every text, looked at a block at a time.
size_t AsciiBlocks(std::string_view text) {
    constexpr size_t kBlock = 32;
    size_t length = 0;
    for (; text.size() - length >= kBlock; length += kBlock) {
        bool isAscii = true;
        for (size_t i = 0; i < kBlock; ++i) isAscii &= static_cast<signed char>(text[length + i]) > 0;
        if (!isAscii) break;
    }
    return length;
}

}  // namespace

bool IsFitForBus(std::string_view text) noexcept {
    for (size_t at = AsciiBlocks(text); at < text.size();) {
        const size_t length = LengthOf(static_cast<unsigned char>(text[at]));
        if (length == 0 || length > text.size() - at) return false;
        const std::string_view sequence = text.substr(at, length);
        if (!std::all_of(sequence.begin() + 1, sequence.end(), IsContinuation)) return false;
        const uint32_t character = Decode(sequence);
        if (character < kSmallest[length] || character > 0x10FFFF) return false;
        if (IsSurrogate(character) || IsNoncharacter(character)) return false;
        at += length;
        at += AsciiBlocks(text.substr(at));
    }
    return true;
}

// U+FFFD has three bytes, a noncharacter three or four: what follows only ever moves to the front.
void ReplaceNoncharacters(std::string& text) noexcept {
    const auto mayBeOne = [](char byte) { return static_cast<unsigned char>(byte) >= kFirstWithNoncharacters; };
    auto from = std::find_if(text.begin(), text.end(), mayBeOne);
    auto to = from;
    while (from != text.end()) {
        const auto length = static_cast<std::ptrdiff_t>(LengthOf(static_cast<unsigned char>(*from)));
        const bool isOne = IsNoncharacter(Decode({from, from + length}));
        to = isOne ? std::copy(kReplacement.begin(), kReplacement.end(), to) : std::copy(from, from + length, to);
        const auto next = std::find_if(from + length, text.end(), mayBeOne);
        to = std::copy(from + length, next, to);
        from = next;
    }
    text.erase(to, text.end());
}
