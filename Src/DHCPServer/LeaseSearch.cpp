// Who gets which slot.
//
// The plain rules are those of a walk over the slots in order: the first that fits wins. The walks are here as such,
// and run when the debug level asks for the lines that they write slot by slot. Otherwise the index (LeaseIndex.h)
// gives the same slot at once, so that a frame costs the same with any number of slots.
#include <algorithm>

#include "Ostrel/Log.h"

#include "DHCPServer/LeaseIndex.h"
#include "DHCPServer/LeaseTable.h"
#include "DHCPServer/Slots.h"

namespace {

const char* NameOf(const Ostrel_ServerObj* server) {
    return server->iface->ifname.data();
}

// "lease" and "index" of the lines below are the slot and its number.
void TraceFree(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease) {
    DebugPrintF(kDebugLevelTrace, "[%s] Lease at index %d, IPv4 <%.4a> free for MAC <%.6a>.\n", NameOf(server),
                Ostrel_LeaseSlotNumber(server, &lease), &lease.IPv4Address, lease.srcMAC);
}

bool IsTiedTo(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, uint64_t key) {
    return Ostrel_LeaseIndexKeyOf(server, Ostrel_LeaseSlotNumber(server, &lease)) == key;
}

// The lowest slot in such a state from `from` on that is tied to the client. Held ones are few.
template <typename Condition>
uint32_t LowestTied(const Ostrel_ServerObj* server, uint64_t key, uint32_t from, const Condition& fits) {
    uint32_t slot = Ostrel_LeaseIndexLowestTied(server, key, from);
    while (slot != kNoSlot && !fits(server->leases[slot].state))
        slot = Ostrel_LeaseIndexLowestTied(server, key, slot + 1);
    return slot;
}

bool IsFree(Ostrel_LeaseState state) {
    return state == kLeaseStateFree;
}
bool IsOffered(Ostrel_LeaseState state) {
    return state == kLeaseStateOffered;
}
bool IsFreeOrInUse(Ostrel_LeaseState state) {
    return state == kLeaseStateFree || Ostrel_LeaseIsInUse(state);
}

// Frees every slot of the client but the chosen one, so that it holds no more than what it asked for by address. A free
// one has a mark of an OFFER that could not be sent, or is remembered to have been the client's, and stays that.
void ReleaseOthers(Ostrel_ServerObj* server, const Ostrel_ServerClient& client, const Ostrel_LeaseInformation* chosen) {
    constexpr Ostrel_LeaseEnding kOtherAddress{"its client asks for another address", Ostrel_LeaseEventKind::Released};
    const auto belongs = server->rules->remembersHolders ? Ostrel_LeaseIsInUse : IsFreeOrInUse;
    if (Ostrel_LeaseWalksAreTraced()) {
        for (Ostrel_LeaseInformation& lease : Ostrel_LeaseSlotsOf(server)) {
            if (&lease == chosen || !belongs(lease.state) || !IsTiedTo(server, lease, client.key)) continue;
            TraceFree(server, lease);
            Ostrel_LeaseSlotFree(server, &lease, kOtherAddress);
        }
        return;
    }
    // Blank slots match a station whose MAC is all zero, but have nothing to clean.
    for (uint32_t slot = LowestTied(server, client.key, 0, belongs); slot != kNoSlot;
         slot = LowestTied(server, client.key, slot + 1, belongs)) {
        if (&server->leases[slot] != chosen) Ostrel_LeaseSlotFree(server, &server->leases[slot], kOtherAddress);
    }
}

bool GoesByAddress(uint32_t messageType) {
    return messageType == kDHCPRequest || messageType == kDHCPInform || messageType == kDHCPRelease ||
           messageType == kDHCPDecline;
}

// The slot that is kept for the client, if it can have it now; or null.
Ostrel_LeaseInformation* AvailableFixed(const Ostrel_ServerObj* server, const Ostrel_ServerClient& client) {
    const Ostrel_FixedClient* const fixed = Ostrel_DHCPServerFixedOf(server, client);
    if (fixed == nullptr || server->leases[fixed->slot].state == kLeaseStateHeld) return nullptr;
    return &server->leases[fixed->slot];
}

// Whether a client may have the slot of the address that it names. INFORM gives nothing back, so that a client which
// might take more than one by it would have them all.
bool IsOpenTo(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, uint32_t messageType,
              const Ostrel_ServerClient& client) {
    const bool isTaken =
        messageType == kDHCPRequest || (messageType == kDHCPInform && !Ostrel_DHCPServer_LeaseIsHolder(server, client));
    const Ostrel_LeaseInformation* const fixed = AvailableFixed(server, client);
    if (fixed != nullptr && fixed != &lease && isTaken) return false;
    switch (lease.state) {
        case kLeaseStateFree:
            return isTaken;
        case kLeaseStateHeld:
            return false;
        case kLeaseStateKept:
            return isTaken && fixed == &lease;
        case kLeaseStateOffered:
        case kLeaseStateActive:
            return fixed == &lease || IsTiedTo(server, lease, client.key);
    }
    return false;
}

Ostrel_LeaseInformation* FindByAddress(Ostrel_ServerObj* server, uint32_t messageType,
                                       const Ostrel_ServerClient& client, Ostrel_IPv4 address) {
    Ostrel_LeaseInformation* lease = Ostrel_LeaseSlotOfAddress(server, address);
    if (lease != nullptr && !IsOpenTo(server, *lease, messageType, client)) {
        DebugPrintF(kDebugLevelTrace,
                    "[%s] Lease at index %d, IPv4 <%.4a> free for MAC <%.6a>, assigned to MAC <%a>.\n", NameOf(server),
                    Ostrel_LeaseSlotNumber(server, lease), &lease->IPv4Address, lease->srcMAC, client.station);
        return nullptr;
    }
    if (lease != nullptr) TraceFree(server, *lease);
    if (messageType == kDHCPRequest) ReleaseOthers(server, client, lease);
    return lease;
}

// The walk without an address: a DISCOVER gets the first slot of its client, else the first free one.
Ostrel_LeaseInformation* ScanTraced(const Ostrel_ServerObj* server, uint32_t messageType,
                                    const Ostrel_ServerClient& client) {
    Ostrel_LeaseInformation* candidate = nullptr;
    for (Ostrel_LeaseInformation& lease : Ostrel_LeaseSlotsOf(server)) {
        const uint32_t slot = Ostrel_LeaseSlotNumber(server, &lease);
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
                        NameOf(server), slot, client.station);
            candidate = &lease;
        }
        if (IsFreeOrInUse(lease.state) && IsTiedTo(server, lease, client.key)) {
            DebugPrintF(kDebugLevelTrace, "[%s] Lease at index %d match for MAC <%.6a>.\n", NameOf(server), slot,
                        client.station);
            return &lease;
        }
    }
    return candidate;
}

