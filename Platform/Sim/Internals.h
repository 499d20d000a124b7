// The platform's side of the simulated world: what the implementations of Platform/Include share.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Schedule.h"
#include "Sim.h"
#include "TimeoutQueue.h"
#include "VoroBus.h"
#include "eloop.h"
#include "l2_packet.h"
#include "os_device.h"

namespace sim {
class Interface;
}

struct l2_packet_data {
    sim::Interface* interface;  // null when the interface was removed
    l2_packet_callback callback;
    void* context;
    size_t program;  // in World::State::programs, plus 1; 0: none yet
    std::array<uint8_t, 6> address;
    uint32_t mtu;
    bool receiving;  // its callback runs
};

namespace sim {

// Memory.cpp
[[nodiscard]] size_t LiveBlocks();

// Refusals.cpp: counts a call; true when it is to fail. Without a world nothing fails.
[[nodiscard]] bool Refuses(DeviceCall call);

// Loop.cpp: keeps one event in the schedule for the next timeout, and none while the device sleeps.
void ScheduleWake();

// Log.cpp: debug output as before any DebugInitialize, its lines sent to the current world.
void ResetLog();

// An interface of the device.
class Interface : public Station {
public:
    Interface(std::string interfaceName, const MAC& address, Segment& wire, uint32_t mtuBytes, int32_t number)
        : name(std::move(interfaceName)), mac(address), segment(wire), mtu(mtuBytes), index(number) {}
    void Receive(std::span<const uint8_t> frame) override;
    [[nodiscard]] bool IsBehind(const MAC& destination) const override;
    // As l2_packet_send.
    int Send(std::span<const uint8_t> frame);
    void Close(const l2_packet_data* socket);

    std::string name;
    MAC mac;
    Segment& segment;
    const uint32_t mtu;
    const int32_t index;
    bool up = true;
    bool plugged = true;
    SendFault fault = SendFault::None;
    uint32_t faultySends = 0;              // sends that still fail
    std::vector<l2_packet_data*> sockets;  // in the order of opening; null: closed during a delivery

private:
    void Deliver(std::span<const uint8_t> frame);
    uint32_t deliveries = 0;  // under way
};

struct EventLoop {
    bool exists = false;
    bool terminated = false;
    void* loopContext = nullptr;
    eloop_signal_handler signalHandler = nullptr;
    void* signalContext = nullptr;
    std::vector<int> pendingSignals;  // raised before there was a handler
    TimeoutQueue timeouts;            // alarms too: their clock is ahead only while the device sleeps
    uint64_t wake = 0;                // the event that runs a pass of them
    Duration wakeTime{0};             // its moment
};

// What the device tells its watcher, and when.
struct DeviceWatch {
    os_device_watcher watcher{};        // linkChanged null: nobody watches
    std::vector<int32_t> changedLinks;  // that it has not been told of, in order
    bool asleep = false;
    Duration sleepBegan{0};
    Duration slept{0};    // in all
    uint64_t wakeUp = 0;  // the event that ends the sleep
};

// A peer on the bus that does not read.
struct StoppedReader {
    std::string name;
    std::vector<Post> posts;  // unread
    size_t bytes;             // of posts and replies
    bool isAsked;             // by a Ping
};

// The calls of one kind.
struct CallCount {
    size_t made = 0;
    size_t refused = 0;
    size_t firstRefused = 0;  // counted as `made`; 0: none
    size_t lastRefused = 0;
};

struct TracedFrame {
    Duration time;
    std::shared_ptr<const Frame> frame;
};

}  // namespace sim

struct sim::World::State {
    uint64_t seed = 0;
    Duration now{0};
    Schedule schedule;
    EventLoop loop;

    std::vector<std::unique_ptr<Segment>> segments;
    std::vector<std::unique_ptr<Interface>> interfaces;
    std::vector<std::unique_ptr<Interface>> removedInterfaces;
    std::vector<std::vector<l2_filter_instruction>> programs;  // each program that was ever installed, once
    size_t openSockets = 0;
    std::vector<os_port*> heldPorts;
    int32_t lastIndex = 0;  // of an interface
    DeviceWatch device;

    // What the programs said of the frame that a segment is delivering right now, so that each runs once a frame.
    const Frame* frameOnWire = nullptr;
    std::vector<int64_t> verdicts;  // by program; -1: not run yet

    std::shared_ptr<VSHandle> bus;  // shared only so that its record may stay private to Bus.cpp

    std::vector<StoppedReader> stopped;
    std::set<std::string> left;  // names that are on the bus no more

    size_t blocksBefore = 0;  // live when the world began
    std::array<CallCount, kDeviceCalls> calls{};
    std::deque<TracedFrame> recentFrames;
    uint64_t traceHash = 0xCBF29CE484222325;  // FNV-1a
    std::string trace;

    [[nodiscard]] StoppedReader* FindStopped(std::string_view name);
    [[nodiscard]] Interface* FindInterface(std::string_view ifname) const;
    void LinkChanged(const Interface& interface);  // the watcher is told on the next pass of the loop
    void TraceFrame(const std::shared_ptr<const Frame>& frame, bool inWords);
    void TraceText(std::string_view what, std::string_view text, bool inWords);
};
