// What ostrelctl ends with.
#pragma once

namespace ostrelctl {

enum ExitStatus : int {
    kExitDone = 0,
    kExitRefused = 1,   // the daemon, or the bus, refused; or what was waited for did not come
    kExitUsage = 2,     // the command line cannot be meant so
    kExitNoDaemon = 3,  // no bus, or nobody on it who is the daemon
};

}  // namespace ostrelctl
