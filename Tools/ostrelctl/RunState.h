// What `ostrelctl run` remembers over its own end, the daemon's and the device's.
#pragma once

#include <map>
#include <string>

#include "Exit.h"
#include "valdo.h"

namespace ostrelctl {

// Of an interface.
struct KeptInterface {
    std::string request{};   // what it was handed over with
    std::string address{};   // the last one that a server granted it
    std::string own{};       // a server's own address, which was set for it: "192.0.2.1/24"
    valdo::JValue leases{};  // a server's table as last shown; null: none
};

struct KeptState {
    std::string owner{};  // the daemon's connection that the requests went to
    std::map<std::string, KeptInterface> each{};
};

// Complains about a file that holds no such state, sets it aside as FILE.bad, and goes on without it.
[[nodiscard]] KeptState LoadState(const std::string& file);

[[nodiscard]] ExitStatus SaveState(const std::string& file, const KeptState& state);

}  // namespace ostrelctl
