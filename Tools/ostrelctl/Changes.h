// What changed of a lease, in words.
#pragma once

#include <optional>
#include <string>

#include "Holding.h"

namespace ostrelctl {

// A change in words, for programs in one, and with the lease it is of. `sign` is '+' for what has come, '-' for what
// has gone, ' ' for the rest.
struct Change {
    char sign;
    const char* event;  // "acquired", "renewed", "changed", "lost"
    std::string words;
    ClientLease lease;
    std::string reason{};  // of "lost"
};

// What an interface holds against what it held; nothing when all is the same.
[[nodiscard]] std::optional<Change> ChangeOf(const Holding& before, const Holding& now);

// A line of a server's table: "192.0.2.100 02:11:22:33:44:55 camera, until ..."
[[nodiscard]] std::string WordsOf(const ServerLease& lease);

// "until 14:03:22 (in 10 min)", "for ever": from the wall clock, seconds since 1970, or kForever.
[[nodiscard]] std::string UntilText(int64_t ends);

}  // namespace ostrelctl
