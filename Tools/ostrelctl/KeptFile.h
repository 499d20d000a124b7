// A file that is whole whatever happens, and what is kept in it of a server.
#pragma once

#include <string>

#include "Exit.h"
#include "valdo.h"

namespace ostrelctl {

// Reads it; a file that does not exist reads as empty. Complains, and gives kExitRefused, when it can't be read.
[[nodiscard]] ExitStatus ReadKeptFile(const std::string& file, std::string& text);

// Writes it beside its place, brings that onto the disk, and puts it there in one step. Complains on failure, which
// leaves what was there.
[[nodiscard]] ExitStatus WriteKeptFile(const std::string& file, const std::string& text);

[[nodiscard]] bool ToText(const valdo::JValue& value, std::string& text);

// The leases that a reply or a post of "/server" leaseInformation shows of the interface; null when it does not list
// it.
[[nodiscard]] valdo::JValue LeasesOf(const valdo::JValue& root, const std::string& interface);

// Of the leases as many as a request has room for, some hundred; it is said when there are more. The clients of those
// that are left out are asked with ARP before an address is given to others.
[[nodiscard]] valdo::JValue FittingLeases(const valdo::JValue& leases);

}  // namespace ostrelctl
