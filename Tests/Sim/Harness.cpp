// Starting and asking the daemon on a simulated device.

#include "Harness.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>

#include "Ostrel/Log.h"

namespace sim {
namespace {

// No interface sends more DISCOVERs, or DECLINEs, than this: where ten went out in the ten seconds before, a second
// lies between two. A world that begins anew begins the clock anew.
class StormWatch {
public:
    void See(const Station& interface, std::span<const uint8_t> frame) {
        const Duration now = World::Get().Now();
        if (now < last) moments.clear();
        last = now;
        const std::optional<DHCPMessage> message = ReadDHCP(frame);
        if (!message || (message->Type() != kDiscover && message->Type() != kDecline)) return;
        std::vector<Duration>& sent = moments[{&interface, message->Type()}];
        const bool isStorm = sent.size() >= 10 && now - sent[sent.size() - 10] < 10s - 1ms;  // the daemon's grain
        if (isStorm && now - sent.back() < 1s - 1ms) ADD_FAILURE() << "a storm at " << now / 1ms << " ms";
        sent.push_back(now);
    }

private:
    std::map<std::pair<const Station*, uint8_t>, std::vector<Duration>> moments;
    Duration last{0};
};

const bool hooked = [] {
    static StormWatch storms;
    World::onFailure = [](const std::string& what) { ADD_FAILURE() << what; };
    World::onEverySend = [](const Station& interface, std::span<const uint8_t> frame) { storms.See(interface, frame); };
    return true;
}();

}  // namespace

size_t Wished(const char* variable, size_t usual) {
    const char* const wish = std::getenv(variable);
    return wish == nullptr ? usual : std::strtoul(wish, nullptr, 10);
}

void CheckEveryFrame(World& world) {
    world.onSend = [](std::span<const uint8_t> frame) {
        const std::string fault = FindFault(frame);
        EXPECT_EQ(fault, "") << DescribeFrame(frame);
    };
}

LeaseReport LeaseReport::From(const std::string& json) {
    constexpr std::string_view kKey = R"("ipv4Address":")";
    const size_t key = json.find(kKey);
    if (key == std::string::npos) return {"", json};
    const size_t start = key + kKey.size();
    return {json.substr(start, json.find('"', start) - start), json};
}

Daemon::Daemon() {
    // As after "-l info": the daemon's threshold, not the tests' business.
    Ostrel_SetDebugLevel("info");
    running = Ostrel_DaemonStart(&system) == kNoErr;
}

Daemon::~Daemon() {
    if (running) (void)Stop();
}

Ostrel_Status Daemon::Stop() {
    running = false;
    return Ostrel_DaemonStop(&system);
}

bool Daemon::Ask(std::string_view category, std::string_view method, Members keys, Members wishes) {
    valdo::JValue request = valdo::Object();
    for (const Members& members : {keys, wishes}) {
        for (const auto& [key, value] : members) request.put(key, value);
    }
    std::string text;
    EXPECT_TRUE(valdo::JGenerator::toString(request, valdo::JSchemaFragment("{}"), text));
    return World::Get().Call(category, method, text).starts_with(R"({"returnValue":true)");
}

bool Daemon::Initialize(std::string_view ifname, Members wishes) {
    constexpr char kAny[] = "0.0.0.0";
    return Ask("/", "interfaceInitialize",
               {{"interface", ifname},
                {"mode", "client"},
                {"ipv4Config", "dhcp"},
                {"ipv4Address", kAny},
                {"ipv4Subnet", kAny},
                {"ipv4Router", kAny},
                {"ipv4RangeStart", kAny}},
               wishes);
}

LeaseReport Daemon::Lease() {
    return LeaseReport::From(World::Get().Call("/client", "leaseInformation", "{}"));
}

Lan::Lan(uint64_t seed, Members wishes)
    : world(seed), wire(world.AddSegment()), eth0(world.AddInterface("eth0", kClientMAC, wire)) {
    CheckEveryFrame(world);
    (void)world.Call("/client", "leaseInformation", R"({"subscribe":true})", ":1.7");
    EXPECT_TRUE(daemon.Initialize("eth0", wishes));
}

Lan::~Lan() {
    if (testing::Test::HasFailure()) std::cerr << world.Describe();
}

std::vector<DHCPMessage> Lan::Sent(MessageType type) const {
    std::vector<DHCPMessage> messages;
    for (const SentFrame& frame : wire.sent) {
        const std::optional<DHCPMessage> message = ReadDHCP(frame.bytes);
        if (frame.sender != &eth0 || !message || message->Type() != type) continue;
        messages.push_back(*message);
        messages.back().time = frame.time;
    }
    return messages;
}

Seconds Lan::SentAt(MessageType type) const {
    Seconds moments;
    for (const DHCPMessage& message : Sent(type)) moments.push_back(message.time / 1s);
    return moments;
}

std::vector<ARPFrame> Lan::SentARP() const {
    std::vector<ARPFrame> frames;
    for (const SentFrame& frame : wire.sent) {
        const std::optional<ARPFrame> arp = ReadARP(frame.bytes);
        if (frame.sender == &eth0 && arp) frames.push_back(*arp);
    }
    return frames;
}

size_t Lan::FramesSent() const {
    const auto isOurs = [this](const SentFrame& frame) { return frame.sender == &eth0; };
    return static_cast<size_t>(std::count_if(wire.sent.begin(), wire.sent.end(), isOurs));
}

}  // namespace sim
