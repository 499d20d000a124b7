// The rules of the lease table.
//
// The rules are those of a walk over the slots in order: the first that fits wins. The walks are here as such, and run
// when the debug level asks for the lines that they write slot by slot. Otherwise the index (LeaseIndex.h) gives the
// same slot at once, so that a frame costs the same with any number of slots.
#include "DHCPServer/LeaseTable.h"

#include <algorithm>
#include <array>
#include <endian.h>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "DHCPServer/LeaseIndex.h"
#include "os_time.h"

namespace {

const char* NameOf(const Ostrel_ServerObj* server) {
    return server->iface->ifname.data();
}

std::span<Ostrel_LeaseInformation> SlotsOf(const Ostrel_ServerObj* server) {
    return {server->leases.get(), static_cast<size_t>(server->maxLeases)};
}

Ostrel_LeaseInformation* SlotAt(const Ostrel_ServerObj* server, uint32_t slot) {
    return slot == kNoSlot ? nullptr : &server->leases[slot];
}

uint32_t NumberOf(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease) {
    return static_cast<uint32_t>(lease - server->leases.get());
}

std::string_view TextOf(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Whether a line at trace level, that of every walk, would be written.
bool WalksAreTraced() {
    return DebugIsWritten(kDebugLevelTrace);
}

// Addresses count on through the lower three octets; the first never changes.
constexpr uint32_t kCountingBits = 0x00FFFFFF;

Ostrel_IPv4 AddressOfSlot(const Ostrel_ServerObj* server, uint32_t slot) {
    const uint32_t start = be32toh(server->IPv4RangeStart);
    return htobe32((start & ~kCountingBits) | ((start + slot) & kCountingBits));
}

Ostrel_LeaseInformation* SlotOfAddress(const Ostrel_ServerObj* server, Ostrel_IPv4 address) {
    const uint32_t slot = (be32toh(address) - be32toh(server->IPv4RangeStart)) & kCountingBits;
    if (slot >= static_cast<uint32_t>(server->maxLeases)) return nullptr;
    return AddressOfSlot(server, slot) == address ? &server->leases[slot] : nullptr;
}

// The one place where a slot's books are written. `offerTime` is the slot's own, or now.
void WriteBooks(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, Ostrel_LeaseState state,
                const Ostrel_MAC& mac, uint32_t offerTime) {
    const uint32_t slot = NumberOf(server, lease);
    const bool staysInUse = lease->state != kLeaseStateFree && state != kLeaseStateFree;
    const bool keepsAge = staysInUse && lease->offerTime == offerTime;
    Ostrel_LeaseIndexLeave(server, slot, keepsAge);
    lease->state = state;
    lease->srcMAC = mac;
    lease->offerTime = offerTime;
    lease->changed = true;
    Ostrel_LeaseIndexEnter(server, slot, keepsAge);
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

// Returns a slot to the free state; `reason` is for the end of a lease.
void Free(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const char* reason) {
    DebugPrintF(kDebugLevelTrace, "[%s] Free Lease %.4a assigned to %.6a.\n", NameOf(server), &lease->IPv4Address,
                lease->srcMAC);
    if (lease->state == kLeaseStateActive) LogEnd(server, *lease, reason);
    WriteBooks(server, lease, kLeaseStateFree, Ostrel_MAC{}, 0);
    (void)Ostrel_DHCPServer_LeaseKeepIdentifier(lease, {});  // nothing: that cannot fail
    (void)Ostrel_DHCPServer_LeaseKeepHostName(lease, {});
}

// "lease" and "index" of the lines below are the slot and its number.
void TraceFree(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease) {
    DebugPrintF(kDebugLevelTrace, "[%s] Lease at index %d, IPv4 <%.4a> free for MAC <%.6a>.\n", NameOf(server),
                NumberOf(server, &lease), &lease.IPv4Address, lease.srcMAC);
}

// Frees every slot of the station but the chosen one, so that it holds no more than what it asked for by address.
void ReleaseByMAC(Ostrel_ServerObj* server, const Ostrel_MAC& mac, const Ostrel_LeaseInformation* chosen) {
    constexpr char kOtherAddress[] = "its client asks for another address";
    if (WalksAreTraced()) {
        for (Ostrel_LeaseInformation& lease : SlotsOf(server)) {
            if (&lease == chosen || lease.srcMAC != mac) continue;
            TraceFree(server, lease);
            Free(server, &lease, kOtherAddress);
        }
        return;
    }
    // Blank slots match a station whose MAC is all zero, but have nothing to clean.
    for (uint32_t slot = Ostrel_LeaseIndexLowestTied(server, mac, 0); slot != kNoSlot;
         slot = Ostrel_LeaseIndexLowestTied(server, mac, slot + 1)) {
        if (SlotAt(server, slot) != chosen) Free(server, SlotAt(server, slot), kOtherAddress);
    }
}

bool GoesByAddress(uint32_t messageType) {
    return messageType == kDHCPRequest || messageType == kDHCPInform || messageType == kDHCPRelease;
}

// Whether a slot is in use by the station; one that was claimed for an OFFER that could not be sent is not.
bool HoldsAny(const Ostrel_ServerObj* server, const Ostrel_MAC& mac) {
    for (uint32_t slot = Ostrel_LeaseIndexLowestTied(server, mac, 0); slot != kNoSlot;
         slot = Ostrel_LeaseIndexLowestTied(server, mac, slot + 1)) {
        if (server->leases[slot].state != kLeaseStateFree) return true;
    }
    return false;
}

// Whether a station may have the slot of the address that it names. INFORM gives nothing back, so that a station which
// might take more than one by it would have them all.
bool IsOpenTo(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, uint32_t messageType,
              const Ostrel_MAC& mac) {
    if (lease.state != kLeaseStateFree) return lease.srcMAC == mac;
    return messageType == kDHCPRequest || (messageType == kDHCPInform && !HoldsAny(server, mac));
}

Ostrel_LeaseInformation* FindByAddress(Ostrel_ServerObj* server, uint32_t messageType, const Ostrel_MAC& mac,
                                       Ostrel_IPv4 address) {
    Ostrel_LeaseInformation* lease = SlotOfAddress(server, address);
    if (lease != nullptr && !IsOpenTo(server, *lease, messageType, mac)) {
        DebugPrintF(kDebugLevelTrace,
                    "[%s] Lease at index %d, IPv4 <%.4a> free for MAC <%.6a>, assigned to MAC <%a>.\n", NameOf(server),
                    NumberOf(server, lease), &lease->IPv4Address, lease->srcMAC, mac);
        return nullptr;
    }
    if (lease != nullptr) TraceFree(server, *lease);
    if (messageType == kDHCPRequest) ReleaseByMAC(server, mac, lease);
    return lease;
}

// The walk without an address: a DISCOVER gets the first slot of its station, else the first free one.
Ostrel_LeaseInformation* ScanTraced(const Ostrel_ServerObj* server, uint32_t messageType, const Ostrel_MAC& mac) {
    Ostrel_LeaseInformation* candidate = nullptr;
    for (Ostrel_LeaseInformation& lease : SlotsOf(server)) {
        const uint32_t slot = NumberOf(server, &lease);
        DebugPrintF(kDebugLevelTrace,
                    "[%s] Lease at index %d has MAC <%.6a> and IPv4 <%.4a> in state <%d>, lease set to %p.\n",
                    NameOf(server), slot, lease.srcMAC, &lease.IPv4Address, uint32_t{lease.state},
                    static_cast<const void*>(candidate));
        if (messageType != kDHCPDiscover) {
            DebugPrintF(kDebugLevelTrace, "[%s] msgType mismatch, expected %d, actual %d...continue\n", NameOf(server),
                        kDHCPDiscover, messageType);
            continue;
        }
        if (lease.state == kLeaseStateFree && candidate == nullptr) {
            DebugPrintF(kDebugLevelTrace, "[%s] Lease at index %d possible lease candidate for MAC <%.6a>.\n",
                        NameOf(server), slot, mac);
            candidate = &lease;
        }
        if (lease.srcMAC == mac) {
            DebugPrintF(kDebugLevelTrace, "[%s] Lease at index %d match for MAC <%.6a>.\n", NameOf(server), slot, mac);
            return &lease;
        }
    }
    return candidate;
}

Ostrel_LeaseInformation* Scan(const Ostrel_ServerObj* server, uint32_t messageType, const Ostrel_MAC& mac) {
    if (WalksAreTraced()) return ScanTraced(server, messageType, mac);
    if (messageType != kDHCPDiscover) return nullptr;

    uint32_t own = Ostrel_LeaseIndexLowestTied(server, mac, 0);
    if (mac == Ostrel_MAC{}) own = std::min(own, SlotSetLowest(server->index->blank));
    return SlotAt(server, own != kNoSlot ? own : SlotSetLowest(server->index->free));
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
    Free(server, &lease, "expired");
}

void PruneTraced(Ostrel_ServerObj* server, uint32_t now) {
    for (Ostrel_LeaseInformation& lease : SlotsOf(server)) {
        DebugPrintF(kDebugLevelChatty,
                    "[%s] ### PRUNE LEASE ### Lease IPv4 <%.4a>, State <%d>, MAC <%.6a>, Offer time <%d>, now <%d>.\n",
                    NameOf(server), &lease.IPv4Address, uint32_t{lease.state}, lease.srcMAC, lease.offerTime, now);
        switch (lease.state) {
            case kLeaseStateFree:
                DebugPrintF(kDebugLevelChatty, "[%s] ### PRUNE LEASE ### Lease %.4a Free - do nothing.\n",
                            NameOf(server), &lease.IPv4Address);
                break;
            case kLeaseStateReserved2:
            case kLeaseStateReserved3:
                DebugPrintF(kDebugLevelChatty, "[%s]  ### PRUNE LEASE ### Lease %.4a reserved - do nothing.\n",
                            NameOf(server), &lease.IPv4Address);
                break;
            case kLeaseStateOffered:
            case kLeaseStateActive:
                if (IsOver(server, lease, now)) Expire(server, lease, now);
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

}  // namespace

Ostrel_Status Ostrel_DHCPServer_LeasesInitialize(Ostrel_ServerObj* server) {
    const uint32_t mask = be32toh(server->IPv4SubnetMask);
    const auto slots = static_cast<uint32_t>(server->maxLeases);
    OSTREL_REQUIRE(~mask > slots, "(~server->IPv4SubnetMask > server->maxLeases)", kBadParamErr);
    OSTREL_REQUIRE((mask & 0xFF) == 0, "(server->IPv4SubnetMask < 0x01000000)", kBadParamErr);

    server->leases = os_new_records<Ostrel_LeaseInformation>(slots);
    OSTREL_REQUIRE(server->leases != nullptr, "server->leases", kOutOfMemoryErr);
    for (uint32_t slot = 0; slot < slots; ++slot) {
        Ostrel_LeaseInformation& lease = server->leases[slot];
        lease.IPv4Address = AddressOfSlot(server, slot);
        lease.state = kLeaseStateFree;
        DebugPrintF(kDebugLevelVerbose, "%s Adding %.4a as an available lease.\n", NameOf(server), &lease.IPv4Address);
    }
    return Ostrel_LeaseIndexInitialize(server);
}

Ostrel_Status Ostrel_DHCPServer_LeaseFindByMACAndIPv4(Ostrel_ServerObj* server, uint32_t messageType,
                                                      const Ostrel_MAC& mac, Ostrel_IPv4 requested,
                                                      Ostrel_LeaseInformation** lease) {
    *lease = nullptr;
    DebugPrintF(kDebugLevelTrace, "[%s] Find Lease for %.6a, requested IPv4 of %.4a.\n", NameOf(server), mac,
                &requested);
    if (requested != kAnyIPv4 && (requested & server->IPv4SubnetMask) != server->IPv4Subnet) {
        DebugPrintF(kDebugLevelTrace, "[%s] SUBNET MISMATCH: %.6a requested IPv4 of %.4a on subnet %.4a.\n",
                    NameOf(server), mac, &requested, &server->IPv4Subnet);
        return kNoFreeResourceErr;
    }
    *lease = requested != kAnyIPv4 && GoesByAddress(messageType) ? FindByAddress(server, messageType, mac, requested)
                                                                 : Scan(server, messageType, mac);
    return *lease == nullptr ? kNoFreeResourceErr : kNoErr;
}

void Ostrel_DHCPServer_LeaseClaim(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac) {
    if (lease->state != kLeaseStateFree) return;
    WriteBooks(server, lease, kLeaseStateFree, mac, 0);
}

void Ostrel_DHCPServer_LeaseOffer(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, uint32_t now) {
    if (lease->state == kLeaseStateActive) LogEnd(server, *lease, "its client begins anew");
    WriteBooks(server, lease, kLeaseStateOffered, lease->srcMAC, now);
}

void Ostrel_DHCPServer_LeaseActivate(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac,
                                     uint32_t now, std::span<const uint8_t> hostName) {
    const bool isNew = lease->state != kLeaseStateActive;
    const bool startsAnew = lease->state == kLeaseStateFree || lease->offerTime == 0;
    WriteBooks(server, lease, kLeaseStateActive, startsAnew ? mac : lease->srcMAC, startsAnew ? now : lease->offerTime);
    if (isNew) LogGrant(server, *lease, hostName);
}

bool Ostrel_DHCPServer_LeaseKeepIdentifier(Ostrel_LeaseInformation* lease, std::span<const uint8_t> data) {
    return WriteBuffer(lease, data, lease->clientIdentifier, lease->clientIdentifierLength);
}

bool Ostrel_DHCPServer_LeaseKeepHostName(Ostrel_LeaseInformation* lease, std::span<const uint8_t> data) {
    return WriteBuffer(lease, data, lease->hostName, lease->hostNameLength);
}

Ostrel_Status Ostrel_DHCPServer_LeaseClean(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease) {
    Free(server, lease, "released");
    return kNoErr;
}

void Ostrel_DHCPServer_LeasePrune(Ostrel_ServerObj* server, uint32_t now) {
    if (WalksAreTraced()) {
        PruneTraced(server, now);
    } else {
        PruneOldest(server, now);
    }
}

Ostrel_LeaseInformation* Ostrel_DHCPServer_LeaseNextUsed(const Ostrel_ServerObj* server,
                                                         const Ostrel_LeaseInformation* lease) {
    const uint32_t from = lease == nullptr ? 0 : NumberOf(server, lease) + 1;
    return SlotAt(server, SlotSetLowestAbsent(server->index->free, from));
}
