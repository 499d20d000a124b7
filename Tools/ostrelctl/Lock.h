// One process at a time for an interface.
#pragma once

#include <string>
#include <sys/types.h>

#include "FileDescriptor.h"

namespace ostrelctl {

// A lock on applying leases to an interface, which ends when it is closed, at the latest with the process. Complains,
// and gives a closed one, when another process has it.
[[nodiscard]] FileDescriptor LockInterface(const std::string& interface);

// The same for `ostrelctl run`, and the process that has it; 0: none.
[[nodiscard]] FileDescriptor LockRun();
[[nodiscard]] pid_t ProcessOfRun();

// Makes room for others who ask which process has the lock.
void SeeCallersOff(const FileDescriptor& lock);

}  // namespace ostrelctl
