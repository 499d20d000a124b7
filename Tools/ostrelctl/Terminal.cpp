// What people see.
//
// Names come from strangers on the network and may hold anything, so nothing of theirs reaches a terminal before its
// control characters have gone. Colour, bars and a limited width are for a terminal only: what goes to a file or
// another program is plain and whole.
#include "Terminal.h"

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace ostrelctl {

namespace {

constexpr size_t kUsualWidth = 80;
constexpr size_t kUnlimitedWidth = 100000;
constexpr Palette kColours{"\033[1m", "\033[32m", "\033[33m", "\033[31m", "\033[2m", "\033[0m"};

bool WantsColour() {
    const char* const refused = std::getenv("NO_COLOR");  // https://no-color.org
    const char* const kind = std::getenv("TERM");
    return (refused == nullptr || *refused == '\0') && kind != nullptr && std::string_view(kind) != "dumb";
}

size_t TerminalWidth() {
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsualWidth;
}

struct Character {
    char32_t code = 0;  // 0: the first byte begins no character
    size_t bytes = 1;
};

// The first character of UTF-8 text.
Character FirstOf(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) return {.code = lead};
    const int following = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    if (lead < 0xC2 || lead > 0xF4) return {};
    Character read{.code = static_cast<char32_t>(lead & (0x3F >> following))};
    for (; read.bytes <= static_cast<size_t>(following); ++read.bytes) {
        if (read.bytes == text.size() || (text[read.bytes] & 0xC0) != 0x80) return {};
        read.code = read.code << 6 | static_cast<char32_t>(text[read.bytes] & 0x3F);
    }
    return read;
}

// What would move the cursor, change colours, or turn the order of the line's characters: the C0 and C1 controls with
// DEL, and the invisible ones of Unicode that separate lines or set directions.
bool IsControl(char32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || (code >= 0x200B && code <= 0x200F) ||
           (code >= 0x2028 && code <= 0x202E) || (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF;
}

// Columns that a character takes: two for the wide ones of East Asia, none for one that joins the one before it.
size_t WidthOf(char32_t code) {
    const int width = wcwidth(static_cast<wchar_t>(code));
    return width < 0 ? 1 : static_cast<size_t>(width);
}

}  // namespace

Terminal DescribeStandardOutput() {
    if (isatty(STDOUT_FILENO) == 0)
        return {.interactive = false, .unicode = false, .width = kUnlimitedWidth, .palette = {}};
    const bool unicode = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    return {.interactive = true,
            .unicode = unicode,
            .width = TerminalWidth(),
            .palette = WantsColour() ? kColours : Palette{}};
}

std::string Printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const Character character = FirstOf(text);
        shown += IsControl(character.code) ? "?" : text.substr(0, character.bytes);
        text.remove_prefix(character.bytes);
    }
    return shown;
}

size_t Columns(std::string_view text) {
    size_t columns = 0;
    while (!text.empty()) {
        const Character character = FirstOf(text);
        columns += WidthOf(character.code);
        text.remove_prefix(character.bytes);
    }
    return columns;
}

std::string Padded(std::string_view text, size_t columns) {
    const size_t used = Columns(text);
    return std::string(text) + std::string(used < columns ? columns - used : 0, ' ');
}

std::string Shortened(std::string_view text, size_t columns, bool unicode) {
    if (Columns(text) <= columns) return std::string(text);
    if (columns == 0) return {};
    size_t bytes = 0;
    for (size_t left = columns - 1; bytes < text.size();) {
        const Character character = FirstOf(text.substr(bytes));
        const size_t width = WidthOf(character.code);
        if (width > left) break;
        left -= width;
        bytes += character.bytes;
    }
    return std::string(text.substr(0, bytes)) + (unicode ? "\u2026" : "~");
}

void Complain(std::string_view problem, std::string_view next) {
    std::string text = "ostrelctl: " + std::string(problem) + '\n';
    if (!next.empty()) text += "  " + std::string(next) + '\n';
    (void)fputs(text.c_str(), stderr);
}

ExitStatus Refuse(ExitStatus status, std::string_view problem, std::string_view next) {
    Complain(problem, next);
    return status;
}

}  // namespace ostrelctl
