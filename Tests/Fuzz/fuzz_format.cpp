// A log line: a format, and behind its NUL the arguments, each a byte for its kind and what it is.
//
// Whatever letter meets whatever argument, the line is as long as it says, ends within its room, and is text: what the
// arguments bring steers no terminal and forges no line.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FormatArgument.h"
#include "utf8.h"

namespace {

using Bytes = std::span<const uint8_t>;

void Require(bool holds) {
    if (!holds) std::abort();
}

uint64_t NumberOf(Bytes bytes) {
    uint64_t number = 0;
    std::memcpy(&number, bytes.data(), std::min(bytes.size(), sizeof number));
    return number;
}

// Takes one off the front. A text and bytes are as long as their first byte says.
FormatArgument Next(Bytes& bytes) {
    const uint8_t kind = bytes.front();
    bytes = bytes.subspan(1);
    const size_t wanted = kind % 5 < 2 || bytes.empty() ? 8 : bytes[0] + size_t{1};
    const Bytes value = bytes.first(std::min(bytes.size(), wanted));
    bytes = bytes.subspan(value.size());
    switch (kind % 5) {
        case 0:
            return static_cast<int64_t>(NumberOf(value));
        case 1:
            return NumberOf(value);
        case 2:
            return std::string_view(reinterpret_cast<const char*>(value.data()), value.size());
        case 3:
            return value;
        default:
            return static_cast<const void*>(value.data());
    }
}

bool IsPlain(std::string_view text) {
    while (!text.empty()) {
        const Utf8Character character = Utf8First(text);
        if (Utf8IsControl(character.code)) return false;
        text.remove_prefix(character.bytes);
    }
    return true;
}

void Write(std::span<char> room, const char* format, std::span<const FormatArgument> arguments, bool isPlain) {
    std::ranges::fill(room, '#');
    const size_t length = FormatText(room.first(room.size() - 1), format, arguments);
    Require(length + 1 < room.size() && room[length] == '\0' && room.back() == '#');
    Require(!isPlain || length + 2 == room.size() || IsPlain({room.data(), length}));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto* const end = std::find(data, data + size, 0);
    const std::string format(data, end);
    Bytes rest(end, data + size);
    if (!rest.empty()) rest = rest.subspan(1);
    std::vector<FormatArgument> arguments;
    while (!rest.empty()) arguments.push_back(Next(rest));
    // Formats are ours, and of ASCII: a letter that is none would take a character apart.
    const bool isPlain = IsPlain(format) && std::ranges::all_of(format, [](char c) { return c >= 0; });
    std::array<char, 4096> whole{};
    Write(whole, format.c_str(), arguments, isPlain);
    Write(std::span(whole).first(size % 40 + 2), format.c_str(), arguments, isPlain);
    Require(FormatText({}, format.c_str(), arguments) == 0);
    return 0;
}
