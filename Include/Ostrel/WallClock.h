// Moments of the monotonic clock, by which leases are kept, as times of the wall clock, by which they are shown.
#pragma once

#include <cstdint>

// How far the wall clock is ahead of the monotonic one. All zero: not looked at yet.
struct Ostrel_WallClock {
    int64_t offset;  // seconds
    bool known;
};

// The offset to show times by now. Both clocks are read in whole seconds, so their difference goes up and down by one
// from one reading to the next. It is kept, so that a moment has one time; taken anew, it follows a wall clock that was
// set and a device that was suspended, both of which move it by more.
[[nodiscard]] int64_t Ostrel_WallClockOffset(Ostrel_WallClock* clock);

// The wall-clock time, in seconds since 1970, of a moment of the monotonic clock that is not in the future.
[[nodiscard]] int64_t Ostrel_WallClockTimeOf(Ostrel_WallClock* clock, uint32_t moment);

// The same of one that is less than 68 years off, whichever way.
[[nodiscard]] int64_t Ostrel_WallClockTimeNear(Ostrel_WallClock* clock, uint32_t moment);
