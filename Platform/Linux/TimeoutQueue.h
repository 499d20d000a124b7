// Registered timeouts in the order in which they fire: by deadline, then by registration.
//
// The queue knows no clock; deadlines are microseconds on whatever clock its owner reads. It takes memory only when it
// holds more timeouts than ever before: what replaces a cancelled timeout always fits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "eloop.h"

struct PendingTimeout {
    int64_t deadline;
    uint64_t sequence;  // of its registration, counted from 0
    eloop_timeout_handler handler;
    void* context1;
    void* context2;
    std::string alarmName;  // empty for a plain timeout
};

class TimeoutQueue {
public:
    // False when memory is out; the queue is then as it was.
    [[nodiscard]] bool Add(int64_t deadline, eloop_timeout_handler handler, void* context1, void* context2,
                           std::string_view alarmName = {}) noexcept;

    // Removes every timeout of that identity; the number removed.
    int Cancel(eloop_timeout_handler handler, void* context1, void* context2, std::string_view alarmName = {}) noexcept;

    void Clear() noexcept;
    [[nodiscard]] size_t Size() const noexcept { return timeouts.size(); }
    [[nodiscard]] std::optional<int64_t> NextDeadline() const noexcept;

    // The sequence of the next registration. A pass of the loop takes it before its first handler runs, and fires only
    // what is older.
    [[nodiscard]] uint64_t NextSequence() const noexcept { return nextSequence; }

    // Removes and returns the next timeout with a deadline up to `now` and a sequence below `sequenceLimit`.
    [[nodiscard]] std::optional<PendingTimeout> TakeDue(int64_t now, uint64_t sequenceLimit) noexcept;

private:
    std::vector<PendingTimeout> timeouts;  // the next one to fire last
    uint64_t nextSequence = 0;
};

// A delay in microseconds, cut to kEloopMaxSeconds.
[[nodiscard]] int64_t TimeoutDelay(uint32_t seconds, uint32_t milliseconds) noexcept;
