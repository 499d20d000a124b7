// The event loop's timeout registry.
//
// One vector, sorted with the next timeout at its end, so that firing moves nothing. A daemon has a handful of timeouts
// for each interface: finding a place and cancelling walk the vector, which beats a tree at such sizes. What doesn't
// fit into memory is refused here; no exception reaches the loop.
#include "TimeoutQueue.h"

#include <algorithm>

bool TimeoutQueue::Add(int64_t deadline, eloop_timeout_handler handler, void* context1, void* context2,
                       std::string_view alarmName) noexcept {
    try {
        PendingTimeout added{deadline, nextSequence, handler, context1, context2, std::string(alarmName)};
        const auto isLater = [](const PendingTimeout& one, int64_t limit) { return one.deadline > limit; };
        timeouts.insert(std::lower_bound(timeouts.begin(), timeouts.end(), deadline, isLater), std::move(added));
    } catch (...) {
        return false;
    }
    ++nextSequence;
    return true;
}

int TimeoutQueue::Cancel(eloop_timeout_handler handler, void* context1, void* context2,
                         std::string_view alarmName) noexcept {
    return static_cast<int>(std::erase_if(timeouts, [&](const PendingTimeout& one) {
        return one.handler == handler && one.context1 == context1 && one.context2 == context2 &&
               one.alarmName == alarmName;
    }));
}

void TimeoutQueue::Clear() noexcept {
    timeouts.clear();
}

std::optional<int64_t> TimeoutQueue::NextDeadline() const noexcept {
    if (timeouts.empty()) return std::nullopt;
    return timeouts.back().deadline;
}

std::optional<int64_t> TimeoutQueue::NextAlarm() const noexcept {
    const auto isAlarm = [](const PendingTimeout& one) { return !one.alarmName.empty(); };
    const auto next = std::find_if(timeouts.rbegin(), timeouts.rend(), isAlarm);
    if (next == timeouts.rend()) return std::nullopt;
    return next->deadline;
}

void TimeoutQueue::Postpone(int64_t delay) noexcept {
    for (PendingTimeout& one : timeouts) one.deadline += one.alarmName.empty() ? delay : 0;
    std::sort(timeouts.begin(), timeouts.end(), [](const PendingTimeout& one, const PendingTimeout& other) {
        return one.deadline != other.deadline ? one.deadline > other.deadline : one.sequence > other.sequence;
    });
}

void TimeoutQueue::RunPass(int64_t now, const bool& ending) noexcept {
    const uint64_t sequenceLimit = nextSequence;
    while (!ending) {
        const std::optional<PendingTimeout> due = TakeDue(now, sequenceLimit);
        if (!due) return;
        due->handler(due->context1, due->context2);
    }
}

// Removes and returns the next timeout with a deadline up to `now` and a sequence below `sequenceLimit`.
std::optional<PendingTimeout> TimeoutQueue::TakeDue(int64_t now, uint64_t sequenceLimit) noexcept {
    for (size_t i = timeouts.size(); i > 0 && timeouts[i - 1].deadline <= now; --i) {
        if (timeouts[i - 1].sequence >= sequenceLimit) continue;
        PendingTimeout due = std::move(timeouts[i - 1]);
        timeouts.erase(timeouts.begin() + static_cast<std::ptrdiff_t>(i - 1));
        return due;
    }
    return std::nullopt;
}

int64_t TimeoutDelay(uint32_t seconds, uint32_t milliseconds) noexcept {
    const int64_t delay = int64_t{seconds} * 1'000'000 + int64_t{milliseconds} * 1'000;
    return std::min(delay, int64_t{kEloopMaxSeconds} * 1'000'000);
}
