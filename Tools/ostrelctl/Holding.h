// What an interface may use of what the daemon says, over time.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "Lease.h"
#include "State.h"

namespace ostrelctl {

// The clock that everything is timed by. It stands still while the device sleeps, as the kernel's address lifetimes do.
using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
constexpr TimePoint kNever = TimePoint::max();

// When something was heard: the wall clock, in milliseconds, and ours, at one moment.
struct Hearing {
    int64_t wall = 0;
    TimePoint heard{};
};

// What an interface holds. `lease` is there exactly while the daemon says that its address is held, and its details are
// known; what a daemon that has gone said stays good until it ends, or until the next daemon knows better.
struct Holding {
    std::optional<InterfaceState> state{};  // as last told; none: the interface is not managed, or there is no daemon
    ClientLease details{};                  // of the client's lease, as last told
    bool detailsAreDue = false;             // they are to be asked for
    std::optional<ClientLease> lease{};     // of the client or, while it has none, of the link-local selector
    TimePoint ends = kNever;                // of the lease
    bool isLeft = false;                    // the lease is one that the last daemon has left
    TimePoint leftUntil = kNever;           // and is given up then
};

// The daemon has said this of the interface: its state, or the details of its lease.
void Hear(Holding& holding, const InterfaceState& state, const Hearing& hearing);
void Hear(Holding& holding, const ClientLease& details, const Hearing& hearing);

// The daemon has gone, with kNever, or another has come, which has until then to hold an address.
void Forget(Holding& holding, TimePoint until);

// When a lease that ends at `ends`, wall clock, is over on our clock. Two readings of one lease are apart by a second
// or so: it is told in whole seconds. IsSameEnd allows for that.
[[nodiscard]] TimePoint EndOf(int64_t ends, const Hearing& hearing);
[[nodiscard]] bool IsSameEnd(TimePoint one, TimePoint other);

// When what is held is over, if nothing else is heard; and gives up what is.
[[nodiscard]] TimePoint NextEnd(const Holding& holding);
void GiveUpEnded(Holding& holding, TimePoint now);

}  // namespace ostrelctl
