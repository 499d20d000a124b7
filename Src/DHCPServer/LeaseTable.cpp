// The books of the lease table: how slots change hands, and when their time is over.
//
// Slots end by time in the order in which they began, so that the oldest of each kind tells whether any is over. Where
// the debug level asks for the lines that a walk over all slots writes, the walk is made.
#include "DHCPServer/LeaseTable.h"

#include <algorithm>
#include <array>
#include <endian.h>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "DHCPServer/LeaseEvents.h"
#include "DHCPServer/LeaseIndex.h"
#include "DHCPServer/Slots.h"
#include "os_time.h"

namespace {

constexpr Ostrel_LeaseEnding kHoldIsOver{"", Ostrel_LeaseEventKind::Freed};

const char* NameOf(const Ostrel_ServerObj* server) {
    return server->iface->ifname.data();
}

std::string_view TextOf(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// What is written of a slot in one go. The key counts where a slot is not tied by its MAC, the time unless it is free.
struct Books {
    Ostrel_LeaseState state;
    Ostrel_MAC mac;
    uint64_t key;
    uint32_t offerTime;
    bool isHeldForGood = false;
};

uint64_t KeyOf(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease) {
    return Ostrel_LeaseIndexKeyOf(server, Ostrel_LeaseSlotNumber(server, lease));
}

SlotPlacesKept PlacesKept(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease, const Books& books) {
    if (!Ostrel_LeaseIsInUse(lease->state) || !Ostrel_LeaseIsInUse(books.state)) return {};
    const bool isByMAC = !server->rules->knowsByIdentifier;
    return {.byAge = lease->offerTime == books.offerTime,
            .tie = isByMAC ? lease->srcMAC == books.mac : KeyOf(server, lease) == books.key};
}

// The one place where a slot's books are written.
void WriteBooks(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Books& books) {
    const uint32_t slot = Ostrel_LeaseSlotNumber(server, lease);
    const Ostrel_LeaseState former = lease->state;
    const SlotPlacesKept kept = PlacesKept(server, lease, books);
    Ostrel_LeaseIndexLeave(server, slot, kept);
    lease->state = books.state;
    lease->srcMAC = books.mac;
    lease->offerTime = books.offerTime;
    lease->isHeldForGood = books.isHeldForGood;
    lease->wasLeased |= books.state == kLeaseStateActive && server->rules->remembersHolders;
    if (books.state == kLeaseStateActive) lease->holderHadIt = true;
    lease->changed = true;
    lease->endIsTold = false;
    Ostrel_LeaseIndexSetKey(server, slot, books.key);
    Ostrel_LeaseIndexEnter(server, slot, kept);
    Ostrel_DHCPServerAwaitEnd(server);
    if (former == books.state) return;
    --server->slotsIn[former];
    ++server->slotsIn[books.state];
    Ostrel_InterfacePictureChanged(server->iface);
}

// The one place where a slot's buffers are written, each with its length.
bool WriteBuffer(Ostrel_LeaseInformation* lease, std::span<const uint8_t> data, os_array<uint8_t>& buffer,
                 uint32_t& length) {
    lease->changed = true;
    buffer.reset();
    length = 0;
    if (data.data() == nullptr) return true;
    buffer = os_copy_array<uint8_t>(data, 1);
    if (buffer == nullptr) return false;
    length = static_cast<uint32_t>(data.size());
    return true;
}

// When a lease ends, in local time as ctime writes it; the text lies in `room`.
std::string_view EndOf(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, std::span<char> room) {
    Ostrel_WallClock* const clock = &server->iface->sysObj->wallClock;
    os_local_time_text(Ostrel_WallClockTimeOf(clock, lease.offerTime) + server->leaseTime, room);
    const std::string_view text(room.data());
    return text.substr(0, text.find('\n'));
}

// A lease has one line where it begins and one where it ends; one that is confirmed is the same lease. The host name
// is the client's own words: it stands last, where it cannot be taken for anything else of the line.
void LogGrant(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, std::span<const uint8_t> hostName) {
    if (!DebugIsWritten(kDebugLevelInfo)) return;
    std::array<char, 64> room;
    DebugPrintF(kDebugLevelInfo, "[%s] Lease %.4a granted to %.6a until %s%s%s\n", NameOf(server), &lease.IPv4Address,
                lease.srcMAC, EndOf(server, lease, room), hostName.empty() ? "" : ", host name ", TextOf(hostName));
}

void LogEnd(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, const char* reason) {
    if (!DebugIsWritten(kDebugLevelInfo)) return;
    const std::span<const uint8_t> hostName{lease.hostName.get(), lease.hostNameLength};
    std::array<char, 64> room;
    DebugPrintF(kDebugLevelInfo, "[%s] Lease %.4a of %.6a until %s has ended: %s%s%s\n", NameOf(server),
                &lease.IPv4Address, lease.srcMAC, EndOf(server, lease, room), reason,
                hostName.empty() ? "" : ", host name ", TextOf(hostName));
}

// Whom a slot in use is tied to once it is free: a client that had a lease of it, if it may have the slot again. It had
// this one last, so that it is forgotten as the former holder of another.
uint64_t FormerHolder(Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease) {
    const bool remembers = server->rules->remembersHolders && !lease->isKept;
    if (!remembers || !lease->holderHadIt || !Ostrel_LeaseIsInUse(lease->state)) return 0;
    const uint64_t key = KeyOf(server, lease);
    for (uint32_t slot = Ostrel_LeaseIndexLowestTied(server, key, 0); slot != kNoSlot;
         slot = Ostrel_LeaseIndexLowestTied(server, key, slot + 1)) {
        if (server->leases[slot].state != kLeaseStateFree) continue;
        Ostrel_LeaseIndexForget(server, slot);
        server->leases[slot].srcMAC = {};
        server->leases[slot].holderHadIt = false;
        server->leases[slot].changed = true;
        break;
    }
    return key;
}

void ClearBuffers(Ostrel_LeaseInformation* lease) {
    (void)Ostrel_DHCPServer_LeaseKeepIdentifier(lease, {});  // nothing: that cannot fail
    (void)Ostrel_DHCPServer_LeaseKeepHostName(lease, {});
}

bool IsOver(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, uint32_t now) {
    const uint32_t age = now - lease.offerTime;
    if (lease.state == kLeaseStateActive) return age >= server->leaseTime;
    return lease.state == kLeaseStateOffered && age >= server->offerTimeout;
}

void Expire(Ostrel_ServerObj* server, Ostrel_LeaseInformation& lease, uint32_t now) {
    const bool active = lease.state == kLeaseStateActive;
    DebugPrintF(kDebugLevelTrace,
                "[%s]  ### PRUNE LEASE ### Expire Lease %.4a on %.6a (%s) Now %d, Offered at %d, Lease Time %d.\n",
                NameOf(server), &lease.IPv4Address, lease.srcMAC, active ? "lease active" : "Offered, never claimed",
                now, lease.offerTime, active ? server->leaseTime : server->offerTimeout);
    if (active) ++server->counters.leasesExpired;
    Ostrel_LeaseSlotFree(server, &lease, {"expired", Ostrel_LeaseEventKind::Expired});
}

void PruneTraced(Ostrel_ServerObj* server, uint32_t now) {
    for (Ostrel_LeaseInformation& lease : Ostrel_LeaseSlotsOf(server)) {
        DebugPrintF(kDebugLevelChatty,
                    "[%s] ### PRUNE LEASE ### Lease IPv4 <%.4a>, State <%d>, MAC <%.6a>, Offer time <%d>, now <%d>.\n",
                    NameOf(server), &lease.IPv4Address, uint32_t{lease.state}, lease.srcMAC, lease.offerTime, now);
        switch (lease.state) {
            case kLeaseStateFree:
                DebugPrintF(kDebugLevelChatty, "[%s] ### PRUNE LEASE ### Lease %.4a Free - do nothing.\n",
                            NameOf(server), &lease.IPv4Address);
                break;
            case kLeaseStateHeld:
            case kLeaseStateKept:
                DebugPrintF(kDebugLevelChatty, "[%s]  ### PRUNE LEASE ### Lease %.4a reserved - do nothing.\n",
                            NameOf(server), &lease.IPv4Address);
                break;
            case kLeaseStateOffered:
            case kLeaseStateActive:
                // Where it matters in which order slots fall free, PruneOldest sees to it.
                if (IsOver(server, lease, now) && !server->rules->remembersHolders) Expire(server, lease, now);
                break;
        }
    }
}

// From the oldest slot on, so that the first one that is young enough ends the search. Where a lease lives shorter than
// an unclaimed offer, offers that are still good are stepped over.
void PruneOldest(Ostrel_ServerObj* server, uint32_t now) {
    const Ostrel_LeaseIndex& index = *server->index;
    while (index.offered.first != kNoSlot && IsOver(server, server->leases[index.offered.first], now)) {
        Expire(server, server->leases[index.offered.first], now);
    }
    for (uint32_t slot = index.byAge.first; slot != kNoSlot;) {
        Ostrel_LeaseInformation& lease = server->leases[slot];
        if (now - lease.offerTime < server->leaseTime) return;
        slot = index.links[slot].byAge.next;
        if (lease.state == kLeaseStateActive) Expire(server, lease, now);
    }
}

// Holds end in the order in which they began, as all of them are as long.
void PruneHeld(Ostrel_ServerObj* server, uint32_t now) {
    const Ostrel_LeaseIndex& index = *server->index;
    while (index.held.first != kNoSlot && now - server->leases[index.held.first].offerTime >= kHoldTime) {
        Ostrel_LeaseSlotFree(server, &server->leases[index.held.first], kHoldIsOver);
    }
}

// The slots that are held because of a client.
struct HeldFor {
    uint32_t count;
    Ostrel_LeaseInformation* oldest;
};

HeldFor FindHeldFor(const Ostrel_ServerObj* server, uint64_t key) {
    HeldFor held{0, nullptr};
    for (uint32_t slot = Ostrel_LeaseIndexLowestTied(server, key, 0); slot != kNoSlot;
         slot = Ostrel_LeaseIndexLowestTied(server, key, slot + 1)) {
        Ostrel_LeaseInformation* const lease = &server->leases[slot];
        if (lease->state != kLeaseStateHeld) continue;
        ++held.count;
        const bool isOlder =
            held.oldest == nullptr || static_cast<int32_t>(held.oldest->offerTime - lease->offerTime) > 0;
        if (isOlder) held.oldest = lease;
    }
    return held;
}

}  // namespace

void Ostrel_LeaseSlotFree(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_LeaseEnding& ending) {
    DebugPrintF(kDebugLevelTrace, "[%s] Free Lease %.4a assigned to %.6a.\n", NameOf(server), &lease->IPv4Address,
                lease->srcMAC);
    if (lease->state == kLeaseStateActive) {
        LogEnd(server, *lease, ending.reason);
        Ostrel_DHCPServerTell(server, ending.event, *lease);
    } else if (lease->state == kLeaseStateHeld) {
        Ostrel_DHCPServerTell(server, Ostrel_LeaseEventKind::Freed, *lease);
    }
    const uint64_t former = FormerHolder(server, lease);
    WriteBooks(server, lease, {lease->isKept ? kLeaseStateKept : kLeaseStateFree, {}, former, 0});
    if (former == 0) lease->holderHadIt = false;
    ClearBuffers(lease);
}

void Ostrel_DHCPServer_LeaseClaim(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac,
                                  uint64_t key) {
    const bool isUsed = Ostrel_LeaseIsInUse(lease->state);
    const bool isSame = KeyOf(server, lease) == key;
    if (lease->state == kLeaseStateHeld || (isUsed && (isSame || !lease->isKept))) return;
    if (!isSame) lease->holderHadIt = false;
    if (isUsed) {
        Ostrel_LeaseIndexHandOver(server, Ostrel_LeaseSlotNumber(server, lease), mac, key);
        lease->changed = true;
    } else {
        WriteBooks(server, lease, {lease->state, mac, key, 0});
    }
}

void Ostrel_DHCPServer_LeaseOffer(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, uint32_t now) {
    if (lease->state == kLeaseStateActive) {
        if (server->rules->discoverKeepsLease) return;
        LogEnd(server, *lease, "its client begins anew");
        Ostrel_DHCPServerTell(server, Ostrel_LeaseEventKind::Released, *lease);
    }
    WriteBooks(server, lease, {kLeaseStateOffered, lease->srcMAC, KeyOf(server, lease), now});
}

void Ostrel_DHCPServer_LeaseActivate(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac,
                                     uint32_t now, std::span<const uint8_t> hostName) {
    const bool isNew = lease->state != kLeaseStateActive;
    const bool startsAnew =
        !Ostrel_LeaseIsInUse(lease->state) || lease->offerTime == 0 || server->rules->renewalExtends;
    WriteBooks(server, lease,
               {kLeaseStateActive, startsAnew ? mac : lease->srcMAC, KeyOf(server, lease),
                startsAnew ? now : lease->offerTime});
    if (isNew) LogGrant(server, *lease, hostName);
    ++(isNew ? server->counters.leasesGranted : server->counters.leasesRenewed);
    Ostrel_DHCPServerTell(server, isNew ? Ostrel_LeaseEventKind::Granted : Ostrel_LeaseEventKind::Renewed, *lease,
                          hostName);
    Ostrel_DHCPServerAwaitLateEnd(server, *lease, now);
}

void Ostrel_DHCPServer_LeaseHold(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac,
                                 uint64_t key, uint32_t now, const Ostrel_LeaseEnding& ending) {
    const HeldFor held = FindHeldFor(server, key);
    if (held.count >= kHeldForOne) Ostrel_LeaseSlotFree(server, held.oldest, kHoldIsOver);
    if (lease->state == kLeaseStateActive) LogEnd(server, *lease, ending.reason);
    DebugPrintF(kDebugLevelInfo, "[%s] Address %.4a is held for %d s: %s, %.6a\n", NameOf(server), &lease->IPv4Address,
                kHoldTime, ending.reason, mac);
    lease->holderHadIt = false;
    WriteBooks(server, lease, {kLeaseStateHeld, mac, key, now});
    ++server->counters.addressesHeld;
    Ostrel_DHCPServerTell(server, ending.event, *lease);
    ClearBuffers(lease);
}

bool Ostrel_DHCPServer_LeaseMayBeHeldFor(const Ostrel_ServerObj* server, uint64_t key) {
    return FindHeldFor(server, key).count < kHeldForOne;
}

void Ostrel_DHCPServer_LeaseHoldForGood(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease) {
    if (lease->state == kLeaseStateActive) LogEnd(server, *lease, "its address is held");
    DebugPrintF(kDebugLevelInfo, "[%s] Address %.4a is held until it is released\n", NameOf(server),
                &lease->IPv4Address);
    lease->holderHadIt = false;
    WriteBooks(server, lease, {kLeaseStateHeld, {}, 0, 0, true});
    Ostrel_DHCPServerTell(server, Ostrel_LeaseEventKind::Held, *lease);
    ClearBuffers(lease);
}

bool Ostrel_DHCPServer_LeaseKeepIdentifier(Ostrel_LeaseInformation* lease, std::span<const uint8_t> data) {
    return WriteBuffer(lease, data, lease->clientIdentifier, lease->clientIdentifierLength);
}

bool Ostrel_DHCPServer_LeaseKeepHostName(Ostrel_LeaseInformation* lease, std::span<const uint8_t> data) {
    return WriteBuffer(lease, data, lease->hostName, lease->hostNameLength);
}

Ostrel_Status Ostrel_DHCPServer_LeaseClean(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease,
                                           Ostrel_LeaseEventKind event) {
    Ostrel_LeaseSlotFree(server, lease, {"released", event});
    return kNoErr;
}

void Ostrel_DHCPServer_LeasePrune(Ostrel_ServerObj* server, uint32_t now) {
    PruneHeld(server, now);
    if (Ostrel_LeaseWalksAreTraced()) PruneTraced(server, now);
    PruneOldest(server, now);
}

Ostrel_LeaseInformation* Ostrel_DHCPServer_LeaseNextUsed(const Ostrel_ServerObj* server,
                                                         const Ostrel_LeaseInformation* lease) {
    const uint32_t from = lease == nullptr ? 0 : Ostrel_LeaseSlotNumber(server, lease) + 1;
    return Ostrel_LeaseSlotAt(server, SlotSetLowestAbsent(server->index->free, server->index->withheld, from));
}

Ostrel_ServerGauges Ostrel_DHCPServerGaugesOf(const Ostrel_ServerObj* server) {
    const auto& slotsIn = server->slotsIn;
    return {.active = slotsIn[kLeaseStateActive],
            .offered = slotsIn[kLeaseStateOffered],
            .held = slotsIn[kLeaseStateHeld],
            .free = slotsIn[kLeaseStateFree] + slotsIn[kLeaseStateKept]};
}
