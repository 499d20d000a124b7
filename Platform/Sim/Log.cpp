// Where the daemon's log lines go on the simulated device: into the world's memory, for a test to read.
//
// Without a world, in a test of a pure function, they go nowhere.

#include <string>

#include "DebugServices.h"
#include "Internals.h"
#include "LogBackEnd.h"

namespace {

bool debugOutputOpen = true;

void Record(bool systemLog, int32_t level, std::string_view line) {
    sim::World* const world = sim::World::Current();
    if (world == nullptr || !world->keepLog) return;
    world->log.push_back({world->Now(), systemLog, level, std::string(line)});
}

}  // namespace

void DebugBackEndWrite(int32_t level, std::string_view line) noexcept {
    if (debugOutputOpen) Record(false, level, line);
}

void QxLogBackEndWrite(const QxLogContext*, int32_t level, std::string_view line) noexcept {
    Record(true, level, line);
}

void DebugInitialize(uint32_t, const char*) noexcept {
    debugOutputOpen = true;
}
void DebugInitialize(uint32_t, uint32_t, const char*) noexcept {
    debugOutputOpen = true;
}
void DebugFinalize() noexcept {
    debugOutputOpen = false;
}
void DebugRedirectStandardStreams(const char*) noexcept {}

void sim::ResetLog() {
    LogLimitReset();
    debugOutputOpen = true;
    DebugSetProperty(kDebugPropertyMinimumLevel, 0);
    DebugSetProperty(kDebugPropertyLongestLine, static_cast<int32_t>(kLogLongestLine));
}

bool sim::World::Logged(std::string_view part) const {
    for (const LogLine& line : log) {
        if (line.text.find(part) != std::string::npos) return true;
    }
    return false;
}
