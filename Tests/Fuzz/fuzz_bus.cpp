// What a caller asks for: a line that begins with flags, then a line for each call. Its first letter picks the method,
// the rest is the payload. "eth0" is a static client, "eth1" is free. By its flags the caller subscribes first, stops
// reading, and reads again.
//
// The daemon answers with an object whatever it was sent, and what a request made goes away again whole. Whoever reads
// is told the state; whoever doesn't, costs no more than the bus's bounds. All that is told is JSON, and nobody is
// counted when its caller has left.

#include <algorithm>

#include "FuzzDevice.h"
#include "Lines.h"
#include "OstrelVoroBus/ConfigWords.h"
#include "OstrelVoroBus/Method.h"
#include "OstrelVoroBus/ValueKeys.h"

namespace {

using namespace std::chrono_literals;
using sim::FuzzDevice;

constexpr uint8_t kFlagRFC = 0x01;
constexpr uint8_t kFlagSubscribes = 0x10;
constexpr uint8_t kFlagStops = 0x20;
constexpr uint8_t kFlagReadsAgain = 0x40;
constexpr size_t kNews = 50;  // more than are let through to somebody who doesn't read
constexpr size_t kMaxUnread = 64;
constexpr size_t kMostCalls = 16;
constexpr char kCaller[] = ":1.1";
constexpr char kOther[] = ":1.3";

constexpr const char* kKeys[] = {"interface",
                                 "mode",
                                 "ipv4LinkLocal",
                                 "ipv4Config",
                                 "ipv4Address",
                                 "ipv4Subnet",
                                 "ipv4Router",
                                 "dnsServers",
                                 "domainName",
                                 "clientIdentifier",
                                 "ipv4RangeStart",
                                 "maxLeases",
                                 "leaseTime",
                                 "leaseAction",
                                 "subscribe",
                                 "address",
                                 "release",
                                 "debugLevel",
                                 "macAddress",
                                 "code",
                                 "text",
                                 "hex",
                                 "ipv4",
                                 "forced",
                                 "remaining",
                                 "age",
                                 "mac",
                                 "leaseTimeString",
                                 "leaseExpiryString",
                                 "leases",
                                 "interfaceList",
                                 "60",
                                 "81",
                                 "254",
                                 "clientIdentifierHex"};
constexpr const char* kValues[] = {
    R"("eth0")",
    R"("eth1")",
    R"("eth2")",
    R"("client")",
    R"("server")",
    R"("dhcp")",
    R"("static")",
    R"("dhcpManualAddress")",
    R"("fallback")",
    R"("init")",
    R"("renew")",
    R"("rebind")",
    R"("halt")",
    R"("release")",
    R"("hold")",
    R"("0.0.0.0")",
    R"("192.0.2.1")",
    R"("192.0.2.10")",
    R"("192.0.2.255")",
    R"("255.255.255.0")",
    R"("255.255.255.254")",
    R"("255.0.255.0")",
    R"("255.255.255.252")",
    R"("1.2.3.256")",
    R"("chatty")",
    R"("tragic")",
    R"("02:00:00:00:00:05")",
    R"("ff:ff:ff:ff:ff:ff")",
    R"("00ff10")",
    R"("0f0")",
    R"("host.example")",
    R"("-a")",
    R"("Mon Nov 16 11:40:22 2026")",
    R"("Wed Feb 30 25:00:00 2000")",
    R"(["a","bc"])",
    R"([1,3,6,121])",
    R"({"60":"6d","81":"00"})",
    R"([{"code":42,"ipv4":["192.0.2.5"]},{"code":67,"text":"a","forced":true}])",
    R"([{"macAddress":"02:00:00:00:00:05","ipv4Address":"192.0.2.11","hostName":"h"}])",
    R"([{"clientIdentifier":"x","ipv4Address":"192.0.2.12"},{"clientIdentifierHex":"0102","ipv4Address":"192.0.2.13"}])",
    R"([{"ipv4Address":"192.0.2.10","mac":"02:00:00:00:00:05","remaining":60,"age":1}])",
    R"([{"interface":"eth1","leases":[{"ipv4Address":"192.0.2.10","mac":"02:00:00:00:00:05","remaining":60}]}])",
    "4",
    "20",
    "254",
    "576",
    "1048576",
    "100000",
    "3600"};
constexpr char kWhole[] =
    R"("interface":"eth1","ipv4Address":"192.0.2.5","ipv4Subnet":"255.255.255.0",)"
    R"("ipv4Router":"192.0.2.1","ipv4RangeStart":"192.0.2.10","maxLeases":4,"dnsServers":["192.0.2.2"])";

struct Method {
    const char* category;
    const char* name;
};

// All that the service has, in the order of its tables.
const std::vector<Method>& Methods() {
    static const std::vector<Method> methods = [] {
        std::vector<Method> all;
        const auto add = [&all](const char* category, const VSMethod* table) {
            for (; table->name != nullptr; ++table) all.push_back({category, table->name});
        };
        add("/", gOstrelServiceMethodsRoot);
        add("/client", gOstrelServiceMethodsClient);
        add("/server", gOstrelServiceMethodsServer);
        return all;
    }();
    return methods;
}

// A static client posts its configuration at each action.
void MakeNews(FuzzDevice& device) {
    for (size_t i = 0; i < kNews; ++i) {
        (void)device.Ask("/client", "leaseAction", R"({"interface":"eth0","leaseAction":"init"})", kOther);
        device.Pass(1s);
    }
}

// What there is to tell to a subscriber of states and of frames: one, a link that is lost, a sleep, and an end.
void MakeEvents(FuzzDevice& device) {
    device.Inject(sim::WriteARP({.ethernetDestination = sim::kEveryone, .operation = 1}));
    device.world.SetLink("eth1", false);
    device.Pass(1ms);
    device.world.Suspend(1s);
    device.Pass(2s);
    (void)device.Ask("/", "interfaceFinalize", R"({"interface":"eth0"})", kOther);
}

void CheckPosts(const FuzzDevice& device, uint8_t flags) {
    const auto& posts = device.world.posts;
    for (const sim::Post& post : posts) device.Check(sim::IsObject(post.payload), "a post: " + post.payload);
    const bool reads = (flags & kFlagStops) == 0 || (flags & kFlagReadsAgain) != 0;
    device.Check(reads || device.world.UnreadBytes(kCaller) < kMaxUnread * 1024, "too much for one who doesn't read");
    if ((flags & kFlagSubscribes) == 0 || !reads) return;
    const auto isOfEth0 = [](const sim::Post& post) {
        return post.payload.find(R"("interface":"eth0","ipv4Address":"192.0.2.5")") != std::string::npos;
    };
    device.Check(std::any_of(posts.begin(), posts.end(), isOfEth0), "no state of eth0");
}

void Begin(FuzzDevice& device, uint8_t flags) {
    std::string request = R"({"interface":"eth0","mode":"client","ipv4Config":"static","ipv4Address":"192.0.2.5",)"
                          R"("ipv4Subnet":"255.255.255.0","ipv4Router":"192.0.2.1","ipv4RangeStart":"0.0.0.0")";
    (void)device.Ask("/", "interfaceInitialize", request + ((flags & kFlagRFC) != 0 ? R"(,"rfc":true})" : "}"), kOther);
    if ((flags & kFlagSubscribes) != 0)
        (void)device.Ask("/client", "leaseInformation", R"({"subscribe":true})", kCaller);
    if ((flags & kFlagStops) != 0) device.world.StopReading(kCaller);
    if ((flags & kFlagSubscribes) != 0) MakeNews(device);
}

}  // namespace

