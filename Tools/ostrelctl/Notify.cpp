// What the service manager is told.
#include "Notify.h"

#ifdef OSTREL_HAS_SD_DAEMON
#include <systemd/sd-daemon.h>
#endif

namespace ostrelctl {

void NotifyManager(const std::string& state) {
#ifdef OSTREL_HAS_SD_DAEMON
    (void)sd_notify(0, state.c_str());  // a line that is lost is one that nobody reads
#else
    (void)state;
#endif
}

}  // namespace ostrelctl
