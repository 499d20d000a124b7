// What the service manager is told.
#pragma once

#include <string>

namespace ostrelctl {

// "READY=1", "STATUS=...": lines of sd_notify(3). Nothing without a service manager that waits for them.
void NotifyManager(const std::string& state);

}  // namespace ostrelctl
