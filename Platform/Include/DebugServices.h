// Levelled debug output, to the system log or to a file.
//
// A line is written when its level is at or above the threshold, property 'minp'. The level is tested before anything
// else happens: a line that is not written costs one comparison. Lines that frames cause are limited, each place that
// writes by itself: a burst of 200, then 20 a second, with a line that says how many were left out. Formats:
// FormatArgument.h.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "FormatArgument.h"
#include "LogSite.h"

// The value of four characters, the first in the most significant byte.
consteval uint32_t DebugCode(const char (&characters)[5]) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value = (value << 8) | static_cast<uint8_t>(characters[i]);
    return value;
}

constexpr uint32_t kDebugBackEndSystemLog = DebugCode("qxll");
constexpr uint32_t kDebugBackEndFile = DebugCode("fpri");
constexpr uint32_t kDebugPropertyMinimumLevel = DebugCode("minp");
constexpr uint32_t kDebugPropertyLongestLine = DebugCode("qxxl");  // bytes; at most 65535

constexpr int32_t kDebugAssertLevel = 6000;  // the level of DebugPrintAssert

// Sends output to the system log under `name`, with the syslog severity of the line's level.
void DebugInitialize(uint32_t backEnd, const char* name) noexcept;

// Sends output to the file `path`, each line behind its local time. When the file has grown to `limit` MiB it is copied
// to "<path>.1" and truncated. Where the file cannot be opened, lines go to standard error.
void DebugInitialize(uint32_t backEnd, uint32_t limit, const char* path) noexcept;

void DebugSetProperty(uint32_t property, int32_t value) noexcept;

// Closes what DebugInitialize opened; lines after it are dropped.
void DebugFinalize() noexcept;

// Reopens standard error and then standard output in append mode onto `path`, both unbuffered. Each stays as it was
// when that fails. Lines that go to standard error afterwards keep `path` below the same 10 MiB limit.
void DebugRedirectStandardStreams(const char* path) noexcept;

// Reports a failed check, at kDebugAssertLevel: a failed status with its value and no expression, a failed condition
// with status 0 and its text. `message` may be null.
void DebugPrintAssert(int32_t status, const char* expression, const char* message, std::string_view source, int line,
                      const char* function) noexcept;

extern int32_t gDebugMinimumLevel;  // the threshold; set through DebugSetProperty, read by the inlines below

// Whether a line of this level is written: asked first where there is more to do for it than to format it.
[[nodiscard]] inline bool DebugIsWritten(int32_t level) noexcept {
    return level >= gDebugMinimumLevel;
}

void DebugWriteFormatted(int32_t level, const LogSite& site, const char* format,
                         std::span<const FormatArgument> arguments) noexcept;
void DebugWriteHexDump(int32_t level, std::span<const uint8_t> bytes) noexcept;

template <typename... Arguments>
inline void DebugPrintF(int32_t level, const char* format, const Arguments&... arguments) noexcept {
    if (!DebugIsWritten(level)) [[likely]]
        return;
    const std::array<FormatArgument, sizeof...(Arguments)> list{FormatArgument(arguments)...};
    DebugWriteFormatted(level, {format, 0}, format, list);
}

// Lines of an offset, up to 16 bytes in hexadecimal and the same bytes as text.
inline void DebugHexDump(int32_t level, std::span<const uint8_t> bytes) noexcept {
    if (DebugIsWritten(level)) DebugWriteHexDump(level, bytes);
}
