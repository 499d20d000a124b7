// What makes the lease table's lookups cheap, whatever its size: which slot is free, which are tied to a client, which
// is the oldest. It knows slots and their books (state, client, offer time), not the rules by which they change.
//
// A client is a 64-bit key: by the plain rules the Ethernet address, which the slot has anyway, by the rfc rules a hash
// of its identity, which stands here. Tied to its client are a slot in use, one held because of it, and a free one that
// it had last, or whose OFFER could not be sent. A client is tied to a few slots at most, but for one without an
// address (all zero) under the plain rules, to which each blank slot looks like its own: it may be tied to any number.
//
//   free        all free slots
//   blank       the free ones that were never leased, or, where holders are not remembered, are tied to nobody
//   withheld    held and kept slots
//   ties        a hash table of trees; the slots tied to one client are one tree, ordered by slot number
//   byAge       the slots in use, by offer time; those before `untold` are over, and their ends have been told
//   offered     the offered ones among them, by offer time
//   rested      the other free slots, where holders are remembered: by the time at which they fell free
//   held        the held slots, but for an operator's, by the time at which the hold began
#pragma once

#include <cstdint>

#include "Ostrel/DHCPServer.h"

#include "DHCPServer/Client.h"
#include "DHCPServer/SlotSet.h"
#include "os_memory.h"

struct SlotNeighbours {
    uint32_t previous;
    uint32_t next;
};

struct SlotLinks {
    SlotNeighbours byAge;    // or rested, of a free slot
    SlotNeighbours offered;  // or held
    uint32_t lower;          // subtrees of the slots tied to the same client
    uint32_t higher;         //
    uint32_t nextTree;       // at the root of a tree: the next one in the hash chain
};

// What a free slot costs: itself, its links, its key, up to two hash chains, and a bit in each set and the levels
// above.
static_assert(sizeof(Ostrel_LeaseInformation) + sizeof(SlotLinks) + sizeof(uint64_t) + 2 * sizeof(uint32_t) + 1 <= 128);

// A list threaded through one member of the links.
struct SlotList {
    SlotNeighbours SlotLinks::*neighbours;
    uint32_t first;
    uint32_t last;
};

struct Ostrel_LeaseIndex {
    SlotSet free;
    SlotSet blank;
    SlotSet withheld;
    SlotList byAge;
    uint32_t untold;  // a slot of byAge, or kNoSlot
    SlotList offered;
    SlotList rested;
    SlotList held;
    os_array<SlotLinks> links;     // one a slot
    os_array<uint32_t> chains;     // first tree of each hash chain
    uint32_t numChains;            // a power of two
    os_array<uint64_t> keys;       // what each slot is tied by; null where that is its MAC
    uint64_t key;                  // unknown outside: no station can choose MACs that share a chain
    Ostrel_ClientHashKey hashKey;  // likewise, of identities that share a key
};

// Builds the index of a table of blank slots; kOutOfMemoryErr leaves a half-built one, which may only be destroyed.
[[nodiscard]] Ostrel_Status Ostrel_LeaseIndexInitialize(Ostrel_ServerObj* server);

// The places of a slot in use that it keeps, as it stays in use: by age with the same offer time, among the ties with
// the same client.
struct SlotPlacesKept {
    bool byAge;
    bool tie;
};

// A slot's books are written between these two: Leave finds the slot by the books that it had, Enter by those that it
// has got.
void Ostrel_LeaseIndexLeave(Ostrel_ServerObj* server, uint32_t slot, SlotPlacesKept kept);
void Ostrel_LeaseIndexEnter(Ostrel_ServerObj* server, uint32_t slot, SlotPlacesKept kept);

// What a slot is tied by, or 0 when it is tied to nobody, whom only the address of all zeros looks like.
[[nodiscard]] uint64_t Ostrel_LeaseIndexKeyOfMAC(const Ostrel_MAC& mac);
[[nodiscard]] uint64_t Ostrel_LeaseIndexKeyOf(const Ostrel_ServerObj* server, uint32_t slot);

// Writes it, between Leave and Enter; nothing where a slot is tied by its MAC.
void Ostrel_LeaseIndexSetKey(Ostrel_ServerObj* server, uint32_t slot, uint64_t key);

// Ties a slot in use to another client, as which it shows `mac` from now on. It keeps its places.
void Ostrel_LeaseIndexHandOver(Ostrel_ServerObj* server, uint32_t slot, const Ostrel_MAC& mac, uint64_t key);

// Unties a free slot from the client that had it last. It keeps its place.
void Ostrel_LeaseIndexForget(Ostrel_ServerObj* server, uint32_t slot);

// Puts the slots in use into the order of their offer times, whatever order they came in. Nothing may have been told.
void Ostrel_LeaseIndexSortByAge(Ostrel_ServerObj* server);

// The lowest slot from `from` on that is tied to the client, or kNoSlot.
[[nodiscard]] uint32_t Ostrel_LeaseIndexLowestTied(const Ostrel_ServerObj* server, uint64_t key, uint32_t from);

[[nodiscard]] inline bool Ostrel_LeaseIsInUse(Ostrel_LeaseState state) {
    return state == kLeaseStateOffered || state == kLeaseStateActive;
}
