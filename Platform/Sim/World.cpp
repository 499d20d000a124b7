// The world's beginning and end, its clock, its interfaces, and what a test may do to them.

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "Internals.h"

namespace sim {
namespace {

World* currentWorld = nullptr;

[[noreturn]] void Abort(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

}  // namespace

World::World(uint64_t seed) : random(seed), entropy(~seed), misfortune(seed + 1), state(std::make_unique<State>()) {
    if (currentWorld != nullptr) Abort("there is a World already");
    currentWorld = this;
    state->seed = seed;
    state->blocksBefore = LiveBlocks();
    ResetLog();
    std::srand(1);  // as a process that never seeds it finds it
}

World::~World() {
    if (PendingTimeouts() != 0) Fail(std::to_string(PendingTimeouts()) + " timeouts are left");
    if (OpenSockets() != 0) Fail(std::to_string(OpenSockets()) + " sockets are left");
    if (!state->heldPorts.empty()) Fail(std::to_string(state->heldPorts.size()) + " ports are left");
    if (LiveAllocations() != 0) Fail(std::to_string(LiveAllocations()) + " allocations are left");
    currentWorld = nullptr;
}

World* World::Current() {
    return currentWorld;
}

World& World::Get() {
    if (currentWorld == nullptr) Abort("there is no World");
    return *currentWorld;
}

void World::Fail(const std::string& what) const {
    const std::string text = what + "\n" + Describe();
    if (!onFailure) Abort(text.c_str());
    onFailure(text);
}

Duration World::Now() const {
    return state->now;
}

uint32_t World::MonotonicSeconds() const {
    return monotonicStart + static_cast<uint32_t>(TimeAwake() / std::chrono::seconds(1));
}

size_t World::LiveAllocations() const {
    return LiveBlocks() - state->blocksBefore;
}

size_t World::OpenSockets() const {
    return state->openSockets;
}

Segment& World::AddSegment() {
    return *state->segments.emplace_back(std::make_unique<Segment>());
}

Station& World::AddInterface(const std::string& ifname, const MAC& mac, Segment& segment, uint32_t mtu) {
    if (state->FindInterface(ifname) != nullptr) Fail("there is an interface " + ifname + " already");
    Interface& added =
        *state->interfaces.emplace_back(std::make_unique<Interface>(ifname, mac, segment, mtu, ++state->lastIndex));
    segment.Attach(added);
    state->LinkChanged(added);
    return added;
}

void World::RemoveInterface(const std::string& ifname) {
    Interface* const interface = state->FindInterface(ifname);
    if (interface == nullptr) return Fail("there is no interface " + ifname);
    interface->segment.Detach(*interface);
    state->LinkChanged(*interface);
    for (l2_packet_data*& socket : interface->sockets) {
        if (socket != nullptr) socket->interface = nullptr;
        socket = nullptr;
    }
    // It is kept: one of its own callbacks may be what removes it.
    const auto place = std::find_if(state->interfaces.begin(), state->interfaces.end(),
                                    [interface](const auto& owned) { return owned.get() == interface; });
    state->removedInterfaces.push_back(std::move(*place));
    state->interfaces.erase(place);
}

void World::SetLink(const std::string& ifname, bool up) {
    Interface* const interface = state->FindInterface(ifname);
    if (interface == nullptr) return Fail("there is no interface " + ifname);
    interface->up = up;
    state->LinkChanged(*interface);
}

void World::SetCarrier(const std::string& ifname, bool plugged) {
    Interface* const interface = state->FindInterface(ifname);
    if (interface == nullptr) return Fail("there is no interface " + ifname);
    interface->plugged = plugged;
    state->LinkChanged(*interface);
}

void World::ChangeMAC(const std::string& ifname, const MAC& mac) {
    Interface* const interface = state->FindInterface(ifname);
    if (interface == nullptr) return Fail("there is no interface " + ifname);
    interface->mac = mac;
    state->LinkChanged(*interface);
}

void World::RenameInterface(const std::string& ifname, const std::string& newName) {
    Interface* const interface = state->FindInterface(ifname);
    if (interface == nullptr || state->FindInterface(newName) != nullptr)
        return Fail(ifname + " cannot be named " + newName);
    interface->name = newName;
    state->LinkChanged(*interface);
}

void World::FailSends(const std::string& ifname, SendFault fault, uint32_t count) {
    Interface* const interface = state->FindInterface(ifname);
    if (interface == nullptr) return Fail("there is no interface " + ifname);
    interface->fault = fault;
    interface->faultySends = count;
}

}  // namespace sim
