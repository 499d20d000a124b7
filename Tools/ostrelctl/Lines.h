// --json=lines: an object a line, for programs. Times are seconds since 1970.
#pragma once

#include <string>

#include "Lease.h"

namespace ostrelctl {

// {"time":now,"event":event,"interface":interface}
[[nodiscard]] valdo::JValue LineOf(const char* event, const std::string& interface);

// What a lease is; what there is none of is left out, as is the end of a lease that has none.
void PutLease(valdo::JValue& line, const ClientLease& lease);
void PutLease(valdo::JValue& line, const ServerLease& lease);

// On a line of its own.
void PrintLine(const valdo::JValue& line);

}  // namespace ostrelctl
