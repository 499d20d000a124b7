// The device under the fuzz targets.

#include "FuzzDevice.h"

#include <optional>

#include "Ostrel/Log.h"

#include "valdo.h"

namespace sim {
namespace {

constexpr char kListener[] = ":1.2";
constexpr char kSubscribe[] = R"({"subscribe":true})";

}  // namespace

bool IsObject(const std::string& text) {
    valdo::JDomParser parser;
    return parser.parse(text, valdo::JSchemaFragment("{}")) && parser.getDom().isObject();
}

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
    Ostrel_SetDebugLevel("info");  // what names and addresses from the network are written into
    Check(Ostrel_DaemonStart(&system) == kNoErr, "the daemon doesn't start");
}

FuzzDevice::~FuzzDevice() {
    Mend();
    (void)Ostrel_DaemonStop(&system);
}

void FuzzDevice::Check(bool holds, const std::string& what) const {
    if (!holds) world.Fail(what);
}

void FuzzDevice::Inject(std::span<const uint8_t> frame) {
    wire.Send(neighbour, frame);
}

void FuzzDevice::Listen() {
    for (const char* method : {"interfaceState", "trace"}) (void)world.Call("/", method, kSubscribe, kListener);
    for (const char* category : {"/client", "/server"})
        (void)world.Call(category, "leaseInformation", kSubscribe, kListener);
    (void)world.Call("/server", "leaseEvents", kSubscribe, kListener);
}

std::string FuzzDevice::Ask(std::string_view category, std::string_view method, std::string_view payload,
                            std::string_view caller) {
    if (world.Terminated()) return "";
    std::string reply = world.Call(category, method, payload, caller);
    Check(IsObject(reply) || !world.callError.empty(), "no answer: " + reply);
    return reply;
}

void FuzzDevice::Pass(Duration time) {
    const Duration end = world.Now() + time;
    for (; moments < kMostMoments && !world.Terminated(); ++moments) {
        const std::optional<Duration> next = world.Internals().schedule.NextTime();
        (void)world.RunFor((next && *next <= end ? *next : end) - world.Now());
        if (!next || *next > end) return;
    }
}

void FuzzDevice::PassMoments(size_t count) {
    for (; count > 0; --count)
        if (const std::optional<Duration> next = world.Internals().schedule.NextTime()) Pass(*next - world.Now());
}

void FuzzDevice::Mend() {
    for (size_t call = 0; call < kDeviceCalls; ++call) world.FailCall(static_cast<DeviceCall>(call), 0);
    world.chanceOfFailure = {};
    moments = 0;
    while (world.Internals().device.asleep && moments < kMostMoments) PassMoments(1);
    if (world.Internals().FindInterface("eth0") == nullptr) return;
    world.SetLink("eth0", true);
}

}  // namespace sim
