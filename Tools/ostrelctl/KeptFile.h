// A file that is whole whatever happens, and what is kept in it of a server.
#pragma once

#include <chrono>
#include <string>

#include "Exit.h"
#include "valdo.h"

namespace ostrelctl {

// What is in a file; false, with errno, when it can't be read whole.
[[nodiscard]] bool ReadWhole(const std::string& file, std::string& text);

// Reads it; a file that does not exist reads as empty. Complains, and gives kExitRefused, when it can't be read.
[[nodiscard]] ExitStatus ReadKeptFile(const std::string& file, std::string& text);

// Writes it beside its place, brings that onto the disk, and puts it there in one step. Complains on failure, which
// leaves what was there.
[[nodiscard]] ExitStatus WriteKeptFile(const std::string& file, const std::string& text);

[[nodiscard]] bool ToText(const valdo::JValue& value, std::string& text);

// The leases that a reply or a post of "/server" leaseInformation shows of the interface; null when it does not list
// it.
[[nodiscard]] valdo::JValue LeasesOf(const valdo::JValue& root, const std::string& interface);

// How long to wait before a table is asked for again that had so many leases: it is shown, and written, whole.
[[nodiscard]] std::chrono::milliseconds TablePause(size_t leases);

}  // namespace ostrelctl
