// A request from the bus: the low bits of the first byte pick the method, the rest is the payload. "eth0" is a static
// client, "eth1" is free. The high bits have the caller subscribe first, stop reading, and read again.
//
// The daemon answers with an object whatever it was sent, and the interface that a request made goes away again whole.
// Whoever reads is told the state; whoever doesn't, costs no more than the bus's bounds. What the request subscribes to
// is told as JSON, and nobody is counted when its caller has left.

#include <algorithm>

#include "FuzzDevice.h"
#include "valdo.h"

namespace {

using sim::FuzzDevice;

constexpr uint8_t kFlagSubscribes = 0x10;
constexpr uint8_t kFlagStops = 0x20;
constexpr uint8_t kFlagReadsAgain = 0x40;
constexpr size_t kNews = 50;  // more than are let through to somebody who doesn't read
constexpr size_t kMaxUnread = 64;
constexpr char kCaller[] = ":1.1";

// A static client posts its configuration at each action.
void MakeNews(FuzzDevice& device) {
    for (size_t i = 0; i < kNews; ++i) {
        (void)device.world.Call("/client", "leaseAction", R"({"interface":"eth0","leaseAction":"init"})", ":1.2");
        device.world.RunFor(std::chrono::seconds(1));
    }
}

// What there is to tell to a subscriber of states and of frames.
void MakeEvents(FuzzDevice& device) {
    device.Inject(sim::WriteARP({.ethernetDestination = sim::kEveryone, .operation = 1}));
    (void)device.world.Call("/", "interfaceFinalize", R"({"interface":"eth0"})", ":1.2");
}

bool IsObject(const std::string& text) {
    valdo::JDomParser parser;
    return parser.parse(text, valdo::JSchemaFragment("{}")) && parser.getDom().isObject();
}

void CheckPosts(const FuzzDevice& device, uint8_t flags) {
    const auto& posts = device.world.posts;
    for (const sim::Post& post : posts) device.Check(IsObject(post.payload), "a post: " + post.payload);
    const bool reads = (flags & kFlagStops) == 0 || (flags & kFlagReadsAgain) != 0;
    device.Check(reads || device.world.UnreadBytes(kCaller) < kMaxUnread * 1024, "too much for one who doesn't read");
    if ((flags & kFlagSubscribes) == 0 || !reads) return;
    const auto isOfEth0 = [](const sim::Post& post) {
        return post.payload.find(R"("interface":"eth0","ipv4Address":"192.0.2.5")") != std::string::npos;
    };
    device.Check(std::any_of(posts.begin(), posts.end(), isOfEth0), "no state of eth0");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr std::pair<const char*, const char*> kMethods[] = {
        {"/", "interfaceInitialize"},    {"/client", "leaseInformation"},
        {"/server", "leaseInformation"}, {"/client", "leaseAction"},
        {"/", "interfaceFinalize"},      {"/", "setDebugLevel"},
        {"/", "interfaceConfigDump"},    {"/server", "leaseAction"},
        {"/", "interfaceState"},         {"/", "trace"},
        {"/server", "leaseEvents"},      {"/server", "giveLeases"},
    };
    static FuzzDevice device;
    if (size == 0) return 0;
    device.Run(sim::FuzzConfig(kOstrelModeDHCPClient, kOstrelConfigStatic), [&](Ostrel_InterfaceObj& iface) {
        const Ostrel_Audience& audience = iface.sysObj->audience;
        const uint8_t flags = data[0];
        if ((flags & kFlagSubscribes) != 0)
            (void)device.world.Call("/client", "leaseInformation", R"({"subscribe":true})", kCaller);
        if ((flags & kFlagStops) != 0) device.world.StopReading(kCaller);
        if ((flags & kFlagSubscribes) != 0) MakeNews(device);

        const auto& [category, method] = kMethods[(flags & 0x0F) % std::size(kMethods)];
        const std::string payload(data + 1, data + size);
        const std::string reply = device.world.Call(category, method, payload, kCaller);
        device.Check(IsObject(reply) || !device.world.callError.empty(), "no answer: " + reply);
        MakeEvents(device);
        if ((flags & kFlagReadsAgain) != 0) device.world.ReadAgain(kCaller);
        device.world.RunFor(std::chrono::seconds(10));
        (void)device.world.Call("/", "interfaceConfigDump", "{}");
        CheckPosts(device, flags);
        device.world.LeaveBus(kCaller);
        device.Check(audience.states + audience.trace + audience.leaseEvents == 0, "somebody is counted who has left");
    });
    return 0;
}
