// The simulated device's clocks: the wall clock follows the world's virtual time, the monotonic clock while the device
// is awake. Local time is UTC unless a test says otherwise, so that traces are the same everywhere. Its entropy comes
// from the world's seed, by a generator of its own, so that what is drawn from it changes nothing else.

#include <cstring>
#include <ctime>

#include "Sim.h"
#include "os_random.h"
#include "os_time.h"

uint32_t os_monotonic_seconds() noexcept {
    return sim::World::Get().MonotonicSeconds();
}

uint64_t os_monotonic_milliseconds() noexcept {
    const sim::World& world = sim::World::Get();
    return world.monotonicStart * uint64_t{1000} +
           static_cast<uint64_t>(world.TimeAwake() / std::chrono::milliseconds(1));
}

uint64_t os_milliseconds_asleep() noexcept {
    const sim::World& world = sim::World::Get();
    return static_cast<uint64_t>((world.Now() - world.TimeAwake()) / std::chrono::milliseconds(1));
}

int64_t os_wall_seconds() noexcept {
    const sim::World& world = sim::World::Get();
    return world.wallStart + std::chrono::duration_cast<std::chrono::seconds>(world.Now()).count();
}

int64_t os_wall_microseconds() noexcept {
    const sim::World& world = sim::World::Get();
    return world.wallStart * 1'000'000 + world.Now().count();
}

bool os_local_time_text(int64_t wallSeconds, std::span<char> text) noexcept {
    if (text.empty()) return false;
    const time_t seconds = wallSeconds + sim::World::Get().zoneSeconds;
    tm fields{};
    if (gmtime_r(&seconds, &fields) != nullptr &&
        std::strftime(text.data(), text.size(), "%a %b %e %H:%M:%S %Y\n", &fields) > 0) {
        return true;
    }
    text.front() = '\0';
    return false;
}

void os_random_bytes(std::span<uint8_t> bytes) noexcept {
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(sim::World::Get().entropy());
}
