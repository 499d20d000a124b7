// What the process logs to, and how a line of the system log is asked for.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "DebugServices.h"
#include "QxLog.h"

// Levels of debug output; a larger number is more severe.
constexpr int32_t kDebugLevelChatty = 100;
constexpr int32_t kDebugLevelVerbose = 500;
constexpr int32_t kDebugLevelTrace = 800;
constexpr int32_t kDebugLevelInfo = 1000;
constexpr int32_t kDebugLevelNotice = 3000;
constexpr int32_t kDebugLevelWarning = 5000;
constexpr int32_t kDebugLevelError = 8000;

extern QxLogContext* gLogCxt;   // the system log's context; null is its default context
extern int32_t gMaxDebugLevel;  // lines of debug output below it are not written

// A level that can be chosen by name.
struct Ostrel_DebugLevel {
    std::string_view name;
    int32_t level;
};

// "chatty", "verbose", "trace", "info", "notice", "warning", "assert", "require", "error", "critical", "alert",
// "emergency" and "tragic", from the most output to the least.
[[nodiscard]] std::span<const Ostrel_DebugLevel> Ostrel_DebugLevels();

// Sets the threshold by the name of a level, in exactly its spelling. Any other name leaves it.
void Ostrel_SetDebugLevel(const char* levelName);

// Whether a line of the system log is written at this level: asked first where its arguments cost something to make.
[[nodiscard]] inline bool Ostrel_LogWanted(int32_t level) {
    return gLogCxt == nullptr || QxLogGetLevel(gLogCxt) >= level;
}

// One line of the system log, when its level is wanted.
template <typename... Arguments>
inline void Ostrel_LogPrint(int32_t level, const char* format, const Arguments&... arguments) {
    if (Ostrel_LogWanted(level)) QxLogPrint(gLogCxt, level, format, arguments...);
}
