// The system log: named contexts, each with its own level.
//
// Levels are those of syslog, 0 emergency to 7 debug. Printing never blocks: while the log service doesn't take lines
// they are counted, and the number is reported when it does again. Where no log service listens, lines go to standard
// error. What frames cause is limited as debug output is. Formats: FormatArgument.h.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "FormatArgument.h"
#include "LogSite.h"

struct QxLogContext;  // lives as long as the process

constexpr int32_t kQxLogCritical = 2;
constexpr int32_t kQxLogError = 3;
constexpr int32_t kQxLogInfo = 6;
constexpr int32_t kQxLogDebug = 7;

// The context of that name, made at its first use with level 6, or what the environment variable OSTREL_LOG_LEVEL says
// (0 to 7). 0, or -1 with `context` null when it cannot be made.
int QxLogGetContext(const char* name, QxLogContext** context) noexcept;

// The context's level: lines up to it are wanted. Not for the default context, which has none.
[[nodiscard]] int32_t QxLogGetLevel(const QxLogContext* context) noexcept;

void QxLogWriteFormatted(const QxLogContext* context, int32_t level, const LogSite& site, const char* format,
                         std::span<const FormatArgument> arguments) noexcept;

// Writes one line, whatever the context's level: the caller asks first. The default context is null.
template <typename... Arguments>
inline void QxLogPrint(const QxLogContext* context, int32_t level, const char* format,
                       const Arguments&... arguments) noexcept {
    const std::array<FormatArgument, sizeof...(Arguments)> list{FormatArgument(arguments)...};
    QxLogWriteFormatted(context, level, {format, 0}, format, list);
}

// Writes a failed check at kQxLogError; as DebugPrintAssert, in the system log's own form.
void QxLogPrintAssert(const QxLogContext* context, int32_t status, const char* expression, std::string_view source,
                      int line, const char* function) noexcept;
