// The index of the lease table: two sets, two lists, and the ties of slots to stations.
//
// Ties are found by hash. All slots of one station form a treap, a search tree by slot number whose shape follows
// random priorities: whoever sends from the address of all zeros can have any number of slots tied to it, and neither
// the next such frame nor the expiry of all those slots may become a walk over them. Nearly every tree is a single
// slot.
//
// Both lists stay sorted by offer time without searching, as a slot enters at the end, with the time of now, and keeps
// its place as long as its offer time.
#include "DHCPServer/LeaseIndex.h"

#include <algorithm>

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

// The link of the hash chain that holds the MAC's tree, or the chain's end.
uint32_t* FindTree(const Ostrel_ServerObj* server, const Ostrel_MAC& mac) {
    const Ostrel_LeaseIndex& index = *server->index;
    uint64_t number = 0;
    for (const uint8_t byte : mac) number = number << 8 | byte;
    uint32_t* link = &index.chains[Scramble(index.key ^ number) & (index.numChains - 1)];
    while (*link != kNoSlot && server->leases[*link].srcMAC != mac) link = &index.links[*link].nextTree;
    return link;
}

// Ties a slot to its MAC, where it may be the first.
void Tie(Ostrel_ServerObj* server, uint32_t slot) {
    const Ostrel_LeaseIndex& index = *server->index;
    uint32_t* link = FindTree(server, server->leases[slot].srcMAC);
    const uint32_t following = *link == kNoSlot ? kNoSlot : index.links[*link].nextTree;
    *link = WithSlot(index, *link, slot);
    index.links[*link].nextTree = following;
}

void Untie(Ostrel_ServerObj* server, uint32_t slot) {
    const Ostrel_LeaseIndex& index = *server->index;
    uint32_t* link = FindTree(server, server->leases[slot].srcMAC);
    const uint32_t following = index.links[*link].nextTree;
    const uint32_t tree = WithoutSlot(index, *link, slot);
    if (tree != kNoSlot) index.links[tree].nextTree = following;
    *link = tree == kNoSlot ? following : tree;
}

bool IsBlank(const Ostrel_LeaseInformation& lease) {
    return lease.state == kLeaseStateFree && lease.srcMAC == Ostrel_MAC{};
}

}  // namespace

Ostrel_Status Ostrel_LeaseIndexInitialize(Ostrel_ServerObj* server) {
    const auto slots = static_cast<uint32_t>(server->maxLeases);
    server->index.reset(os_new<Ostrel_LeaseIndex>());
    OSTREL_REQUIRE(server->index != nullptr, "server->index", kOutOfMemoryErr);
    Ostrel_LeaseIndex& index = *server->index;
    index.numChains = std::bit_ceil(slots);
    index.links = os_zalloc_array<SlotLinks>(slots);
    index.chains = os_zalloc_array<uint32_t>(index.numChains);
    const bool allocated = index.links != nullptr && index.chains != nullptr && SlotSetInitialize(index.free, slots) &&
                           SlotSetInitialize(index.blank, slots);
    OSTREL_REQUIRE(allocated, "server->index", kOutOfMemoryErr);

    std::array<uint8_t, sizeof index.key> key{};
    os_random_bytes(key);
    index.key = std::bit_cast<uint64_t>(key);
    index.byAge = {.neighbours = &SlotLinks::byAge, .first = kNoSlot, .last = kNoSlot};
    index.offered = {.neighbours = &SlotLinks::offered, .first = kNoSlot, .last = kNoSlot};
    std::fill_n(index.chains.get(), index.numChains, kNoSlot);
    for (uint32_t slot = 0; slot < slots; ++slot) Ostrel_LeaseIndexEnter(server, slot, false);
    return kNoErr;
}

void Ostrel_LeaseIndexLeave(Ostrel_ServerObj* server, uint32_t slot, bool keepsAge) {
    Ostrel_LeaseIndex& index = *server->index;
    const Ostrel_LeaseInformation& lease = server->leases[slot];
    if (lease.state == kLeaseStateFree) SlotSetErase(index.free, slot);
    if (IsBlank(lease)) {
        SlotSetErase(index.blank, slot);
    } else {
        Untie(server, slot);
    }
    if (lease.state == kLeaseStateOffered) Remove(index, index.offered, slot);
    if (lease.state != kLeaseStateFree && !keepsAge) Remove(index, index.byAge, slot);
}

void Ostrel_LeaseIndexEnter(Ostrel_ServerObj* server, uint32_t slot, bool keepsAge) {
    Ostrel_LeaseIndex& index = *server->index;
    const Ostrel_LeaseInformation& lease = server->leases[slot];
    if (lease.state == kLeaseStateFree) SlotSetInsert(index.free, slot);
    if (IsBlank(lease)) {
        SlotSetInsert(index.blank, slot);
    } else {
        Tie(server, slot);
    }
    if (lease.state == kLeaseStateOffered) Append(index, index.offered, slot);
    if (lease.state != kLeaseStateFree && !keepsAge) Append(index, index.byAge, slot);
}

uint32_t Ostrel_LeaseIndexLowestTied(const Ostrel_ServerObj* server, const Ostrel_MAC& mac, uint32_t from) {
    uint32_t lowest = kNoSlot;
    for (uint32_t slot = *FindTree(server, mac); slot != kNoSlot;) {
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
