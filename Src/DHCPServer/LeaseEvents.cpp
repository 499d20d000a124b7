// Events of leases, and the one timeout for their ends.
//
// The slots in use stand in the order of their ends. Those before `untold` are over: a place that only moves on keeps
// each timeout from walking over leases that no frame has come to end.
#include "DHCPServer/LeaseEvents.h"

#include "Ostrel/Timeout.h"

#include "DHCPServer/LeaseIndex.h"
#include "os_time.h"

namespace {

void Ostrel_DHCPServerTimeout_End(void* context, void* iface);

// As long as the oldest lease has.
constexpr Ostrel_TimeoutKind kEndTimeout{Ostrel_DHCPServerTimeout_End, "org.ostrel.dhcp.server.end", false, 0, 0};

constexpr uint32_t kMostAtOnce = 64;
constexpr uint32_t kPause = 20;  // milliseconds between so many and the next

bool IsOver(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, uint32_t now) {
    return now - lease.offerTime >= server->leaseTime;
}

// The lease's end, or that of the hold; false when there is none to tell.
bool FindEnd(const Ostrel_ServerObj* server, Ostrel_LeaseEventKind kind, const Ostrel_LeaseInformation& lease,
             uint32_t* end) {
    switch (kind) {
        case Ostrel_LeaseEventKind::Granted:
        case Ostrel_LeaseEventKind::Renewed:
        case Ostrel_LeaseEventKind::Expired:
            *end = lease.offerTime + server->leaseTime;
            return server->leaseTime != kInfiniteLease;
        case Ostrel_LeaseEventKind::Declined:
        case Ostrel_LeaseEventKind::Held:
            *end = lease.offerTime + kHoldTime;
            return !lease.isHeldForGood;
        case Ostrel_LeaseEventKind::Released:
        case Ostrel_LeaseEventKind::Refused:
        case Ostrel_LeaseEventKind::Freed:
            return false;
    }
    return false;
}

// The slot whose end is to be told next, if it is over now.
bool NextIsOver(const Ostrel_ServerObj* server, uint32_t now) {
    const uint32_t slot = server->index->untold;
    return slot != kNoSlot && IsOver(server, server->leases[slot], now);
}

void TellNext(Ostrel_ServerObj* server) {
    Ostrel_LeaseIndex& index = *server->index;
    Ostrel_LeaseInformation& lease = server->leases[index.untold];
    index.untold = index.links[index.untold].byAge.next;
    if (lease.state != kLeaseStateActive) return;
    Ostrel_DHCPServerTell(server, Ostrel_LeaseEventKind::Expired, lease);
    lease.endIsTold = true;
}

void Arm(Ostrel_ServerObj* server, uint64_t milliseconds) {
    server->endIsAwaited = true;
    Ostrel_ArmTimeout(server->iface, server, kEndTimeout, milliseconds);
}

// Where many leases are over at the same time, subscribers are given time to read.
void Ostrel_DHCPServerTimeout_End(void* context, void* /*iface*/) {
    auto* const server = static_cast<Ostrel_ServerObj*>(context);
    server->endIsAwaited = false;
    const uint32_t now = os_monotonic_seconds();
    for (uint32_t told = 0; told < kMostAtOnce && NextIsOver(server, now); ++told) TellNext(server);
    if (server->endsAreTold && NextIsOver(server, now)) Arm(server, kPause);
    Ostrel_DHCPServerAwaitEnd(server);
}

// Back to the oldest slot; `isForgotten`: what was told so far was told to others.
void StartAnew(Ostrel_ServerObj* server, bool isForgotten) {
    Ostrel_LeaseIndex& index = *server->index;
    for (uint32_t slot = index.byAge.first; isForgotten && slot != index.untold; slot = index.links[slot].byAge.next)
        server->leases[slot].endIsTold = false;
    index.untold = index.byAge.first;
    Ostrel_DHCPServerForgetEnds(server);
    server->endsAreTold = true;
    Ostrel_DHCPServerAwaitEnd(server);
}

}  // namespace

void Ostrel_DHCPServerPostEvent(Ostrel_ServerObj* server, Ostrel_LeaseEventKind kind,
                                const Ostrel_LeaseInformation& lease, std::span<const uint8_t> hostName) {
    if (!Ostrel_LeaseEventsAreWanted(server->iface)) return;
    Ostrel_LeaseEvent event{kind, lease.IPv4Address, lease.srcMAC, hostName, false, 0};
    event.ends = FindEnd(server, kind, lease, &event.end);
    Ostrel_VoroServicePublishLeaseEvent(server->iface, event);
}

void Ostrel_DHCPServerTellRefusal(Ostrel_ServerObj* server, const Ostrel_ServerClient& client, Ostrel_IPv4 address,
                                  std::span<const uint8_t> hostName) {
    if (!Ostrel_LeaseEventsAreWanted(server->iface)) return;
    Ostrel_VoroServicePublishLeaseEvent(server->iface,
                                        {Ostrel_LeaseEventKind::Refused, address, client.station, hostName, false, 0});
}

void Ostrel_DHCPServerArmForEnd(Ostrel_ServerObj* server) {
    const uint32_t slot = server->index->untold;
    if (slot == kNoSlot || server->leaseTime == kInfiniteLease) return;
    const uint64_t now = os_monotonic_milliseconds();
    const uint32_t age = static_cast<uint32_t>(now / 1000) - server->leases[slot].offerTime;
    const uint64_t left = age >= server->leaseTime ? 0 : uint64_t{server->leaseTime - age} * 1000 - now % 1000;
    Arm(server, left);
}

void Ostrel_DHCPServerAwaitLateEnd(Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, uint32_t now) {
    if (server->endsAreTold && IsOver(server, lease, now)) StartAnew(server, false);
}

void Ostrel_DHCPServerForgetEnds(Ostrel_ServerObj* server) {
    server->endsAreTold = false;
    if (!server->endIsAwaited) return;
    server->endIsAwaited = false;
    Ostrel_DisarmTimeout(server->iface, server, kEndTimeout);
}

void Ostrel_DHCPServerAudienceChanged(Ostrel_ServerObj* server) {
    const bool isWanted = Ostrel_LeaseEventsAreWanted(server->iface);
    if (isWanted == server->endsAreTold || server->awaitsLeases) return;
    if (isWanted)
        StartAnew(server, true);
    else
        Ostrel_DHCPServerForgetEnds(server);
}
