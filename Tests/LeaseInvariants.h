// What must hold of a lease table between any two frames: a slot's books agree with its state, the index with the
// table, and no station has more slots than it can have come by.
#pragma once

#include <string>

#include "Ostrel/DHCPServer.h"

#include "DHCPServer/LeaseIndex.h"
#include "DHCPServer/LeaseTable.h"

// What is wrong, in words; empty when nothing is.
[[nodiscard]] inline std::string FindLeaseFault(const Ostrel_ServerObj& server) {
    const Ostrel_LeaseIndex& index = *server.index;
    const auto isMember = [](const SlotSet& set, uint32_t slot) {
        return (set.wordsOf[0][slot / 64] >> slot % 64) & 1;
    };
    uint32_t used = 0;
    uint32_t offered = 0;
    uint32_t held = 0;
    uint32_t rested = 0;
    uint32_t tied = 0;
    uint32_t lowestFree = kNoSlot;
    for (uint32_t slot = 0; slot < server.numSlots; ++slot) {
        const Ostrel_LeaseInformation& lease = server.leases[slot];
        const bool isFree = lease.state == kLeaseStateFree;
        const bool isHeld = lease.state == kLeaseStateHeld;
        const bool isUsed = Ostrel_LeaseIsInUse(lease.state);
        const bool hasKey = Ostrel_LeaseIndexKeyOf(&server, slot) != 0;
        const bool isTied = isUsed || (isHeld && !lease.isHeldForGood) || (isFree && hasKey);
        const bool isBlank = isFree && !hasKey && !lease.wasLeased;
        const auto faultAt = [slot](const char* what) { return "slot " + std::to_string(slot) + ": " + what; };
        if (isFree && (lease.offerTime != 0 || lease.clientIdentifier || lease.hostName))
            return faultAt("free with books");
        if (!lease.clientIdentifier && lease.clientIdentifierLength != 0) return faultAt("length of no identifier");
        if (!lease.hostName && lease.hostNameLength != 0) return faultAt("length of no host name");
        if (isMember(index.free, slot) != isFree) return faultAt("set of free slots");
        if (isMember(index.blank, slot) != isBlank) return faultAt("set of blank slots");
        if (isMember(index.withheld, slot) != (isHeld || lease.state == kLeaseStateKept))
            return faultAt("set of withheld slots");
        const bool isFound = Ostrel_LeaseIndexLowestTied(&server, Ostrel_LeaseIndexKeyOf(&server, slot), slot) == slot;
        if (isTied != isFound) return faultAt("ties");
        if (isFree && lowestFree == kNoSlot) lowestFree = slot;
        used += isUsed;
        offered += lease.state == kLeaseStateOffered;
        held += isHeld && !lease.isHeldForGood;
        rested += isFree && !isBlank && server.rules->remembersHolders;
        tied += isTied;
    }
    if (SlotSetLowest(index.free) != lowestFree) return "lowest free slot";

    const auto walk = [&](const SlotList& list, uint32_t expected, auto belongs) -> std::string {
        uint32_t before = kNoSlot;
        for (uint32_t slot = list.first; slot != kNoSlot; slot = (index.links[slot].*list.neighbours).next) {
            const Ostrel_LeaseInformation& lease = server.leases[slot];
            if ((index.links[slot].*list.neighbours).previous != before) return "link back";
            if (!belongs(lease.state)) return "stranger";
            const bool ordered =
                before == kNoSlot || static_cast<int32_t>(lease.offerTime - server.leases[before].offerTime) >= 0;
            if (!ordered) return "order";
            if (expected-- == 0) return "too long";
            before = slot;
        }
        return list.last != before ? "end" : expected != 0 ? "too short" : "";
    };
    const auto is = [](Ostrel_LeaseState wanted) {
        return [wanted](Ostrel_LeaseState state) { return state == wanted; };
    };
    const std::pair<const char*, std::string> walks[] = {
        {"list by age: ", walk(index.byAge, used, Ostrel_LeaseIsInUse)},
        {"list of offers: ", walk(index.offered, offered, is(kLeaseStateOffered))},
        {"list of held ones: ", walk(index.held, held, is(kLeaseStateHeld))},
        {"list of rested ones: ", walk(index.rested, rested, is(kLeaseStateFree))},
    };
    for (const auto& [list, fault] : walks)
        if (!fault.empty()) return list + fault;

    uint32_t reached = 0;
    const auto count = [&](const auto& self, uint32_t tree) -> void {
        if (tree == kNoSlot || ++reached > tied) return;
        self(self, index.links[tree].lower);
        self(self, index.links[tree].higher);
    };
    for (uint32_t chain = 0; chain < index.numChains; ++chain) {
        for (uint32_t tree = index.chains[chain]; tree != kNoSlot && reached <= tied;
             tree = index.links[tree].nextTree) {
            const uint32_t before = reached;
            count(count, tree);
            // Two in use, one that it had last, and as many held as may be.
            const uint32_t most = server.rules->remembersHolders ? 3 + kHeldForOne : 2;
            if (reached - before > most && Ostrel_LeaseIndexKeyOf(&server, tree) != 0)
                return "a client has too many slots";
        }
    }
    return reached == tied ? "" : "trees hold " + std::to_string(reached) + " slots of " + std::to_string(tied);
}
