// Lease times for people.
//
// A lease remembers when it began on the monotonic clock, which nobody sets. What is shown follows the wall clock:
// after it was set, a lease that began 100 seconds ago is still shown as having begun 100 seconds before now. Only the
// second by which two readings of the clocks may differ is left out, because the same lease would have two times.
#include "Ostrel/WallClock.h"

#include "os_time.h"

int64_t Ostrel_WallClockOffset(Ostrel_WallClock* clock) {
    const int64_t offset = os_wall_seconds() - int64_t{os_monotonic_seconds()};
    const bool isSame = clock->known && offset >= clock->offset - 1 && offset <= clock->offset + 1;
    if (!isSame) *clock = {offset, true};
    return clock->offset;
}

int64_t Ostrel_WallClockTimeOf(Ostrel_WallClock* clock, uint32_t moment) {
    const uint32_t now = os_monotonic_seconds();
    const uint32_t age = now - moment;  // unsigned: the clock may have wrapped meanwhile
    return Ostrel_WallClockOffset(clock) + int64_t{now} - int64_t{age};
}

int64_t Ostrel_WallClockTimeNear(Ostrel_WallClock* clock, uint32_t moment) {
    const uint32_t now = os_monotonic_seconds();
    const auto ahead = static_cast<int32_t>(moment - now);  // the clock may wrap meanwhile
    return Ostrel_WallClockOffset(clock) + int64_t{now} + int64_t{ahead};
}