const sim::fuzz::Vocabulary& sim::fuzz::TargetVocabulary() {
    static const Vocabulary vocabulary = [] {
        Vocabulary words{{std::begin(kKeys), std::end(kKeys)}, {std::begin(kValues), std::end(kValues)}, {}};
        for (const Ostrel_ValueKey* known = gTblValueKeys; known->name != nullptr; ++known)
            words.keys.emplace_back(known->name);
        for (size_t i = 0; i < Methods().size(); ++i) {
            const std::string letter(1, static_cast<char>('a' + i));
            words.lines.push_back(letter + R"({"interface":"eth0"})");
            for (const char* more : {R"("mode":"client","rfc":true)", R"("mode":"server")", R"("leaseAction":"init")",
                                     R"("mode":"server","rfc":true)", R"("subscribe":true)", R"("mode":"client")"})
                words.lines.push_back(letter + "{" + kWhole + "," + more + "}");
        }
        return words;
    }();
    return vocabulary;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto lines = sim::fuzz::SplitLines({reinterpret_cast<const char*>(data), size});
    if (lines.empty()) return 0;
    FuzzDevice device;
    const Ostrel_Audience& audience = device.system.audience;
    const auto flags = static_cast<uint8_t>(lines.front().front());
    Begin(device, flags);
    lines.resize(std::min(lines.size(), kMostCalls));
    for (const std::string& line : std::span(lines).subspan(1)) {
        const auto& [category, method] = Methods()[static_cast<uint8_t>(line[0] - 'a') % Methods().size()];
        (void)device.Ask(category, method, std::string_view(line).substr(1), kCaller);
        device.Pass(1s);
    }
    MakeEvents(device);
    if ((flags & kFlagReadsAgain) != 0) device.world.ReadAgain(kCaller);
    device.Pass(10s);
    (void)device.Ask("/", "interfaceConfigDump", "{}", kOther);
    CheckPosts(device, flags);
    device.world.LeaveBus(kCaller);
    device.Check(audience.states + audience.trace + audience.leaseEvents == 0, "somebody is counted who has left");
    return 0;
}
