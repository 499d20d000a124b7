// The debug threshold and its names.
//
// The threshold lives here and is mirrored into the debug service, which tests it before a line costs anything.
#include <array>

#include "Ostrel/Log.h"

QxLogContext* gLogCxt = nullptr;
int32_t gMaxDebugLevel = kDebugLevelChatty;

namespace {

constexpr std::array<Ostrel_DebugLevel, 13> kLevels{{{"chatty", kDebugLevelChatty},
                                                     {"verbose", kDebugLevelVerbose},
                                                     {"trace", kDebugLevelTrace},
                                                     {"info", kDebugLevelInfo},
                                                     {"notice", kDebugLevelNotice},
                                                     {"warning", kDebugLevelWarning},
                                                     {"assert", kDebugAssertLevel},
                                                     {"require", 7000},
                                                     {"error", kDebugLevelError},
                                                     {"critical", 9000},
                                                     {"alert", 10000},
                                                     {"emergency", 11000},
                                                     {"tragic", 12000}}};

}  // namespace

std::span<const Ostrel_DebugLevel> Ostrel_DebugLevels() {
    return kLevels;
}

void Ostrel_SetDebugLevel(const char* levelName) {
    for (const Ostrel_DebugLevel& row : kLevels) {
        if (row.name != levelName) continue;
        gMaxDebugLevel = row.level;
        break;
    }
    DebugSetProperty(kDebugPropertyMinimumLevel, gMaxDebugLevel);
}
