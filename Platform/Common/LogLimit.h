// How much strangers may write into the logs.
//
// Whoever sends frames causes lines: at wire speed they fill a disk and push out what was there before. So while a
// frame is handled each place that writes has a bucket of 200 lines, refilled at 20 a second. A place that has emptied
// its bucket is shut for a second; then one line says how many were left out, with the first of them. What timers and
// calls write is not limited, and neither are levels below info, which are written only where somebody turned them on.
#pragma once

#include <cstdint>
#include <string_view>

#include "LogSite.h"
#include "QxLog.h"

constexpr uint32_t kLogBurst = 200;        // lines of one place
constexpr uint32_t kLogLinesASecond = 20;  // likewise

// A frame is being handled while one of these lives.
class LogFrameScope {
public:
    LogFrameScope() noexcept;
    ~LogFrameScope();
    LogFrameScope(const LogFrameScope&) = delete;
    LogFrameScope& operator=(const LogFrameScope&) = delete;
};

// Where a line goes: to the debug output at `level`, or to the system log at that of `context`.
struct LogTarget {
    bool systemLog;
    const QxLogContext* context;
    int32_t level;
};

enum class LogVerdict : uint8_t {
    Write,
    LeaveOutFirst,  // and hand its text to LogKeepSample
    LeaveOut,
};

// Whether a line of that place is written now.
[[nodiscard]] LogVerdict LogJudge(const LogSite& site, const LogTarget& target) noexcept;

// The text of the line that the last verdict, LeaveOutFirst, was about.
void LogKeepSample(std::string_view text) noexcept;

// Forgets every bucket. For tests, whose clock starts again.
void LogLimitReset() noexcept;
