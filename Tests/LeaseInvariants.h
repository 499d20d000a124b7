// What must hold of a lease table between any two frames: a slot's books agree with its state, the index with the
// table, and no station has more slots than it can have come by.
#pragma once

#include <string>

#include "Ostrel/DHCPServer.h"

#include "DHCPServer/LeaseIndex.h"

// What is wrong, in words; empty when nothing is.
[[nodiscard]] inline std::string FindLeaseFault(const Ostrel_ServerObj& server) {
    const Ostrel_LeaseIndex& index = *server.index;
    const auto isMember = [](const SlotSet& set, uint32_t slot) {
        return (set.wordsOf[0][slot / 64] >> slot % 64) & 1;
    };
    uint32_t used = 0;
    uint32_t offered = 0;
    uint32_t tied = 0;
    uint32_t lowestFree = kNoSlot;
    for (uint32_t slot = 0; slot < static_cast<uint32_t>(server.maxLeases); ++slot) {
        const Ostrel_LeaseInformation& lease = server.leases[slot];
        const bool isFree = lease.state == kLeaseStateFree;
        const bool isBlank = isFree && lease.srcMAC == Ostrel_MAC{};
        const auto faultAt = [slot](const char* what) { return "slot " + std::to_string(slot) + ": " + what; };
        if (isFree && (lease.offerTime != 0 || lease.clientIdentifier || lease.hostName))
            return faultAt("free with books");
        if (!lease.clientIdentifier && lease.clientIdentifierLength != 0) return faultAt("length of no identifier");
        if (!lease.hostName && lease.hostNameLength != 0) return faultAt("length of no host name");
        if (isMember(index.free, slot) != isFree) return faultAt("set of free slots");
        if (isMember(index.blank, slot) != isBlank) return faultAt("set of blank slots");
        const bool isTied = Ostrel_LeaseIndexLowestTied(&server, Ostrel_LeaseIndexKeyOf(&server, slot), slot) == slot;
        if (isTied == isBlank) return faultAt("ties");
        if (isFree && lowestFree == kNoSlot) lowestFree = slot;
        used += !isFree;
        offered += lease.state == kLeaseStateOffered;
        tied += !isBlank;
    }
    if (SlotSetLowest(index.free) != lowestFree) return "lowest free slot";

    const auto walk = [&](const SlotList& list, uint32_t expected, bool onlyOffered) -> std::string {
        uint32_t before = kNoSlot;
        for (uint32_t slot = list.first; slot != kNoSlot; slot = (index.links[slot].*list.neighbours).next) {
            const Ostrel_LeaseInformation& lease = server.leases[slot];
            if ((index.links[slot].*list.neighbours).previous != before) return "link back";
            if (lease.state == kLeaseStateFree || (onlyOffered && lease.state != kLeaseStateOffered)) return "stranger";
            const bool ordered =
                before == kNoSlot || static_cast<int32_t>(lease.offerTime - server.leases[before].offerTime) >= 0;
            if (!ordered) return "order";
            if (expected-- == 0) return "too long";
            before = slot;
        }
        return list.last != before ? "end" : expected != 0 ? "too short" : "";
    };
    if (const std::string fault = walk(index.byAge, used, false); !fault.empty()) return "list by age: " + fault;
    if (const std::string fault = walk(index.offered, offered, true); !fault.empty()) return "list of offers: " + fault;

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
            if (reached - before > 2 && server.leases[tree].srcMAC != Ostrel_MAC{}) return "a station has three slots";
        }
    }
    return reached == tied ? "" : "trees hold " + std::to_string(reached) + " slots of " + std::to_string(tied);
}
