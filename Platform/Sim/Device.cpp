// The simulated device's links, its sleep, and the ports that it holds.
//
// News of links reaches the watcher on a pass of the loop of its own, and while the device sleeps not before it wakes
// up. A device that wakes up tells that first; its timeouts go on from where they stood, its alarms are due.

#include <algorithm>
#include <utility>

#include "Internals.h"
#include "os_memory.h"

struct os_port {
    int32_t index;  // of the interface, to which it stays bound
    uint16_t port;
};

namespace sim {
namespace {

void TellOfLinks() {
    World::State& state = World::Get().Internals();
    DeviceWatch& device = state.device;
    if (device.asleep) return;
    for (const int32_t index : std::exchange(device.changedLinks, {})) {
        if (device.watcher.linkChanged == nullptr || state.loop.terminated) return;
        std::string name;
        for (const auto* list : {&state.interfaces, &state.removedInterfaces})
            for (const auto& interface : *list)
                if (interface->index == index) name = interface->name;
        device.watcher.linkChanged(device.watcher.context, index, name.c_str());
    }
}

void WakeUp() {
    World::State& state = World::Get().Internals();
    DeviceWatch& device = state.device;
    const Duration slept = state.now - device.sleepBegan;
    device.asleep = false;
    device.wakeUp = 0;
    device.slept += slept;
    state.loop.timeouts.Postpone(slept.count());
    if (device.watcher.wokeUp != nullptr && !state.loop.terminated) device.watcher.wokeUp(device.watcher.context);
    TellOfLinks();
    ScheduleWake();
}

}  // namespace

void World::Suspend(Duration duration) {
    DeviceWatch& device = state->device;
    if (device.asleep) return Fail("the device sleeps already");
    const std::optional<int64_t> alarm = state->loop.timeouts.NextAlarm();
    const Duration end = alarm ? std::clamp(Duration(*alarm), Now(), Now() + duration) : Now() + duration;
    device.asleep = true;
    device.sleepBegan = Now();
    device.wakeUp = state->schedule.Add(end, WakeUp);
    ScheduleWake();
}

Duration World::TimeAwake() const {
    const DeviceWatch& device = state->device;
    return (device.asleep ? device.sleepBegan : Now()) - device.slept;
}

bool World::IsWatched() const {
    return state->device.watcher.linkChanged != nullptr;
}

bool World::IsPortHeld(const std::string& ifname, uint16_t port) const {
    const Interface* const interface = state->FindInterface(ifname);
    return interface != nullptr &&
           std::any_of(state->heldPorts.begin(), state->heldPorts.end(),
                       [&](const os_port* held) { return held->index == interface->index && held->port == port; });
}

void World::State::LinkChanged(const Interface& interface) {
    if (device.watcher.linkChanged == nullptr) return;
    device.changedLinks.push_back(interface.index);
    schedule.Add(now, TellOfLinks);
}

}  // namespace sim

using sim::World;

namespace {

constexpr os_link kUnknown{
    .isThere = false, .isUnknown = true, .isRunning = false, .index = 0, .address = {}, .name = {}};

}  // namespace

os_link os_link_of(const char* ifname) noexcept {
    const sim::Interface* const interface = World::Get().Internals().FindInterface(ifname);
    if (sim::Refuses(sim::DeviceCall::Link)) return kUnknown;
    if (interface == nullptr) return {};
    os_link link{.isThere = true,
                 .isUnknown = false,
                 .isRunning = interface->up && interface->plugged,
                 .index = interface->index,
                 .address = interface->mac,
                 .name = {}};
    interface->name.copy(link.name.data(), link.name.size() - 1);
    return link;
}

os_link os_link_at(int32_t index) noexcept {
    for (const auto& interface : World::Get().Internals().interfaces)
        if (interface->index == index) return os_link_of(interface->name.c_str());
    return sim::Refuses(sim::DeviceCall::Link) ? kUnknown : os_link{};
}

bool os_is_own_address(const std::array<uint8_t, 6>& address) noexcept {
    const World& world = World::Get();
    if (sim::Refuses(sim::DeviceCall::Link)) return false;
    const auto isOfIt = [&](const auto& interface) { return interface->mac == address; };
    const auto& interfaces = World::Get().Internals().interfaces;
    const bool isOfInterface = !world.interfacesAreHosts && std::any_of(interfaces.begin(), interfaces.end(), isOfIt);
    return isOfInterface ||
           std::find(world.ownAddresses.begin(), world.ownAddresses.end(), address) != world.ownAddresses.end();
}

int os_watch_device(const os_device_watcher& watcher) noexcept {
    World::State& state = World::Get().Internals();
    os_unwatch_device();
    if (!state.loop.exists || sim::Refuses(sim::DeviceCall::Watch)) return -1;
    state.device.watcher = watcher;
    return 0;
}

void os_unwatch_device() noexcept {
    sim::DeviceWatch& device = World::Get().Internals().device;
    device.watcher = {};
    device.changedLinks.clear();
}

os_port* os_hold_port(const char* ifname, uint16_t port) noexcept {
    World& world = World::Get();
    const sim::Interface* const interface = world.Internals().FindInterface(ifname);
    if (interface == nullptr || !world.portsMayBeHeld || sim::Refuses(sim::DeviceCall::HoldPort)) return nullptr;
    auto* const held = os_new<os_port>();
    if (held == nullptr) return nullptr;
    *held = {interface->index, port};
    world.Internals().heldPorts.push_back(held);
    return held;
}

void os_release_port(os_port* port) noexcept {
    if (port == nullptr) return;
    std::erase(World::Get().Internals().heldPorts, port);
    os_delete(port);
}
