// What an interface may use of what the daemon says, over time.
//
// "held" says it all: the address may be used while it is true, and must not be when it is false. Beside the address a
// lease has a mask, routers and the like, which "interfaceState" does not tell. They are asked for whenever a lease
// begins or is extended, and an address is not used without them. A link-local address has none.
#include "Holding.h"

#include <algorithm>
#include <endian.h>

namespace ostrelctl {

namespace {

constexpr std::chrono::seconds kClockGrain{2};
const Ostrel_IPv4 kLinkLocalMask = htobe32(0xFFFF0000);  // RFC 3927 section 2.1

// Who has just refused the address that the last daemon left will not have it used.
bool IsRefused(const Holding& holding) {
    const auto& client = holding.state->client;
    return client && (client->reason == "nak" || client->reason == "conflict");
}

std::optional<ClientLease> LinkLocalLease(const InterfaceState& state) {
    if (!state.linkLocal || !state.linkLocal->held || !Ostrel_IsOfHost(state.linkLocal->address)) return std::nullopt;
    ClientLease lease;
    lease.interface = state.interface;
    lease.address = state.linkLocal->address;
    lease.mask = kLinkLocalMask;
    return lease;
}

std::optional<ClientLease> LeaseOf(const Holding& holding) {
    const auto& client = holding.state->client;
    const ClientLease& details = holding.details;
    const bool isKnown = client && client->held && details.address == client->address && details.mask != kAnyIPv4 &&
                         Ostrel_IsOfHost(details.address);
    if (!isKnown) return LinkLocalLease(*holding.state);
    ClientLease lease = details;
    if (!lease.times) lease.times = {.began = client->since};
    if (client->expires) lease.times->ends = *client->expires;
    return lease;
}

void Settle(Holding& holding, const Hearing& hearing) {
    std::optional<ClientLease> lease = LeaseOf(holding);
    const bool stays = holding.isLeft && holding.state->managed && !lease && !IsRefused(holding);
    if (!stays) {
        holding.ends = lease && lease->times ? EndOf(lease->times->ends, hearing) : kNever;
        holding.lease = std::move(lease);
        holding.isLeft = false;
        holding.leftUntil = kNever;
    }
    GiveUpEnded(holding, hearing.heard);
}

bool IsAnotherLease(const ClientState& before, const ClientState& now) {
    return !before.held || before.address != now.address || before.server != now.server ||
           before.expires != now.expires || before.renews != now.renews;
}

}  // namespace

TimePoint EndOf(int64_t ends, const Hearing& hearing) {
    if (ends == kForever) return kNever;
    return hearing.heard + std::chrono::milliseconds(ends * 1000 - hearing.wall);
}

bool IsSameEnd(TimePoint one, TimePoint other) {
    return one == other || (one < other ? other - one : one - other) <= kClockGrain;
}

void Hear(Holding& holding, const InterfaceState& state, const Hearing& hearing) {
    const bool isHeld = state.client && state.client->held;
    const bool wasTold = holding.state && holding.state->client;
    if (isHeld && (!wasTold || IsAnotherLease(*holding.state->client, *state.client))) holding.detailsAreDue = true;
    holding.state = state;
    Settle(holding, hearing);
    if (!state.managed) holding.state.reset();
}

void Hear(Holding& holding, const ClientLease& details, const Hearing& hearing) {
    holding.details = details;
    if (holding.state) Settle(holding, hearing);
}

void Forget(Holding& holding, TimePoint until) {
    holding.state.reset();
    holding.details = {};
    holding.detailsAreDue = false;
    holding.isLeft = holding.lease.has_value();
    holding.leftUntil = holding.isLeft ? until : kNever;
}

TimePoint NextEnd(const Holding& holding) {
    return std::min(holding.ends, holding.leftUntil);
}

void GiveUpEnded(Holding& holding, TimePoint now) {
    if (now < NextEnd(holding)) return;
    holding.lease.reset();
    holding.isLeft = false;
    holding.ends = holding.leftUntil = kNever;
}

}  // namespace ostrelctl
