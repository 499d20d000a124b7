// Which calls of the daemon the simulated device refuses: those that a test has named, and some by chance.

#include <algorithm>
#include <numeric>

#include "Internals.h"

namespace sim {
namespace {

bool Chance(World& world, DeviceCall call) {
    const uint32_t perMille = world.chanceOfFailure[static_cast<size_t>(call)];
    return perMille != 0 && world.misfortune() % 1000 < perMille;
}

}  // namespace

bool Refuses(DeviceCall call) {
    World* const world = World::Current();
    if (world == nullptr) return false;
    CallCount& count = world->Internals().calls[static_cast<size_t>(call)];
    ++count.made;
    const bool isNamed = count.made >= count.firstRefused && count.made <= count.lastRefused;
    const bool isRefused = isNamed || Chance(*world, call);
    count.refused += isRefused ? 1 : 0;
    return isRefused;
}

const char* NameOf(DeviceCall call) {
    constexpr std::array<const char*, kDeviceCalls> kNames{"allocate",  "send",  "timeout",   "open socket", "filter",
                                                           "hold port", "watch", "link",      "loop",        "attach",
                                                           "reply",     "post",  "subscribe", "ask"};
    return kNames[static_cast<size_t>(call)];
}

void World::FailCall(DeviceCall call, size_t nth, size_t count) {
    CallCount& calls = state->calls[static_cast<size_t>(call)];
    const bool isAny = nth != 0 && count != 0;
    calls.firstRefused = isAny ? calls.made + nth : 0;
    calls.lastRefused = isAny ? calls.firstRefused + std::min(count, SIZE_MAX - calls.firstRefused + 1) - 1 : 0;
}

bool World::IsFailurePending(DeviceCall call) const {
    const CallCount& calls = state->calls[static_cast<size_t>(call)];
    return calls.firstRefused > calls.made;
}

size_t World::CallsRefused(DeviceCall call) const {
    return state->calls[static_cast<size_t>(call)].refused;
}

size_t World::CallsRefused() const {
    const auto add = [](size_t sum, const CallCount& count) { return sum + count.refused; };
    return std::accumulate(state->calls.begin(), state->calls.end(), size_t{0}, add);
}

size_t World::CallsMade(DeviceCall call) const {
    return state->calls[static_cast<size_t>(call)].made;
}

}  // namespace sim
