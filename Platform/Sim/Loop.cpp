// The event loop of the simulated device: timeouts and alarms are events of the world's schedule, signals too.
//
// A suspended device is not simulated, so an alarm is a timeout with a name.

#include <algorithm>
#include <string>
#include <utility>

#include "Internals.h"

namespace sim {

size_t TimeoutIdentityHash::operator()(const TimeoutIdentity& identity) const noexcept {
    constexpr size_t kOdd = 0x9E3779B97F4A7C15;
    const auto mix = [](size_t sum, size_t value) { return (sum ^ value) * kOdd; };
    size_t sum = mix(0, reinterpret_cast<size_t>(identity.handler));
    sum = mix(sum, reinterpret_cast<size_t>(identity.context1));
    sum = mix(sum, reinterpret_cast<size_t>(identity.context2));
    return sum ^ (sum >> 32);
}

namespace {

EventLoop& Loop() {
    return World::Get().Internals().loop;
}

void Fire(const TimeoutIdentity& identity, uint64_t number) {
    TimeoutTable& timeouts = Loop().timeouts;
    const auto [first, last] = timeouts.equal_range(identity);
    const auto self = std::find_if(first, last, [number](const auto& row) { return row.second == number; });
    timeouts.erase(self);
    identity.handler(identity.context1, identity.context2);
}

int Register(uint32_t seconds, uint32_t milliseconds, TimeoutIdentity identity) {
    World::State& state = World::Get().Internals();
    if (!state.loop.exists) return -1;
    const Duration delay = std::min<Duration>(std::chrono::seconds(seconds) + std::chrono::milliseconds(milliseconds),
                                              std::chrono::seconds(kEloopMaxSeconds));
    const auto number = std::make_shared<uint64_t>();
    *number = state.schedule.Add(state.now + delay, [identity, number] { Fire(identity, *number); });
    state.loop.timeouts.emplace(std::move(identity), *number);
    return 0;
}

int Cancel(const TimeoutIdentity& identity) {
    World::State& state = World::Get().Internals();
    const auto [first, last] = state.loop.timeouts.equal_range(identity);
    int removed = 0;
    for (auto row = first; row != last; ++row) {
        if (state.schedule.Cancel(row->second)) ++removed;
    }
    state.loop.timeouts.erase(first, last);
    return removed;
}

void DeliverSignals() {
    EventLoop& loop = Loop();
    if (!loop.exists || loop.signalHandler == nullptr) return;
    for (const int signal : std::exchange(loop.pendingSignals, {})) {
        loop.signalHandler(signal, loop.loopContext, loop.signalContext);
    }
}

void ScheduleSignals() {
    World::State& state = World::Get().Internals();
    state.schedule.Add(state.now, DeliverSignals);
}

}  // namespace

bool World::RunFor(Duration duration) {
    const Duration end = state->now + duration;
    while (!state->loop.terminated) {
        const std::optional<Duration> next = state->schedule.NextTime();
        if (!next || *next > end) {
            state->now = end;
            return true;
        }
        state->now = *next;
        state->schedule.Take()();
    }
    return false;
}

void World::At(Duration delay, std::function<void()> action) {
    state->schedule.Add(state->now + delay, std::move(action));
}

bool World::Terminated() const {
    return state->loop.terminated;
}

size_t World::PendingTimeouts() const {
    return state->loop.timeouts.size();
}

void World::Raise(int signal) {
    state->loop.pendingSignals.push_back(signal);
    ScheduleSignals();
}

}  // namespace sim

using sim::World;

int eloop_init(void* loopContext) noexcept {
    sim::EventLoop& loop = sim::Loop();
    if (loop.exists) return -1;
    std::vector<int> pending = std::move(loop.pendingSignals);
    loop = {};
    loop.exists = true;
    loop.loopContext = loopContext;
    loop.pendingSignals = std::move(pending);
    return 0;
}

void eloop_run() noexcept {
    World& world = World::Get();
    World::State& state = world.Internals();
    while (!state.loop.terminated) {
        const std::optional<sim::Duration> next = state.schedule.NextTime();
        if (!next) return world.Fail("eloop_run: nothing will ever happen again");
        if (!world.RunFor(*next - state.now)) return;
    }
}

void eloop_terminate() noexcept {
    sim::Loop().terminated = true;
}

void eloop_destroy() noexcept {
    World::State& state = World::Get().Internals();
    for (const auto& [identity, number] : state.loop.timeouts) state.schedule.Cancel(number);
    state.loop.timeouts.clear();
    state.loop.exists = false;
    state.loop.signalHandler = nullptr;
}

int eloop_register_signal_terminate(eloop_signal_handler handler, void* handlerContext) noexcept {
    sim::EventLoop& loop = sim::Loop();
    if (!loop.exists) return -1;
    loop.signalHandler = handler;
    loop.signalContext = handlerContext;
    sim::ScheduleSignals();
    return 0;
}

int eloop_register_timeout(uint32_t seconds, uint32_t milliseconds, eloop_timeout_handler handler, void* context1,
                           void* context2) noexcept {
    return sim::Register(seconds, milliseconds, {handler, context1, context2, {}});
}

int eloop_cancel_timeout(eloop_timeout_handler handler, void* context1, void* context2) noexcept {
    return sim::Cancel({handler, context1, context2, {}});
}

int eloop_register_timeout_rtc(uint32_t seconds, uint32_t milliseconds, const char* alarmName,
                               eloop_timeout_handler handler, void* context1, void* context2) noexcept {
    return sim::Register(seconds, milliseconds, {handler, context1, context2, alarmName});
}

int eloop_cancel_timeout_rtc(const char* alarmName, eloop_timeout_handler handler, void* context1,
                             void* context2) noexcept {
    return sim::Cancel({handler, context1, context2, alarmName});
}

int eloop_register_rtc_alarms(VSHandle* handle, const char* serviceName) noexcept {
    return handle != nullptr && serviceName != nullptr && sim::Loop().exists ? 0 : -1;
}

_GMainLoop* eloop_get_gnome_loop() noexcept {
    // Nobody looks behind it here; it only says that there is a loop.
    sim::EventLoop& loop = sim::Loop();
    return loop.exists ? reinterpret_cast<_GMainLoop*>(&loop) : nullptr;
}
