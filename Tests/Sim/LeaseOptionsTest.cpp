// What a caller gives a client to say and to ask for, on the wire; and what comes of it, on the bus. By either rules.

#include <algorithm>

#include "Harness.h"

namespace sim {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr char kClient[] =
    R"({"interface":"eth0","mode":"client","ipv4Address":"0.0.0.0","ipv4Subnet":"0.0.0.0","ipv4Router":"0.0.0.0",)"
    R"("ipv4RangeStart":"0.0.0.0",)";
constexpr char kWishes[] = R"("hostName":"cam.lab","vendorClass":"v","userClass":["u"],"clientIdentifierHex":"ff0001",)"
                           R"("requestOptions":[42,121,26,3,101],"broadcast":true,"sendOptions":{"224":")";

struct Options : testing::TestWithParam<bool> {
    Options() { (void)world.Call("/client", "leaseInformation", R"({"subscribe":true})", ":1.7"); }

    bool Start(const std::string& members) {
        const std::string request =
            kClient + std::string(R"("rfc":)") + (GetParam() ? "true" : "false") + members + "}";
        return world.Call("/", "interfaceInitialize", request) == R"({"returnValue":true})" &&
               daemon.LeaseAction("eth0", "init") && world.RunFor(10s);
    }

    // Sent by the client, in the order of time.
    std::vector<DHCPMessage> sent;

    World world;
    Segment& wire = world.AddSegment();
    Station& eth0 = world.AddInterface("eth0", kClientMAC, wire);
    Daemon daemon;
};

INSTANTIATE_TEST_SUITE_P(Rules, Options, testing::Bool(),
                         [](const auto& test) { return std::string(test.param ? "Rfc" : "Plain"); });

TEST_P(Options, GoOutAsTheyWereGivenAndAreShownAsTheyCame) {
    world.onSend = [this](std::span<const uint8_t> frame) {
        if (const auto message = ReadDHCP(frame)) sent.push_back(*message);
    };
    ScriptedServer server(
        wire,
        {.leaseTime = 600, .tamper = [](DHCPMessage& answer) {
             // The routes come in two parts; nobody asked for 119.
             for (const auto& option : std::vector<std::pair<uint8_t, Bytes>>{
                      {121, {0, 192, 0, 2}}, {42, {192, 0, 2, 3}}, {26, {5, 220}}, {121, {9}}, {119, {1, 'a', 0}}})
                 answer.options.push_back(option);
         }});
    ASSERT_TRUE(Start(std::string(",") + kWishes + std::string(510, 'a') + "\"}"));

    const std::pair<uint8_t, Bytes> expected[] = {{81, {5, 0, 0, 3, 'c', 'a', 'm', 3, 'l', 'a', 'b', 0}},
                                                  {60, {'v'}},
                                                  {77, {1, 'u'}},
                                                  {61, {0xFF, 0, 1}},
                                                  {224, Bytes(255, 0xAA)}};
    for (const MessageType type : {kDiscover, kRequest}) {
        const auto message = std::ranges::find_if(sent, [type](const DHCPMessage& m) { return m.Type() == type; });
        ASSERT_NE(message, sent.end());
        for (const auto& [code, data] : expected) {
            ASSERT_NE(message->Find(code), nullptr) << int{code};
            EXPECT_EQ(*message->Find(code), data) << int{code};
        }
        EXPECT_EQ(message->Find(12), nullptr);
        for (const uint8_t code : Bytes{42, 121, 26, 3, 101, 1, 6})
            EXPECT_EQ(std::ranges::count(*message->Find(55), code), 1) << int{code};
        EXPECT_EQ(message->flags, 0x8000);
    }

    const std::string shown =
        R"("options":{"42":"c0000203","121":"00c0000209","26":"05dc","3":"c0000201"},"ntpServers":["192.0.2.3"],)"
        R"("staticRoutes":[{"destination":"0.0.0.0/0","router":"192.0.2.9"}],"mtu":1500}]})";
    ASSERT_FALSE(world.posts.empty());
    EXPECT_TRUE(world.posts.back().payload.ends_with("," + shown)) << world.posts.back().payload;
    EXPECT_TRUE(daemon.Lease().Says(shown.substr(0, shown.size() - 3))) << daemon.Lease().text;
    EXPECT_FALSE(daemon.Lease().Says("ipv4Router")) << "the routes take its place";

    server.script.tamper = nullptr;  // a renewed lease is what its own DHCPACK says
    world.RunFor(400s);
    EXPECT_TRUE(daemon.Lease().Says(R"("ipv4Router":["192.0.2.1"])")) << daemon.Lease().text;
    EXPECT_TRUE(daemon.Lease().Says(R"("options":{"3":"c0000201"})")) << daemon.Lease().text;
}

}  // namespace
}  // namespace sim
