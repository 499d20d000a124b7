// The event loop of the simulated device: the device's own queue of timeouts on the world's virtual clock.
//
// The schedule holds one event for the queue's next deadline, and each signal is an event. An alarm is a timeout with a
// name: while the device sleeps (Device.cpp) the other timeouts stand still.

#include <algorithm>
#include <string>
#include <utility>

#include "Internals.h"

namespace sim {

namespace {

EventLoop& Loop() {
    return World::Get().Internals().loop;
}

void WakeForTimeouts();

}  // namespace

void ScheduleWake() {
    World::State& state = World::Get().Internals();
    EventLoop& loop = state.loop;
    const std::optional<int64_t> next = loop.timeouts.NextDeadline();
    if (next && loop.wake != 0 && loop.wakeTime == Duration(*next) && !state.device.asleep) return;
    state.schedule.Cancel(std::exchange(loop.wake, 0));
    if (!next || state.device.asleep) return;
    loop.wakeTime = std::max(Duration(*next), state.now);
    loop.wake = state.schedule.Add(loop.wakeTime, WakeForTimeouts);
}

namespace {

void WakeForTimeouts() {
    EventLoop& loop = Loop();
    loop.wake = 0;
    loop.timeouts.RunPass(World::Get().Now().count(), loop.terminated);
    ScheduleWake();
}

int Register(uint32_t seconds, uint32_t milliseconds, std::string_view alarmName, eloop_timeout_handler handler,
             void* context1, void* context2) {
    World& world = World::Get();
    EventLoop& loop = Loop();
    const int64_t deadline = world.Now().count() + TimeoutDelay(seconds, milliseconds);
    if (!loop.exists || world.failTimeouts || Refuses(DeviceCall::Timeout) ||
        !loop.timeouts.Add(deadline, handler, context1, context2, alarmName))
        return -1;
    ScheduleWake();
    return 0;
}

int Cancel(std::string_view alarmName, eloop_timeout_handler handler, void* context1, void* context2) {
    const int removed = Loop().timeouts.Cancel(handler, context1, context2, alarmName);
    if (removed > 0) ScheduleWake();
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
        if (afterEvent) afterEvent();
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
    return state->loop.timeouts.Size();
}

void World::Raise(int signal) {
    state->loop.pendingSignals.push_back(signal);
    ScheduleSignals();
}

}  // namespace sim

using sim::World;

int eloop_init(void* loopContext) noexcept {
    sim::EventLoop& loop = sim::Loop();
    if (loop.exists || sim::Refuses(sim::DeviceCall::Loop)) return -1;
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
    state.loop.timeouts.Clear();
    sim::ScheduleWake();
    os_unwatch_device();
    state.loop.exists = false;
    state.loop.signalHandler = nullptr;
}

int eloop_register_signal_terminate(eloop_signal_handler handler, void* handlerContext) noexcept {
    sim::EventLoop& loop = sim::Loop();
    if (!loop.exists || sim::Refuses(sim::DeviceCall::Loop)) return -1;
    loop.signalHandler = handler;
    loop.signalContext = handlerContext;
    sim::ScheduleSignals();
    return 0;
}

int eloop_register_timeout(uint32_t seconds, uint32_t milliseconds, eloop_timeout_handler handler, void* context1,
                           void* context2) noexcept {
    return sim::Register(seconds, milliseconds, {}, handler, context1, context2);
}

int eloop_cancel_timeout(eloop_timeout_handler handler, void* context1, void* context2) noexcept {
    return sim::Cancel({}, handler, context1, context2);
}

int eloop_register_timeout_rtc(uint32_t seconds, uint32_t milliseconds, const char* alarmName,
                               eloop_timeout_handler handler, void* context1, void* context2) noexcept {
    return sim::Register(seconds, milliseconds, alarmName, handler, context1, context2);
}

int eloop_cancel_timeout_rtc(const char* alarmName, eloop_timeout_handler handler, void* context1,
                             void* context2) noexcept {
    return sim::Cancel(alarmName, handler, context1, context2);
}

int eloop_register_rtc_alarms(VSHandle* handle, const char* serviceName) noexcept {
    return handle != nullptr && serviceName != nullptr && sim::Loop().exists ? 0 : -1;
}

_GMainLoop* eloop_get_gnome_loop() noexcept {
    // Nobody looks behind it here; it only says that there is a loop.
    sim::EventLoop& loop = sim::Loop();
    return loop.exists ? reinterpret_cast<_GMainLoop*>(&loop) : nullptr;
}
