// Where lines go: debug output to the system log or a file, whichever DebugInitialize was given, and the system log's
// own lines to the system log.
#include <algorithm>
#include <cerrno>

#include "DebugServices.h"
#include "LogBackEnd.h"
#include "LogFile.h"
#include "QxLog.h"
#include "SystemLog.h"

namespace {

enum class Output : uint8_t { None, SystemLog, File, StandardError };

struct Debug {
    Output output = Output::None;
    std::array<char, 64> name{};
    size_t nameLength = 0;
    LogFile file;
};

Debug debug;

struct LevelSeverity {
    int32_t below;
    int32_t severity;
};

constexpr int32_t kSeverityEmergency = 0;
constexpr std::array<LevelSeverity, 7> kSeverities{{
    {1000, 7},   // debug
    {3000, 6},   // info
    {5000, 5},   // notice
    {6000, 4},   // warning
    {9000, 3},   // error
    {10000, 2},  // critical
    {11000, 1},  // alert
}};

int32_t SeverityOf(int32_t level) noexcept {
    for (const LevelSeverity& row : kSeverities) {
        if (level < row.below) return row.severity;
    }
    return kSeverityEmergency;
}

}  // namespace

void DebugInitialize(uint32_t backEnd, const char* name) noexcept {
    DebugFinalize();
    if (backEnd != kDebugBackEndSystemLog) return;
    const std::string_view text(name);
    debug.nameLength = std::min(text.size(), debug.name.size());
    std::copy_n(text.begin(), debug.nameLength, debug.name.begin());
    debug.output = Output::SystemLog;
}

void DebugInitialize(uint32_t backEnd, uint32_t limit, const char* path) noexcept {
    DebugFinalize();
    if (backEnd != kDebugBackEndFile) return;
    const bool opened = LogFileOpen(debug.file, path, int64_t{limit} * 1024 * 1024);
    debug.output = opened ? Output::File : Output::StandardError;
}

void DebugFinalize() noexcept {
    LogFileClose(debug.file);
    SystemLogClose();
    debug.output = Output::None;
}

void DebugBackEndWrite(int32_t level, std::string_view line) noexcept {
    switch (debug.output) {
        case Output::None:
            return;
        case Output::SystemLog:
            return SystemLogWrite({debug.name.data(), debug.nameLength}, SeverityOf(level), line);
        case Output::File:
            return LogFileWrite(debug.file, line);
        case Output::StandardError:
            return StandardErrorWrite(line);
    }
}

void QxLogBackEndWrite(const QxLogContext* context, int32_t level, std::string_view line) noexcept {
    SystemLogWrite(context == nullptr ? program_invocation_short_name : context->name.data(), level, line);
}
