// What people see.
//
// Names come from strangers on the network and may hold anything, so nothing of theirs reaches a terminal before its
// control characters have gone. Colour, bars and a limited width are for a terminal only: what goes to a file or
// another program is plain and whole.
#include "Terminal.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "utf8.h"

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

// Columns that a character takes: two for the wide ones of East Asia, none for one that joins the one before it.
size_t WidthOf(char32_t code) {
    const int width = wcwidth(static_cast<wchar_t>(code));
    return width < 0 ? 1 : static_cast<size_t>(width);
}

const ComplaintSource::Places* source = nullptr;

// What is wrong in a file is told with its place, and its keys have no dashes.
void Say(std::string_view key, std::string_view problem, std::string_view next) {
    std::string text = "ostrelctl: ";
    if (source != nullptr) {
        const auto place = source->contains(key) ? source->find(key) : source->find("");
        if (place != source->end()) text += place->second + ": ";
    }
    text += (source == nullptr ? std::string(problem) : WithoutDashes(problem)) + '\n';
    if (!next.empty()) text += "  " + (source == nullptr ? std::string(next) : WithoutDashes(next)) + '\n';
    (void)fputs(text.c_str(), stderr);
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
        const Utf8Character character = Utf8First(text);
        shown += Utf8IsControl(character.code) ? "?" : text.substr(0, character.bytes);
        text.remove_prefix(character.bytes);
    }
    return shown;
}

// In JSON they can only stand within strings, and below U+10000 an escape is one number.
std::string EscapedJson(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const Utf8Character character = Utf8First(text);
        std::array<char, 8> escape{};
        (void)snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(character.code & 0xFFFF));
        shown += Utf8IsControl(character.code) ? escape.data() : text.substr(0, character.bytes);
        text.remove_prefix(character.bytes);
    }
    return shown;
}

void PrintEvent(const Terminal& terminal, std::string_view head, char sign, std::string_view words) {
    const Palette& palette = terminal.palette;
    const std::string_view colour = sign == '+'   ? palette.good
                                    : sign == '-' ? palette.warning
                                    : sign == '!' ? palette.bad
                                                  : std::string_view{};
    std::string line(head);
    line += std::string(colour) + sign + ' ' + std::string(words) + std::string(colour.empty() ? "" : palette.reset);
    puts(line.c_str());
    (void)fflush(stdout);
}

void PrintJson(std::string_view text) {
    const std::string line = (isatty(STDOUT_FILENO) == 0 ? std::string(text) : EscapedJson(text)) + '\n';
    (void)fputs(line.c_str(), stdout);
    (void)fflush(stdout);
}

size_t Columns(std::string_view text) {
    size_t columns = 0;
    while (!text.empty()) {
        const Utf8Character character = Utf8First(text);
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
        const Utf8Character character = Utf8First(text.substr(bytes));
        const size_t width = WidthOf(character.code);
        if (width > left) break;
        left -= width;
        bytes += character.bytes;
    }
    return std::string(text.substr(0, bytes)) + (unicode ? "\u2026" : "~");
}

void Complain(std::string_view problem, std::string_view next) {
    Say("", problem, next);
}

ExitStatus Refuse(ExitStatus status, std::string_view problem, std::string_view next) {
    Complain(problem, next);
    return status;
}

std::string WithoutDashes(std::string_view text) {
    std::string plain(text);
    for (size_t at = 0; (at = plain.find("--", at)) != std::string::npos;) plain.erase(at, 2);
    return plain;
}

ComplaintSource::ComplaintSource(const Places& places) {
    source = &places;
}

ComplaintSource::~ComplaintSource() {
    source = nullptr;
}

ExitStatus RefuseKey(std::string_view key, std::string_view problem, std::string_view next) {
    Say(key, problem, next);
    return kExitUsage;
}

}  // namespace ostrelctl
