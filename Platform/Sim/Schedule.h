// What is going to happen, in virtual time: events in the order of their moment, then of their making.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

#include "Sim.h"

namespace sim {

class Schedule {
public:
    using Event = std::function<void()>;

    // Returns the event's number, never 0.
    uint64_t Add(Duration time, Event event);
    bool Cancel(uint64_t number);  // false: it has happened, or was cancelled before

    [[nodiscard]] std::optional<Duration> NextTime();
    // Takes the next event out; there must be one.
    Event Take();

private:
    struct Entry {
        Duration time;
        uint64_t number;
    };
    static bool IsLater(const Entry& a, const Entry& b);
    void DropCancelled();

    std::vector<Entry> heap;  // cancelled events stay in it until they come up, or are too many
    std::unordered_map<uint64_t, Event> events;
    uint64_t lastNumber = 0;
};

}  // namespace sim
