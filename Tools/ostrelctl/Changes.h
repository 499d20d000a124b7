// What changed of a lease, in words.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "Holding.h"

namespace ostrelctl {

// A line of a server's table, with its end on our clock.
struct TableLine {
    ServerLease lease;
    TimePoint ends;
};

// A change in words, for programs in one, and with the lease it is of. `sign` is '+' for what has come, '-' for what
// has gone, ' ' for the rest.
struct Change {
    char sign;
    const char* event;  // "acquired", "renewed", "changed", "lost"; of a server "leased", "renewed", "ended"
    std::string words;
    std::variant<ClientLease, ServerLease> lease;
};

// What an interface holds against what it held; nothing when all is the same.
[[nodiscard]] std::vector<Change> ChangesOf(const Holding& before, const Holding& now);

// A server's table against the last, both in the order of their addresses.
[[nodiscard]] std::vector<Change> ChangesOf(const std::vector<TableLine>& before, const std::vector<TableLine>& now);

// "until 14:03:22 (in 10 min)", "for ever": from the wall clock, seconds since 1970, or kForever.
[[nodiscard]] std::string UntilText(int64_t ends);

}  // namespace ostrelctl
