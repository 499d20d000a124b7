// A set of slot numbers whose lowest member is found without a search: a bitmap of the slots, a bitmap of its words
// that are not empty, a bitmap of the words of that, and so on up to a single word.
//
// Every operation costs at most kSlotSetLevels words, whatever the number of slots.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "os_memory.h"

constexpr uint32_t kNoSlot = UINT32_MAX;
constexpr uint32_t kSlotSetLevels = 4;  // 64 to the fourth slots at most

struct SlotSet {
    uint32_t slots;                                          // numbers from 0 to slots - 1 may be members
    std::array<os_array<uint64_t>, kSlotSetLevels> wordsOf;  // level 0: one bit a slot
};

// An empty set; false when memory is out.
[[nodiscard]] inline bool SlotSetInitialize(SlotSet& set, uint32_t slots) {
    set.slots = slots;
    size_t bits = slots;
    for (os_array<uint64_t>& words : set.wordsOf) {
        bits = (bits + 63) / 64;
        words = os_zalloc_array<uint64_t>(bits);
        if (words == nullptr) return false;
    }
    return true;
}

inline void SlotSetInsert(SlotSet& set, uint32_t slot) {
    for (const os_array<uint64_t>& words : set.wordsOf) {
        words[slot / 64] |= uint64_t{1} << (slot % 64);
        slot /= 64;
    }
}

inline void SlotSetErase(SlotSet& set, uint32_t slot) {
    for (const os_array<uint64_t>& words : set.wordsOf) {
        words[slot / 64] &= ~(uint64_t{1} << (slot % 64));
        if (words[slot / 64] != 0) return;
        slot /= 64;
    }
}

// The lowest member, or kNoSlot.
[[nodiscard]] inline uint32_t SlotSetLowest(const SlotSet& set) {
    if (set.wordsOf.back()[0] == 0) return kNoSlot;
    uint32_t slot = 0;
    for (size_t level = kSlotSetLevels; level-- > 0;) {
        slot = slot * 64 + static_cast<uint32_t>(std::countr_zero(set.wordsOf[level][slot]));
    }
    return slot;
}

// The lowest number from `from` on that is a member of neither set, both of one size, or kNoSlot. Walks the bitmaps, 64
// slots at a step.
[[nodiscard]] inline uint32_t SlotSetLowestAbsent(const SlotSet& set, const SlotSet& other, uint32_t from) {
    for (uint32_t slot = from; slot < set.slots; slot = (slot / 64 + 1) * 64) {
        const uint64_t absent = ~(set.wordsOf[0][slot / 64] | other.wordsOf[0][slot / 64]) >> (slot % 64);
        if (absent == 0) continue;
        const uint32_t found = slot + static_cast<uint32_t>(std::countr_zero(absent));
        return found < set.slots ? found : kNoSlot;
    }
    return kNoSlot;
}
