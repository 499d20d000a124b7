// The bounds on a role's frames: in any second so many, and in any minute.
#include "Ostrel/FrameBudget.h"

#include <algorithm>

#include "os_time.h"

namespace {

constexpr uint64_t kSecond = 1000;  // milliseconds
constexpr uint64_t kMinute = 60'000;

// The milliseconds until `number` more frames are no more than `most` in any window of that length.
uint32_t RestOf(const Ostrel_FrameRing& frames, uint32_t number, uint32_t most, uint64_t window) {
    if (most == 0 || frames.count + number <= most) return 0;
    const auto size = static_cast<uint32_t>(frames.sent.size());
    const uint64_t since = os_monotonic_milliseconds() - frames.sent[(frames.count + number - 1 - most) % size];
    return since > window ? 0 : static_cast<uint32_t>(window + 1 - since);  // the clock's grain counts against us
}

}  // namespace

uint32_t Ostrel_FrameRest(const Ostrel_FrameRing& frames, const Ostrel_FrameBudget& budget, uint32_t number) {
    return std::max(RestOf(frames, std::min(number, budget.mostPerSecond), budget.mostPerSecond, kSecond),
                    RestOf(frames, number, budget.mostPerMinute, kMinute));
}

void Ostrel_FrameNote(Ostrel_FrameRing& frames) {
    frames.sent[frames.count++ % frames.sent.size()] = os_monotonic_milliseconds();
}
