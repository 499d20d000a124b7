// Registered timeouts in the order in which they fire: by deadline, then by registration.
//
// The queue knows no clock; deadlines are microseconds on whatever clock its owner reads: the kernel's on the device, a
// virtual one in simulation. It takes memory only when it holds more timeouts than ever before: what replaces a
// cancelled timeout always fits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
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
    [[nodiscard]] std::span<const PendingTimeout> All() const noexcept { return timeouts; }  // the next one last
    [[nodiscard]] std::optional<int64_t> NextDeadline() const noexcept;
    [[nodiscard]] std::optional<int64_t> NextAlarm() const noexcept;  // likewise, of those with a name

    // Plain timeouts fire so many microseconds later: the clock of a queue of both kinds went on for alarms alone.
    void Postpone(int64_t delay) noexcept;

    // A pass of the loop: fires what is due at `now` and was registered before the pass, until `ending`. Each timeout
    // leaves the queue before its handler runs, which may register, cancel (also what is due in this pass) and clear.
    void RunPass(int64_t now, const bool& ending) noexcept;

private:
    [[nodiscard]] std::optional<PendingTimeout> TakeDue(int64_t now, uint64_t sequenceLimit) noexcept;

    std::vector<PendingTimeout> timeouts;  // the next one to fire last
    uint64_t nextSequence = 0;
};

// A delay in microseconds, cut to kEloopMaxSeconds.
[[nodiscard]] int64_t TimeoutDelay(uint32_t seconds, uint32_t milliseconds) noexcept;
