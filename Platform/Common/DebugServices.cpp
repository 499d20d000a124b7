// Debug output up to the line: threshold and properties, formatting, hex dumps and failed checks.
//
// Text is formatted into one static buffer, cut into lines, and each line goes to the platform's back end. The buffer
// holds the longest line a property can ask for; of it only the pages that lines really reach cost memory.
#include "DebugServices.h"

#include <algorithm>

#include "LogBackEnd.h"

int32_t gDebugMinimumLevel = 0;

namespace {

constexpr size_t kDumpWidth = 16;  // bytes in a line of a hex dump
constexpr size_t kDumpLineSize =
    104;  // offset of up to 16 digits, two blanks, three characters a byte, blank, "|text|"

size_t longestLine = kLogLongestLine;

struct DumpLine {
    std::array<char, kDumpLineSize> text;
    size_t length = 0;

    void Put(char character) noexcept { text[length++] = character; }
    void PutHex(uint64_t value, int digits) noexcept {
        while (--digits >= 0) Put("0123456789abcdef"[(value >> (4 * digits)) & 0xF]);
    }
};

void WriteDumpLine(int32_t level, size_t offset, std::span<const uint8_t> bytes) noexcept {
    DumpLine line;
    line.PutHex(offset, offset > 0xFFFF ? 16 : 4);
    line.Put(' ');
    for (size_t i = 0; i < kDumpWidth; ++i) {
        line.Put(' ');
        if (i < bytes.size()) {
            line.PutHex(bytes[i], 2);
        } else {
            line.Put(' ');
            line.Put(' ');
        }
    }
    line.Put(' ');
    line.Put(' ');
    line.Put('|');
    for (const uint8_t byte : bytes) line.Put(byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.');
    line.Put('|');
    DebugBackEndWrite(level, std::string_view(line.text.data(), line.length).substr(0, longestLine));
}

}  // namespace

std::string_view LogFormat(const char* format, std::span<const FormatArgument> arguments) noexcept {
    static std::array<char, kLogLongestLine + 2> buffer;  // a newline and the NUL behind the longest line
    return {buffer.data(), FormatText(buffer, format, arguments)};
}

void DebugSetProperty(uint32_t property, int32_t value) noexcept {
    if (property == kDebugPropertyMinimumLevel) gDebugMinimumLevel = value;
    if (property == kDebugPropertyLongestLine) {
        longestLine = static_cast<size_t>(std::clamp(value, 1, static_cast<int32_t>(kLogLongestLine)));
    }
}

void DebugWriteFormatted(int32_t level, const LogSite& site, const char* format,
                         std::span<const FormatArgument> arguments) noexcept {
    LogWriteLines(site, {false, nullptr, level}, format, arguments, longestLine,
                  [level](std::string_view line) noexcept { DebugBackEndWrite(level, line); });
}

void DebugWriteHexDump(int32_t level, std::span<const uint8_t> bytes) noexcept {
    for (size_t offset = 0; offset < bytes.size(); offset += kDumpWidth)
        WriteDumpLine(level, offset, bytes.subspan(offset, std::min(kDumpWidth, bytes.size() - offset)));
}

void DebugPrintAssert(int32_t status, const char* expression, const char* message, std::string_view source, int line,
                      const char* function) noexcept {
    if (!DebugIsWritten(kDebugAssertLevel)) return;
    const char* const text = expression == nullptr ? "" : expression;
    const std::array<FormatArgument, 6> arguments{FormatArgument(status),   FormatArgument(text),
                                                  FormatArgument(source),   FormatArgument(line),
                                                  FormatArgument(function), FormatArgument(message)};
    const char* const format =
        message == nullptr ? "### Assert: err %d <%s> %s:%d %s()\n" : "### Assert: err %d <%s> %s:%d %s() %s\n";
    DebugWriteFormatted(kDebugAssertLevel, {function, line}, format, arguments);
}
