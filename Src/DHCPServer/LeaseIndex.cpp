// The index of the lease table: sets, lists, and the ties of slots to clients.
//
// Ties are found by hash. All slots of one client form a treap, a search tree by slot number whose shape follows
// random priorities: whoever sends from the address of all zeros can have any number of slots tied to it, and neither
// the next such frame nor the expiry of all those slots may become a walk over them. Nearly every tree is a single
// slot.
//
// The lists stay sorted by time without searching, as a slot enters at the end, with the time of now, and keeps its
// place as long as its offer time.
#include "DHCPServer/LeaseIndex.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Ostrel/Check.h"

#include "os_random.h"

namespace {

// A bijection without visible structure (the finaliser of splitmix64).
uint64_t Scramble(uint64_t value) {
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

void Append(Ostrel_LeaseIndex& index, SlotList& list, uint32_t slot) {
    index.links[slot].*list.neighbours = {.previous = list.last, .next = kNoSlot};
    uint32_t& before = list.last == kNoSlot ? list.first : (index.links[list.last].*list.neighbours).next;
    before = slot;
    list.last = slot;
}

void Remove(Ostrel_LeaseIndex& index, SlotList& list, uint32_t slot) {
    const SlotNeighbours around = index.links[slot].*list.neighbours;
    uint32_t& before = around.previous == kNoSlot ? list.first : (index.links[around.previous].*list.neighbours).next;
    uint32_t& after = around.next == kNoSlot ? list.last : (index.links[around.next].*list.neighbours).previous;
    before = around.next;
    after = around.previous;
}

bool IsAbove(const Ostrel_LeaseIndex& index, uint32_t slot, uint32_t other) {
    return Scramble(index.key ^ slot) > Scramble(index.key ^ other);
}

// One tree of two, where every slot of `low` is below every slot of `high`.
uint32_t Join(const Ostrel_LeaseIndex& index, uint32_t low, uint32_t high) {
    if (low == kNoSlot) return high;
    if (high == kNoSlot) return low;
    if (IsAbove(index, low, high)) {
        index.links[low].higher = Join(index, index.links[low].higher, high);
        return low;
    }
    index.links[high].lower = Join(index, low, index.links[high].lower);
    return high;
}

// Two trees of one: the slots below `slot`, which is not in it, and those above.
void Split(const Ostrel_LeaseIndex& index, uint32_t tree, uint32_t slot, uint32_t* below, uint32_t* above) {
    if (tree == kNoSlot) {
        *below = *above = kNoSlot;
    } else if (tree < slot) {
        *below = tree;
        Split(index, index.links[tree].higher, slot, &index.links[tree].higher, above);
    } else {
        *above = tree;
        Split(index, index.links[tree].lower, slot, below, &index.links[tree].lower);
    }
}

uint32_t WithSlot(const Ostrel_LeaseIndex& index, uint32_t tree, uint32_t slot) {
    uint32_t below = kNoSlot;
    uint32_t above = kNoSlot;
    Split(index, tree, slot, &below, &above);
    index.links[slot].lower = index.links[slot].higher = kNoSlot;
    return Join(index, Join(index, below, slot), above);
}

uint32_t WithoutSlot(const Ostrel_LeaseIndex& index, uint32_t tree, uint32_t slot) {
    uint32_t* link = &tree;
    while (*link != slot) link = slot < *link ? &index.links[*link].lower : &index.links[*link].higher;
    *link = Join(index, index.links[slot].lower, index.links[slot].higher);
    return tree;
}

// The link of the hash chain that holds the client's tree, or the chain's end.
uint32_t* FindTree(const Ostrel_ServerObj* server, uint64_t key) {
    const Ostrel_LeaseIndex& index = *server->index;
    uint32_t* link = &index.chains[static_cast<uint32_t>(Scramble(index.key ^ key)) & (index.numChains - 1)];
    while (*link != kNoSlot && Ostrel_LeaseIndexKeyOf(server, *link) != key) link = &index.links[*link].nextTree;
    return link;
}

// Ties a slot to its client, where it may be the first.
void Tie(Ostrel_ServerObj* server, uint32_t slot) {
    const Ostrel_LeaseIndex& index = *server->index;
    uint32_t* link = FindTree(server, Ostrel_LeaseIndexKeyOf(server, slot));
    const uint32_t following = *link == kNoSlot ? kNoSlot : index.links[*link].nextTree;
    *link = WithSlot(index, *link, slot);
    index.links[*link].nextTree = following;
}

void Untie(Ostrel_ServerObj* server, uint32_t slot) {
    const Ostrel_LeaseIndex& index = *server->index;
    uint32_t* link = FindTree(server, Ostrel_LeaseIndexKeyOf(server, slot));
    const uint32_t following = index.links[*link].nextTree;
    const uint32_t tree = WithoutSlot(index, *link, slot);
    if (tree != kNoSlot) index.links[tree].nextTree = following;
    *link = tree == kNoSlot ? following : tree;
}

bool IsTied(const Ostrel_ServerObj* server, uint32_t slot) {
    const Ostrel_LeaseInformation& lease = server->leases[slot];
    switch (lease.state) {
        case kLeaseStateFree:
            return Ostrel_LeaseIndexKeyOf(server, slot) != 0;
        case kLeaseStateHeld:
            return !lease.isHeldForGood;
        case kLeaseStateKept:
            return false;
        case kLeaseStateOffered:
        case kLeaseStateActive:
            return true;
    }
    return false;
}

bool IsBlank(const Ostrel_ServerObj* server, uint32_t slot) {
    const Ostrel_LeaseInformation& lease = server->leases[slot];
    return lease.state == kLeaseStateFree && !lease.wasLeased && !IsTied(server, slot);
}

bool IsWithheld(const Ostrel_LeaseInformation& lease) {
    return lease.state == kLeaseStateHeld || lease.state == kLeaseStateKept;
}

// The list of its times that a slot stands in by its state, or null.
SlotList* ListOf(const Ostrel_ServerObj* server, uint32_t slot) {
    Ostrel_LeaseIndex& index = *server->index;
    const Ostrel_LeaseInformation& lease = server->leases[slot];
    if (lease.state == kLeaseStateHeld) return lease.isHeldForGood ? nullptr : &index.held;
    if (lease.state == kLeaseStateOffered) return &index.offered;
    if (lease.state != kLeaseStateFree || !server->rules->remembersHolders) return nullptr;
    return IsBlank(server, slot) ? nullptr : &index.rested;
}

// The list by age from `first` on, through `next` alone, as two; gives the later one.
uint32_t Halve(Ostrel_LeaseIndex& index, uint32_t first) {
    uint32_t middle = first;
    for (uint32_t end = index.links[first].byAge.next; end != kNoSlot;) {
        end = index.links[end].byAge.next;
        if (end == kNoSlot) break;
        end = index.links[end].byAge.next;
        middle = index.links[middle].byAge.next;
    }
    return std::exchange(index.links[middle].byAge.next, kNoSlot);
}

// Two such lists in order as one. Times may wrap, but are less than half of their circle apart.
uint32_t Merge(const Ostrel_ServerObj* server, uint32_t one, uint32_t other) {
    uint32_t first = kNoSlot;
    for (uint32_t* end = &first;; end = &server->index->links[*end].byAge.next) {
        if (one == kNoSlot || other == kNoSlot) {
            *end = one == kNoSlot ? other : one;
            return first;
        }
        const auto later = static_cast<int32_t>(server->leases[one].offerTime - server->leases[other].offerTime);
        uint32_t& taken = later > 0 ? other : one;
        *end = std::exchange(taken, server->index->links[taken].byAge.next);
    }
}

// By merging, which needs no memory.
uint32_t Sort(const Ostrel_ServerObj* server, uint32_t first) {
    if (first == kNoSlot || server->index->links[first].byAge.next == kNoSlot) return first;
    const uint32_t half = Halve(*server->index, first);
    const uint32_t sorted = Sort(server, first);
    return Merge(server, sorted, Sort(server, half));
}

bool SetsInitialize(Ostrel_LeaseIndex& index, uint32_t slots) {
    return SlotSetInitialize(index.free, slots) && SlotSetInitialize(index.blank, slots) &&
           SlotSetInitialize(index.withheld, slots);
}

void ListsInitialize(Ostrel_LeaseIndex& index) {
    index.byAge = {.neighbours = &SlotLinks::byAge, .first = kNoSlot, .last = kNoSlot};
    index.untold = kNoSlot;
    index.offered = {.neighbours = &SlotLinks::offered, .first = kNoSlot, .last = kNoSlot};
    index.rested = {.neighbours = &SlotLinks::byAge, .first = kNoSlot, .last = kNoSlot};
    index.held = {.neighbours = &SlotLinks::offered, .first = kNoSlot, .last = kNoSlot};
}

}  // namespace

Ostrel_Status Ostrel_LeaseIndexInitialize(Ostrel_ServerObj* server) {
    const uint32_t slots = server->numSlots;
    server->index.reset(os_new<Ostrel_LeaseIndex>());
    OSTREL_REQUIRE(server->index != nullptr, "server->index", kOutOfMemoryErr);
    Ostrel_LeaseIndex& index = *server->index;
    index.numChains = std::bit_ceil(slots);
    index.links = os_zalloc_array<SlotLinks>(slots);
    index.chains = os_zalloc_array<uint32_t>(index.numChains);
    if (server->rules->knowsByIdentifier) index.keys = os_zalloc_array<uint64_t>(slots);
    const bool allocated = index.links != nullptr && index.chains != nullptr &&
                           (index.keys != nullptr || !server->rules->knowsByIdentifier) && SetsInitialize(index, slots);
    OSTREL_REQUIRE(allocated, "server->index", kOutOfMemoryErr);

    std::array<uint8_t, sizeof index.key + sizeof index.hashKey> secret{};
    os_random_bytes(secret);
    std::memcpy(&index.key, secret.data(), sizeof index.key);
    std::memcpy(index.hashKey.data(), secret.data() + sizeof index.key, sizeof index.hashKey);
    ListsInitialize(index);
    std::fill_n(index.chains.get(), index.numChains, kNoSlot);
    for (uint32_t slot = 0; slot < slots; ++slot) Ostrel_LeaseIndexEnter(server, slot, {});
    return kNoErr;
}

uint64_t Ostrel_LeaseIndexKeyOfMAC(const Ostrel_MAC& mac) {
    uint64_t number = 0;
    std::memcpy(&number, mac.data(), mac.size());
    return number;
}

uint64_t Ostrel_LeaseIndexKeyOf(const Ostrel_ServerObj* server, uint32_t slot) {
    const os_array<uint64_t>& keys = server->index->keys;
    return keys != nullptr ? keys[slot] : Ostrel_LeaseIndexKeyOfMAC(server->leases[slot].srcMAC);
}

void Ostrel_LeaseIndexSetKey(Ostrel_ServerObj* server, uint32_t slot, uint64_t key) {
    if (server->index->keys != nullptr) server->index->keys[slot] = key;
}

void Ostrel_LeaseIndexHandOver(Ostrel_ServerObj* server, uint32_t slot, const Ostrel_MAC& mac, uint64_t key) {
    Untie(server, slot);
    server->leases[slot].srcMAC = mac;
    Ostrel_LeaseIndexSetKey(server, slot, key);
    Tie(server, slot);
}

void Ostrel_LeaseIndexForget(Ostrel_ServerObj* server, uint32_t slot) {
    const bool becomesBlank = !server->leases[slot].wasLeased;
    if (becomesBlank) Remove(*server->index, server->index->rested, slot);
    Untie(server, slot);
    server->index->keys[slot] = 0;
    if (becomesBlank) SlotSetInsert(server->index->blank, slot);
}

void Ostrel_LeaseIndexLeave(Ostrel_ServerObj* server, uint32_t slot, SlotPlacesKept kept) {
    Ostrel_LeaseIndex& index = *server->index;
    const Ostrel_LeaseInformation& lease = server->leases[slot];
    if (lease.state == kLeaseStateFree) SlotSetErase(index.free, slot);
    if (IsBlank(server, slot)) SlotSetErase(index.blank, slot);
    if (IsWithheld(lease)) SlotSetErase(index.withheld, slot);
    if (!kept.tie && IsTied(server, slot)) Untie(server, slot);
    if (SlotList* const list = ListOf(server, slot); list != nullptr) Remove(index, *list, slot);
    if (!Ostrel_LeaseIsInUse(lease.state) || kept.byAge) return;
    if (index.untold == slot) index.untold = index.links[slot].byAge.next;
    Remove(index, index.byAge, slot);
}

void Ostrel_LeaseIndexEnter(Ostrel_ServerObj* server, uint32_t slot, SlotPlacesKept kept) {
    Ostrel_LeaseIndex& index = *server->index;
    const Ostrel_LeaseInformation& lease = server->leases[slot];
    if (lease.state == kLeaseStateFree) SlotSetInsert(index.free, slot);
    if (IsBlank(server, slot)) SlotSetInsert(index.blank, slot);
    if (IsWithheld(lease)) SlotSetInsert(index.withheld, slot);
    if (!kept.tie && IsTied(server, slot)) Tie(server, slot);
    if (SlotList* const list = ListOf(server, slot); list != nullptr) Append(index, *list, slot);
    if (!Ostrel_LeaseIsInUse(lease.state) || kept.byAge) return;
    Append(index, index.byAge, slot);
    if (index.untold == kNoSlot) index.untold = slot;
}

void Ostrel_LeaseIndexSortByAge(Ostrel_ServerObj* server) {
    Ostrel_LeaseIndex& index = *server->index;
    index.byAge.first = index.untold = Sort(server, index.byAge.first);
    index.byAge.last = kNoSlot;
    for (uint32_t slot = index.byAge.first; slot != kNoSlot; slot = index.links[slot].byAge.next)
        index.links[slot].byAge.previous = std::exchange(index.byAge.last, slot);
}

uint32_t Ostrel_LeaseIndexLowestTied(const Ostrel_ServerObj* server, uint64_t key, uint32_t from) {
    uint32_t lowest = kNoSlot;
    for (uint32_t slot = *FindTree(server, key); slot != kNoSlot;) {
        const SlotLinks& links = server->index->links[slot];
        if (slot < from) {
            slot = links.higher;
        } else {
            lowest = slot;
            slot = links.lower;
        }
    }
    return lowest;
}
