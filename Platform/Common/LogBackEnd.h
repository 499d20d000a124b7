// Where the two logs meet the device: the common part formats and cuts text into lines, a platform writes the lines.
//
// A platform also defines DebugInitialize, DebugFinalize and DebugRedirectStandardStreams.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "FormatArgument.h"
#include "LogLimit.h"

constexpr size_t kLogLongestLine = 65535;  // bytes

struct QxLogContext {
    std::array<char, 64> name;  // NUL-terminated
    int32_t level;
};

// Each writes one line, without its newline; `line` is valid only during the call. Whether it is wanted was decided
// before. Neither may log.
void DebugBackEndWrite(int32_t level, std::string_view line) noexcept;
void QxLogBackEndWrite(const QxLogContext* context, int32_t level, std::string_view line) noexcept;

// The formatted text, in a buffer that both logs share: valid until the next call.
std::string_view LogFormat(const char* format, std::span<const FormatArgument> arguments) noexcept;

// Calls `write` for each line of `text`, cut to `longest` bytes. The newline at the end of the text starts no line.
template <typename Write>
void LogForEachLine(std::string_view text, size_t longest, Write write) noexcept {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        write(text.substr(0, end).substr(0, longest));
        if (end == std::string_view::npos) return;
        text.remove_prefix(end + 1);
    }
}

// Calls `write` for each line of the formatted text, unless that place has written enough.
template <typename Write>
void LogWriteLines(const LogSite& site, const LogTarget& target, const char* format,
                   std::span<const FormatArgument> arguments, size_t longest, Write write) noexcept {
    const LogVerdict verdict = LogJudge(site, target);
    if (verdict == LogVerdict::LeaveOut) return;
    const std::string_view text = LogFormat(format, arguments);
    if (verdict == LogVerdict::LeaveOutFirst) return LogKeepSample(text);
    LogForEachLine(text, longest, write);
}
