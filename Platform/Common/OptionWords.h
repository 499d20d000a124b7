// Options of DHCP in words: their names and the forms of their values.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "FormatArgument.h"

// A short text; what doesn't fit into 256 characters is cut.
template <typename... Arguments>
std::string WordsOf(const char* format, const Arguments&... arguments) {
    const std::array<FormatArgument, sizeof...(Arguments)> list{FormatArgument(arguments)...};
    std::array<char, 256> text;
    return {text.data(), FormatText(text, format, list)};
}

// "DHCPOFFER"; "DHCP 9" for a number without a name, "DHCP without a type" for 0.
[[nodiscard]] std::string MessageTypeWords(uint32_t type);

// "subnetMask", or "" for a code without a name. A constant.
[[nodiscard]] const char* OptionName(uint8_t code);

// The value, whole, in the form that the code has. In hexadecimal when it has none, or is not of that form.
[[nodiscard]] std::string OptionWords(uint8_t code, std::span<const uint8_t> data);
