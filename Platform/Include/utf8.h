// UTF-8 of strangers, character by character, and which characters nobody wants to have on a terminal or in a log.
#pragma once

#include <cstddef>
#include <string_view>

struct Utf8Character {
    char32_t code = 0;  // 0: the first byte begins no character
    size_t bytes = 1;
};

// The first character of a text that isn't empty: well-formed UTF-8 as RFC 3629 section 4 has it.
[[nodiscard]] constexpr Utf8Character Utf8First(std::string_view text) noexcept {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) return {.code = lead};
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return {};
    Utf8Character read{.code = static_cast<char32_t>(lead & (0x7F >> length)), .bytes = length};
    for (const char following : text.substr(1, length - 1)) {
        if ((following & 0xC0) != 0x80) return {};
        read.code = read.code << 6 | static_cast<char32_t>(following & 0x3F);
    }
    const bool isOverlong = (length == 3 && read.code < 0x800) || (length == 4 && read.code < 0x10000);
    const bool isSurrogate = read.code >= 0xD800 && read.code <= 0xDFFF;
    return isOverlong || isSurrogate || read.code > 0x10FFFF ? Utf8Character{} : read;
}

// What would move the cursor, change colours, or turn the order of the line's characters: the C0 and C1 controls with
// DEL, and the invisible characters of Unicode that separate lines or set directions. 0 is one of them.
[[nodiscard]] constexpr bool Utf8IsControl(char32_t code) noexcept {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C || (code >= 0x200B && code <= 0x200F) ||
           (code >= 0x2028 && code <= 0x202E) || (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF;
}
