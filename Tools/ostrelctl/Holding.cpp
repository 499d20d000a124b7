// What an interface may use of what the daemon says, over time.
//
// The daemon posts a lease when its address has passed the ARP check, but a reply shows what there is: a lease that is
// still being checked, a link-local address that is still being probed, and a manual address that no server has
// confirmed yet, which has no mask. The loss of a lease is not posted, and neither is a link-local address. So what was
// heard is remembered, and one function, Judge, decides whether an address counts by now.
#include "Holding.h"

#include <algorithm>

#include "Ostrel/DHCPClient.h"

namespace ostrelctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int64_t kCheckedAge = 3;     // seconds, as ages are told in whole ones
constexpr seconds kLinkLocalTrial{6};  // three probes, 2 s of silence and the first announcement take 5
constexpr seconds kClockGrain{2};
constexpr int64_t kFarFuture = 20'000'000'000;  // seconds since 1970; beyond is for ever

static_assert(kCheckedAge > kARPCheckSeconds, "a reply must not count before the ARP check is over");

enum class Standing { None, Pending, Counts };

bool IsUsable(const ClientLease& said, const Hearing& hearing) {
    const bool ended = said.times && said.times->ends <= hearing.wall / 1000;
    return Ostrel_IsOfHost(said.address) && said.mask != kAnyIPv4 && !ended;
}

bool HasPassed(const Sighting& seen, const ClientLease& said, const Hearing& hearing) {
    if (!said.times) return hearing.heard - seen.since >= kLinkLocalTrial;
    return hearing.posted || hearing.asked - said.times->began >= kCheckedAge;
}

Standing Judge(Sighting& seen, const ClientLease& said, const Hearing& hearing) {
    if (!IsUsable(said, hearing)) {
        seen = {};
        return Standing::None;
    }
    const bool leased = said.times.has_value();
    if (said.address != seen.address || leased != seen.leased)
        seen = {.address = said.address, .leased = leased, .checked = false, .since = hearing.heard};
    seen.checked = seen.checked || HasPassed(seen, said, hearing);
    return seen.checked ? Standing::Counts : Standing::Pending;
}

// A lease that was lost is better than a link-local address, while it is kept.
bool IsOutranked(const ClientLease& said, const Holding& holding) {
    return !said.times && holding.lease && holding.lease->times && holding.keptUntil != kNever;
}

void Lose(Holding& holding, TimePoint now) {
    const bool isLeased = holding.lease && holding.lease->times;
    if (holding.keptUntil == kNever) holding.keptUntil = isLeased ? now + holding.grace : now;
    GiveUpEnded(holding, now);
}

}  // namespace

TimePoint EndOf(int64_t ends, const Hearing& hearing) {
    if (ends >= kFarFuture) return kNever;
    return hearing.heard + milliseconds(ends * 1000 - hearing.wall);
}

bool IsSameEnd(TimePoint one, TimePoint other) {
    return one == other || (one < other ? other - one : one - other) <= kClockGrain;
}

void Hear(Holding& holding, const ClientLease& said, const Hearing& hearing) {
    const Standing standing = Judge(holding.seen, said, hearing);
    GiveUpEnded(holding, hearing.heard);
    if (standing == Standing::Counts && !IsOutranked(said, holding)) {
        holding.lease = said;
        holding.ends = said.times ? EndOf(said.times->ends, hearing) : kNever;
        holding.keptUntil = kNever;
        return;
    }
    const bool followsLinkLocal = standing == Standing::Pending && said.times && holding.lease && !holding.lease->times;
    if (!followsLinkLocal) Lose(holding, hearing.heard);
}

void Forget(Holding& holding, TimePoint until) {
    holding.seen = {};
    holding.keptUntil = until;
}

TimePoint NextEnd(const Holding& holding) {
    return std::min(holding.ends, holding.keptUntil);
}

void GiveUpEnded(Holding& holding, TimePoint now) {
    if (now < NextEnd(holding)) return;
    holding.lease.reset();
    holding.ends = holding.keptUntil = kNever;
}

}  // namespace ostrelctl
