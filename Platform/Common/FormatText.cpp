// Formatted text from typed arguments.
//
// A format is read once, left to right: text is copied, and each conversion is read whole (flags, width, precision,
// length letters, letter) before its argument is looked at. What the argument is decides what may be printed; where
// letter and argument don't go together the mark "%!" stands in the line and reading goes on. The result is cut to the
// room given and never read back, so a formatted line costs no memory and cannot fail.
#include <algorithm>
#include <charconv>

#include "FormatArgument.h"
#include "utf8.h"

namespace {

constexpr std::string_view kMark = "%!";
constexpr size_t kLargestField = 65535;  // of a width or precision; more would only be cut

// The room given, filled from the front; what doesn't fit is dropped.
class Writer {
public:
    explicit Writer(std::span<char> room) noexcept : out(room) {}

    void Put(char character) noexcept {
        if (used < out.size()) out[used++] = character;
    }
    void Put(std::string_view text) noexcept {
        const size_t count = std::min(text.size(), out.size() - used);
        std::copy_n(text.data(), count, out.begin() + static_cast<std::ptrdiff_t>(used));
        used += count;
    }
    void Fill(char character, size_t count) noexcept {
        for (count = std::min(count, out.size() - used); count > 0; --count) Put(character);
    }
    [[nodiscard]] size_t Used() const noexcept { return used; }

private:
    std::span<char> out;
    size_t used = 0;
};

struct Conversion {
    bool left = false;
    bool zeros = false;
    size_t width = 0;
    size_t precision = SIZE_MAX;  // SIZE_MAX: none
    char letter = '\0';
};

size_t ReadNumber(const char*& position) noexcept {
    size_t number = 0;
    for (; *position >= '0' && *position <= '9'; ++position)
        number = std::min(number * 10 + static_cast<size_t>(*position - '0'), kLargestField);
    return number;
}

// Reads the conversion behind '%' and leaves `position` behind its letter, or at the end of the format.
Conversion ReadConversion(const char*& position) noexcept {
    Conversion conversion;
    for (; *position == '-' || *position == '0'; ++position) {
        if (*position == '-') conversion.left = true;
        if (*position == '0') conversion.zeros = true;
    }
    conversion.width = ReadNumber(position);
    if (*position == '.') {
        ++position;
        conversion.precision = ReadNumber(position);
    }
    while (*position == 'h' || *position == 'l' || *position == 'z' || *position == 'j') ++position;
    conversion.letter = *position;
    if (*position != '\0') ++position;
    return conversion;
}

void PutField(Writer& out, const Conversion& conversion, std::string_view text) noexcept {
    const size_t padding = conversion.width > text.size() ? conversion.width - text.size() : 0;
    if (!conversion.left) out.Fill(' ', padding);
    out.Put(text);
    if (conversion.left) out.Fill(' ', padding);
}

bool PutNumber(Writer& out, const Conversion& conversion, const FormatArgument& argument, int base) noexcept {
    if (argument.kind != FormatArgument::Kind::Signed && argument.kind != FormatArgument::Kind::Unsigned) return false;
    const bool negative = argument.kind == FormatArgument::Kind::Signed && static_cast<int64_t>(argument.number) < 0;
    std::array<char, 24> text{};
    char* digits = text.data() + 1;
    char* const end = std::to_chars(digits, text.end(), negative ? 0 - argument.number : argument.number, base).ptr;
    if (conversion.letter == 'X') std::transform(digits, end, digits, [](char c) { return c >= 'a' ? c - 32 : c; });
    if (conversion.zeros && !conversion.left) {
        const size_t taken = static_cast<size_t>(end - digits) + (negative ? 1 : 0);
        if (negative) out.Put('-');
        out.Fill('0', conversion.width > taken ? conversion.width - taken : 0);
        out.Put(std::string_view(digits, end));
        return true;
    }
    if (negative) *--digits = '-';
    PutField(out, conversion, std::string_view(digits, end));
    return true;
}

void PutHexByte(Writer& out, uint8_t byte) noexcept {
    constexpr std::string_view kDigits = "0123456789abcdef";
    out.Put(kDigits[byte >> 4]);
    out.Put(kDigits[byte & 0xF]);
}

// The bytes of the text's first character, and whether they are written as \xNN: what is not UTF-8 is, so that a line
// is always text, whoever reads it.
struct Piece {
    std::string_view bytes;
    bool escaped;
};

Piece FirstPiece(std::string_view text) noexcept {
    const Utf8Character character = Utf8First(text);
    return {text.substr(0, character.bytes), Utf8IsControl(character.code)};
}

size_t CountEscapes(std::string_view text) noexcept {
    size_t escapes = 0;
    while (!text.empty()) {
        const Piece piece = FirstPiece(text);
        if (piece.escaped) escapes += piece.bytes.size();
        text.remove_prefix(piece.bytes.size());
    }
    return escapes;
}

void PutText(Writer& out, const Conversion& conversion, std::string_view text) noexcept {
    text = text.substr(0, conversion.precision);
    const size_t escapes = CountEscapes(text);
    if (escapes == 0) return PutField(out, conversion, text);
    const size_t length = text.size() + 3 * escapes;
    const size_t padding = conversion.width > length ? conversion.width - length : 0;
    if (!conversion.left) out.Fill(' ', padding);
    while (!text.empty()) {
        const Piece piece = FirstPiece(text);
        text.remove_prefix(piece.bytes.size());
        if (!piece.escaped) {
            out.Put(piece.bytes);
            continue;
        }
        for (const char byte : piece.bytes) {
            out.Put("\\x");
            PutHexByte(out, static_cast<uint8_t>(byte));
        }
    }
    if (conversion.left) out.Fill(' ', padding);
}

bool PutString(Writer& out, const Conversion& conversion, const FormatArgument& argument) noexcept {
    if (argument.kind != FormatArgument::Kind::Text) return false;
    PutText(out, conversion, {static_cast<const char*>(argument.pointer), argument.size});
    return true;
}

bool PutCharacter(Writer& out, const Conversion& conversion, const FormatArgument& argument) noexcept {
    if (argument.kind != FormatArgument::Kind::Signed && argument.kind != FormatArgument::Kind::Unsigned) return false;
    const char character = static_cast<char>(argument.number);
    PutText(out, conversion, {&character, 1});
    return true;
}

bool PutPointer(Writer& out, const Conversion& conversion, const FormatArgument& argument) noexcept {
    if (argument.kind == FormatArgument::Kind::Signed || argument.kind == FormatArgument::Kind::Unsigned) return false;
    std::array<char, 2 + 2 * sizeof(void*)> text{'0', 'x'};
    const auto value = reinterpret_cast<uintptr_t>(argument.pointer);
    const char* const end = std::to_chars(text.data() + 2, text.end(), value, 16).ptr;
    PutField(out, conversion, std::string_view(text.data(), end));
    return true;
}

// Four bytes as an IPv4 address, six (or no precision) as an Ethernet address.
bool PutAddress(Writer& out, const Conversion& conversion, const FormatArgument& argument) noexcept {
    const size_t length = conversion.precision == SIZE_MAX ? 6 : conversion.precision;
    if (argument.kind != FormatArgument::Kind::Bytes || argument.pointer == nullptr) return false;
    if ((length != 4 && length != 6) || argument.size < length) return false;
    const auto* const bytes = static_cast<const uint8_t*>(argument.pointer);
    std::array<char, 20> room{};
    Writer text(room);
    for (size_t i = 0; i < length; ++i) {
        if (i > 0) text.Put(length == 4 ? '.' : ':');
        if (length == 4) {
            PutNumber(text, {.letter = 'u'}, bytes[i], 10);
        } else {
            PutHexByte(text, bytes[i]);
        }
    }
    PutField(out, conversion, std::string_view(room.data(), text.Used()));
    return true;
}

// False when the letter is unknown or doesn't go with the argument.
bool PutArgument(Writer& out, const Conversion& conversion, const FormatArgument& argument) noexcept {
    switch (conversion.letter) {
        case 'd':
        case 'i':
        case 'u':
            return PutNumber(out, conversion, argument, 10);
        case 'x':
        case 'X':
            return PutNumber(out, conversion, argument, 16);
        case 'c':
            return PutCharacter(out, conversion, argument);
        case 's':
            return PutString(out, conversion, argument);
        case 'p':
            return PutPointer(out, conversion, argument);
        case 'a':
            return PutAddress(out, conversion, argument);
        default:
            return false;
    }
}

}  // namespace

size_t FormatText(std::span<char> out, const char* format, std::span<const FormatArgument> arguments) noexcept {
    if (out.empty()) return 0;
    Writer writer(out.first(out.size() - 1));
    const char* position = format;
    while (*position != '\0') {
        if (*position != '%') {
            writer.Put(*position++);
            continue;
        }
        const Conversion conversion = ReadConversion(++position);
        if (conversion.letter == '%') {
            writer.Put('%');
            continue;
        }
        if (arguments.empty() || !PutArgument(writer, conversion, arguments.front())) writer.Put(kMark);
        if (!arguments.empty()) arguments = arguments.subspan(1);
    }
    out[writer.Used()] = '\0';
    return writer.Used();
}