Ostrel_LeaseInformation* Scan(const Ostrel_ServerObj* server, uint32_t messageType, const Ostrel_ServerClient& client) {
    if (Ostrel_LeaseWalksAreTraced()) return ScanTraced(server, messageType, client);
    if (messageType != kDHCPDiscover) return nullptr;

    uint32_t own = LowestTied(server, client.key, 0, IsFreeOrInUse);
    if (client.key == 0) own = std::min(own, SlotSetLowest(server->index->blank));
    return Ostrel_LeaseSlotAt(server, own != kNoSlot ? own : SlotSetLowest(server->index->free));
}

// RFC 2131 section 4.3.1, in its order: the client's current address, its former one, the one that it asks for, and a
// new one, which should be nobody's former.
Ostrel_LeaseInformation* ChooseFor(const Ostrel_ServerObj* server, const Ostrel_ServerClient& client,
                                   Ostrel_IPv4 requested) {
    const Ostrel_LeaseIndex& index = *server->index;
    const uint32_t own = LowestTied(server, client.key, 0, Ostrel_LeaseIsInUse);
    if (own != kNoSlot) return Ostrel_LeaseSlotAt(server, own);
    const uint32_t former = LowestTied(server, client.key, 0, IsFree);
    if (former != kNoSlot) return Ostrel_LeaseSlotAt(server, former);
    Ostrel_LeaseInformation* const wished = Ostrel_LeaseSlotOfAddress(server, requested);
    if (wished != nullptr && wished->state == kLeaseStateFree) return wished;
    const uint32_t unused = SlotSetLowest(index.blank);
    return Ostrel_LeaseSlotAt(server, unused != kNoSlot ? unused : index.rested.first);
}

}  // namespace

Ostrel_Status Ostrel_DHCPServer_LeaseFindByMACAndIPv4(Ostrel_ServerObj* server, uint32_t messageType,
                                                      const Ostrel_ServerClient& client, Ostrel_IPv4 requested,
                                                      Ostrel_LeaseInformation** lease) {
    *lease = nullptr;
    DebugPrintF(kDebugLevelTrace, "[%s] Find Lease for %.6a, requested IPv4 of %.4a.\n", NameOf(server), client.station,
                &requested);
    if (messageType == kDHCPDiscover) {
        *lease = AvailableFixed(server, client);
        if (*lease == nullptr && server->rules->remembersHolders) *lease = ChooseFor(server, client, requested);
        if (*lease != nullptr) return kNoErr;
        if (server->rules->remembersHolders) return kNoFreeResourceErr;
    }
    if (requested != kAnyIPv4 && (requested & server->IPv4SubnetMask) != server->IPv4Subnet) {
        DebugPrintF(kDebugLevelTrace, "[%s] SUBNET MISMATCH: %.6a requested IPv4 of %.4a on subnet %.4a.\n",
                    NameOf(server), client.station, &requested, &server->IPv4Subnet);
        return kNoFreeResourceErr;
    }
    *lease = requested != kAnyIPv4 && GoesByAddress(messageType) ? FindByAddress(server, messageType, client, requested)
                                                                 : Scan(server, messageType, client);
    return *lease == nullptr ? kNoFreeResourceErr : kNoErr;
}

// One that was claimed for an OFFER that could not be sent is not in use.
bool Ostrel_DHCPServer_LeaseIsHolder(const Ostrel_ServerObj* server, const Ostrel_ServerClient& client) {
    return LowestTied(server, client.key, 0, Ostrel_LeaseIsInUse) != kNoSlot;
}

void Ostrel_DHCPServer_LeaseForgo(Ostrel_ServerObj* server, const Ostrel_ServerClient& client) {
    for (uint32_t slot = LowestTied(server, client.key, 0, IsOffered); slot != kNoSlot;
         slot = LowestTied(server, client.key, slot + 1, IsOffered)) {
        Ostrel_LeaseSlotFree(server, &server->leases[slot], {"", Ostrel_LeaseEventKind::Freed});
    }
}
