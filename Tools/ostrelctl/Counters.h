// The daemon's counters, by the list that it counts by.
#pragma once

#include <string>
#include <vector>

#include "State.h"

namespace ostrelctl {

struct Counter {
    std::string name;  // "discoverSent"; of frames that were dropped, the reason
    std::string help;  // what it counts
    int64_t value = 0;
    bool isDrop = false;
};

// Of one role, or "arp" of the interface.
struct CounterGroup {
    const char* name;
    std::vector<Counter> counters;
    std::string words;  // those that are not 0: "discoverSent 4, offerReceived 1, dropped xid 2"
};

// The groups that the interface has.
[[nodiscard]] std::vector<CounterGroup> CountersOf(const InterfaceState& state);

}  // namespace ostrelctl
