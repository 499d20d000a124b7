// A binary heap of moments beside a table of events. Cancelling only empties the table's row, so that timeouts, which
// are cancelled far more often than they fire, cost no search in the heap.

#include "Schedule.h"

#include <algorithm>
#include <utility>

namespace sim {

bool Schedule::IsLater(const Entry& a, const Entry& b) {
    return a.time != b.time ? a.time > b.time : a.number > b.number;
}

uint64_t Schedule::Add(Duration time, Event event) {
    constexpr size_t kSlack = 64;
    if (heap.size() > kSlack + 4 * events.size()) {
        std::erase_if(heap, [this](const Entry& entry) { return !events.contains(entry.number); });
        std::make_heap(heap.begin(), heap.end(), IsLater);
    }
    const uint64_t number = ++lastNumber;
    heap.push_back({time, number});
    std::push_heap(heap.begin(), heap.end(), IsLater);
    events.emplace(number, std::move(event));
    return number;
}

bool Schedule::Cancel(uint64_t number) {
    return events.erase(number) > 0;
}

void Schedule::DropCancelled() {
    while (!heap.empty() && !events.contains(heap.front().number)) {
        std::pop_heap(heap.begin(), heap.end(), IsLater);
        heap.pop_back();
    }
}

std::optional<Duration> Schedule::NextTime() {
    DropCancelled();
    if (heap.empty()) return std::nullopt;
    return heap.front().time;
}

Schedule::Event Schedule::Take() {
    DropCancelled();
    const uint64_t number = heap.front().number;
    std::pop_heap(heap.begin(), heap.end(), IsLater);
    heap.pop_back();
    return std::move(events.extract(number).mapped());
}

}  // namespace sim
