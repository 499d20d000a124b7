// The debug threshold and its names.
//
// The threshold lives here and is mirrored into the debug service, which tests it before a line costs anything.
#include <array>
#include <string_view>

#include "Ostrel/Log.h"

QxLogContext* gLogCxt = nullptr;
int32_t gMaxDebugLevel = kDebugLevelChatty;

namespace {

struct LevelName {
    std::string_view name;
    int32_t level;
};

constexpr std::array<LevelName, 13> kLevelNames{{{"chatty", kDebugLevelChatty},
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

void Ostrel_SetDebugLevel(const char* levelName) {
    for (const LevelName& row : kLevelNames) {
        if (row.name != levelName) continue;
        gMaxDebugLevel = row.level;
        break;
    }
    DebugSetProperty(kDebugPropertyMinimumLevel, gMaxDebugLevel);
}
