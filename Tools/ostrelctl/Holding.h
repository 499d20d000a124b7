// What an interface may use of what the daemon says, over time.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "Lease.h"

namespace ostrelctl {

// The clock that everything is timed by. It stands still while the device sleeps, as the kernel's address lifetimes do.
using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
constexpr TimePoint kNever = TimePoint::max();

// How and when something was heard.
struct Hearing {
    bool posted;      // else it is a reply
    int64_t asked;    // wall clock, seconds: when the question of a reply was put
    int64_t wall;     // wall clock, milliseconds, and
    TimePoint heard;  // our clock, at one moment
};

// The address last seen in what the daemon says.
struct Sighting {
    Ostrel_IPv4 address = kAnyIPv4;
    bool leased = false;   // else link-local
    bool checked = false;  // it counts
    TimePoint since{};
};

// What an interface holds: `lease` is there while an address counts.
struct Holding {
    std::optional<ClientLease> lease{};
    TimePoint ends = kNever;       // of the lease
    TimePoint keptUntil = kNever;  // what is held was lost, and is given up then unless something that counts is heard
    Sighting seen{};
    Clock::duration grace{};  // for which a lost lease is kept
};

// The daemon has said this of the interface. An address counts
//   - from a post: at once, since only what has passed its ARP check is posted;
//   - from a reply: when it has been posted before, or when its lease is older than the check, which takes 2 s;
//   - a link-local one, which is never posted: when it has been seen unchanged for longer than it is probed for.
// A link-local address stays until the lease that follows it counts, a lost lease for its grace or until another
// counts.
void Hear(Holding& holding, const ClientLease& said, const Hearing& hearing);

// What is seen of the daemon from now on is news: it has gone, or another has come. What is held stays until `until`,
// or with kNever until something else is heard.
void Forget(Holding& holding, TimePoint until);

// When a lease that ends at `ends`, wall clock, is over on our clock; kNever: it does not end. Two readings of one
// lease are apart by a second or so: it is told in whole seconds, from two clocks. IsSameEnd allows for that.
[[nodiscard]] TimePoint EndOf(int64_t ends, const Hearing& hearing);
[[nodiscard]] bool IsSameEnd(TimePoint one, TimePoint other);

// When what is held is over, if nothing else is heard; and gives up what is.
[[nodiscard]] TimePoint NextEnd(const Holding& holding);
void GiveUpEnded(Holding& holding, TimePoint now);

}  // namespace ostrelctl
