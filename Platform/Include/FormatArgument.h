// Arguments of a log line, carried with their types, so that a conversion that doesn't fit its argument prints a mark
// ("%!") instead of reading memory it must not.
//
// Conversions: %d %i %u %x %X %c %s %p %%, with the flags '-' and '0', a width and, for %s, a precision. The length
// modifiers h, l, z, j are read and mean nothing: an integer prints its own value, whatever the letter (an unsigned
// argument of %d is not taken for a negative number). Two more print addresses:
//   %.4a        four bytes as a dotted IPv4 address: 192.0.2.1
//   %.6a, %a    six bytes as an Ethernet address: 00:11:22:33:44:55
// Control characters inside a text argument, those of Unicode that set directions too, and bytes that are not UTF-8 are
// written as \xNN: text from the network can neither forge a log line nor steer the terminal that shows it.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

class FormatArgument {
public:
    enum class Kind : uint8_t { Signed, Unsigned, Text, Bytes, Pointer };

    template <std::integral Number>
    FormatArgument(Number value) noexcept
        : kind(std::is_signed_v<Number> ? Kind::Signed : Kind::Unsigned), number(static_cast<uint64_t>(value)) {}
    FormatArgument(const char* text) noexcept : FormatArgument(std::string_view(text == nullptr ? "(null)" : text)) {}
    FormatArgument(std::string_view text) noexcept : kind(Kind::Text), size(text.size()), pointer(text.data()) {}
    FormatArgument(const std::string& text) noexcept : FormatArgument(std::string_view(text)) {}
    FormatArgument(std::span<const uint8_t> bytes) noexcept
        : kind(Kind::Bytes), size(bytes.size()), pointer(bytes.data()) {}
    template <size_t Size>
    FormatArgument(const std::array<uint8_t, Size>& bytes) noexcept : FormatArgument(std::span<const uint8_t>(bytes)) {}
    template <size_t Size>
    FormatArgument(const std::array<uint8_t, Size>* bytes) noexcept : FormatArgument(*bytes) {}
    // An IPv4 address in network byte order, given by address for %.4a.
    FormatArgument(const uint32_t* address) noexcept : kind(Kind::Bytes), size(sizeof *address), pointer(address) {}
    FormatArgument(const void* any) noexcept : kind(Kind::Pointer), pointer(any) {}
    template <typename Result, typename... Arguments>
    FormatArgument(Result (*function)(Arguments...)) noexcept
        : kind(Kind::Pointer), pointer(reinterpret_cast<const void*>(function)) {}

    Kind kind;
    size_t size = 0;                // Text, Bytes: bytes at `pointer`
    uint64_t number = 0;            // Signed (two's complement), Unsigned
    const void* pointer = nullptr;  // Text, Bytes, Pointer; not owned
};

// Writes the formatted text into `out`, cut to fit and NUL-terminated, and returns its length without the NUL. An empty
// `out` gives 0. Arguments left over are ignored, missing ones print "%!".
size_t FormatText(std::span<char> out, const char* format, std::span<const FormatArgument> arguments) noexcept;
