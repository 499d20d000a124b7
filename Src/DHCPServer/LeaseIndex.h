// What makes the lease table's lookups cheap, whatever its size: which slot is free, which are tied to a station, which
// is the oldest. It knows slots and their books (state, MAC, offer time), not the rules by which they change.
//
// A slot is blank when it is free and has no MAC; any other slot is tied to its MAC, a free one too when its OFFER
// could not be sent. A station is tied to two slots at most, but for one without an address (all zero), to which each
// blank slot looks like its own: it may be tied to any number.
//
//   free, blank   sets of slots
//   ties          a hash table of trees; the slots tied to one MAC are one tree, ordered by slot number
//   byAge         the slots in use, by offer time
//   offered       the offered ones among them, by offer time
#pragma once

#include <cstdint>

#include "Ostrel/DHCPServer.h"

#include "DHCPServer/SlotSet.h"
#include "os_memory.h"

struct SlotNeighbours {
    uint32_t previous;
    uint32_t next;
};

struct SlotLinks {
    SlotNeighbours byAge;
    SlotNeighbours offered;
    uint32_t lower;     // subtrees of the slots tied to the same MAC
    uint32_t higher;    //
    uint32_t nextTree;  // at the root of a tree: the next one in the hash chain
};

// What a free slot costs: itself, its links, up to two hash chains, and a bit in each set and the levels above.
static_assert(sizeof(Ostrel_LeaseInformation) + sizeof(SlotLinks) + 2 * sizeof(uint32_t) + 1 <= 128);

// A list threaded through one member of the links.
struct SlotList {
    SlotNeighbours SlotLinks::*neighbours;
    uint32_t first;
    uint32_t last;
};

struct Ostrel_LeaseIndex {
    SlotSet free;
    SlotSet blank;
    SlotList byAge;
    SlotList offered;
    os_array<SlotLinks> links;  // one a slot
    os_array<uint32_t> chains;  // first tree of each hash chain
    uint32_t numChains;         // a power of two
    uint64_t key;               // unknown outside: no station can choose MACs that share a chain
};

// Builds the index of a table of blank slots; kOutOfMemoryErr leaves a half-built one, which may only be destroyed.
[[nodiscard]] Ostrel_Status Ostrel_LeaseIndexInitialize(Ostrel_ServerObj* server);

// A slot's books are written between these two: Leave finds the slot by the books that it had, Enter by those that it
// has got. One that is in use before and after, with the same offer time, keeps its place by age.
void Ostrel_LeaseIndexLeave(Ostrel_ServerObj* server, uint32_t slot, bool keepsAge);
void Ostrel_LeaseIndexEnter(Ostrel_ServerObj* server, uint32_t slot, bool keepsAge);

// The lowest slot from `from` on that is tied to the MAC, or kNoSlot.
[[nodiscard]] uint32_t Ostrel_LeaseIndexLowestTied(const Ostrel_ServerObj* server, const Ostrel_MAC& mac,
                                                   uint32_t from);
