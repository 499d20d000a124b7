// The device under the fuzz targets.

#include "FuzzDevice.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Ostrel/Log.h"

namespace sim {
namespace {

constexpr char kListener[] = ":1.2";
constexpr char kSubscribe[] = R"({"subscribe":true})";

}  // namespace

FuzzDevice::FuzzDevice()
    : wire(world.AddSegment()),
      server(wire, {.leaseTime = kFuzzLease}),
      neighbour(wire, kFuzzNeighbour, ToIPv4("203.0.113.1")) {
    world.AddInterface("eth0", kFuzzMAC, wire);
    world.AddInterface("eth1", {0x00, 0x11, 0x22, 0x33, 0x44, 0x56}, world.AddSegment());
    world.onSend = [this](std::span<const uint8_t> frame) {
        ++framesSent;
        Check(FindFault(frame).empty(), DescribeFrame(frame));
    };
    world.keepLog = false;
    wire.sentLimit = 0;
    Check(Ostrel_DaemonStart(&system) == kNoErr, "the daemon doesn't start");
    blocksAtRest = world.LiveAllocations();
}

void FuzzDevice::Check(bool holds, const std::string& what) const {
    if (!holds) world.Fail(what);
}

void FuzzDevice::Inject(std::span<const uint8_t> frame) {
    wire.Send(neighbour, frame);
}

void FuzzDevice::Listen() {
    for (const char* method : {"interfaceState", "trace"}) (void)world.Call("/", method, kSubscribe, kListener);
    (void)world.Call("/server", "leaseEvents", kSubscribe, kListener);
}

void FuzzDevice::Run(const Ostrel_InterfaceConfig& config,
                     const std::function<void(Ostrel_InterfaceObj& iface)>& input) {
    std::srand(1);
    Ostrel_SetDebugLevel("info");  // what names and addresses from the network are written into
    server.script = {.leaseTime = kFuzzLease};
    Check(Ostrel_InterfaceInitialize(&system, &config) == kNoErr, "no interface");

    input(*system.interfaceList);

    while (system.interfaceList != nullptr) Ostrel_InterfaceFinalize(&system.interfaceList, system.interfaceList);
    world.LeaveBus(kListener);
    world.RunFor(std::chrono::milliseconds(1));  // what is still on its way arrives nowhere
    Check(world.LiveAllocations() == blocksAtRest, "memory is left");
    Check(world.PendingTimeouts() == 1, "a timeout is left");  // the one that remains waits for the next interface
    Check(world.OpenSockets() == 0, "a socket is left");
    world.posts.clear();
}

Ostrel_InterfaceConfig FuzzConfig(uint32_t mode, uint32_t configMode) {
    const auto address = [](std::string_view text) { return be32toh(ToIPv4(text)); };
    Ostrel_InterfaceConfig config{};
    config.ifname = {"eth0"};
    config.mode = mode;
    config.configMode = configMode;
    config.IPv4Address = address("192.0.2.5");
    config.IPv4SubnetMask = address("255.255.255.0");
    config.IPv4Router = address("192.0.2.1");
    config.IPv4RangeStart = address("192.0.2.10");
    config.maxLeases = 4;
    return config;
}

Frame FuzzFrame(std::span<const uint8_t> input, const DHCPMessage& head) {
    constexpr size_t kXid = 46;
    constexpr size_t kChaddr = 70;  // with a plain IPv4 header
    constexpr size_t kOptions = 282;
    const uint8_t flags = input[0];
    const Frame whole = WriteDHCP(head);
    Frame frame(input.begin() + 1, input.end());
    if ((flags & kFlagOptionsOnly) != 0) frame.insert(frame.begin(), whole.begin(), whole.begin() + kOptions);
    if ((flags & kFlagPatch) != 0 && frame.size() >= kChaddr + head.chaddr.size()) {
        std::copy_n(whole.begin() + kXid, sizeof head.xid, frame.begin() + kXid);
        std::copy_n(whole.begin() + kChaddr, head.chaddr.size(), frame.begin() + kChaddr);
    }
    return frame;
}

}  // namespace sim
