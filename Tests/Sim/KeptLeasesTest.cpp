// A server's table that outlives the server: shown, kept by the caller as it is, and given back; and what an operator
// does to one address of it.

#include "ServerScene.h"

namespace sim {
namespace {

constexpr char kServer[] = R"({"interface":"eth0","mode":"server","rfc":true,"probe":0,"ipv4Address":"192.168.1.1",)"
                           R"("ipv4Subnet":"255.255.255.0","ipv4Router":"0.0.0.0","ipv4RangeStart":"192.168.1.100",)"
                           R"("maxLeases":10,"leaseTime":3600)";

struct KeptLeases : testing::Test {
    KeptLeases() {
        world.zoneSeconds = 7200;
        (void)world.Call("/server", "leaseInformation", R"({"subscribe":true})", ":1.7");
        EXPECT_EQ(Start(""), R"({"returnValue":true})");
    }

    std::string Start(const std::string& members) {
        return world.Call("/", "interfaceInitialize", std::string(kServer) + members + "}");
    }
    std::string Table() { return world.Call("/server", "leaseInformation", "{}"); }
    std::string Act(const std::string& address, const std::string& action) {
        return world.Call("/server", "leaseAction",
                          R"({"interface":"eth0","ipv4Address":)" + address + R"(,"leaseAction":)" + action + "}");
    }

    World world;
    Segment& wire = world.AddSegment();
    Station& eth0 = world.AddInterface("eth0", kClientMAC, wire);
    Daemon daemon;
};

// The value of a key of a reply or post, as text; it is the last one.
std::string LastOf(const std::string& json, const std::string& key) {
    const size_t begin = json.find("\"" + key + "\":") + key.size() + 3;
    return json.substr(begin, json.size() - 1 - begin);
}

TEST_F(KeptLeases, AreAgainWhatTheyWere) {
    Guest camera(wire, 1);
    Guest laptop(wire, 2);
    DHCPMessage request = MessageFrom(camera.mac, kRequest, "", "192.168.1.105");
    request.options.push_back({61, {0xFF, 0, 1, 0xFE, 'x'}});
    request.options.push_back({12, {'c', 0xFF, 'm'}});
    DHCPMessage discover = request;
    discover.options[0].second = {kDiscover};
    EXPECT_EQ(camera.Ask(discover)->Type(), kOffer);
    EXPECT_EQ(camera.Ask(request)->Type(), kAck);
    world.RunFor(600s);
    EXPECT_EQ(laptop.Discover()->Type(), kOffer);
    EXPECT_EQ(laptop.Request("192.168.1.100")->Type(), kAck);
    const std::string shown = Table();
    EXPECT_NE(shown.find(R"("clientIdentifierHex":"ff0001fe78")"), std::string::npos) << shown;

    // Killed, and started anew a while later, by a clock that went on.
    for (const std::string& kept : {LastOf(shown, "interfaceList"), LastOf(world.posts.back().payload, "leases")}) {
        EXPECT_TRUE(daemon.Finalize("eth0"));
        world.RunFor(60s);
        EXPECT_EQ(Start(R"(,"leases":)" + kept), R"({"returnValue":true})");
        EXPECT_EQ(Table(), shown);
    }
    EXPECT_EQ(laptop.Discover()->yiaddr, ToIPv4("192.168.1.100"));
    EXPECT_EQ(camera.Ask(discover)->yiaddr, ToIPv4("192.168.1.105"));
    world.RunFor(3600s - 720s);  // the camera's is over, the laptop has 10 minutes more
    (void)Guest(wire, 3).Ask(MessageFrom({2, 0, 0, 0, 0, 3}, kInform, "192.168.1.77"));
    EXPECT_EQ(Table().find("192.168.1.105"), std::string::npos);
    EXPECT_NE(Table().find("192.168.1.100"), std::string::npos);
}

TEST_F(KeptLeases, TheFirstAddressOfTheRangeMayBeKeptForSomebody) {
    EXPECT_TRUE(daemon.Finalize("eth0"));
    EXPECT_EQ(Start(R"(,"fixed":[{"macAddress":"02:00:00:00:00:02","ipv4Address":"192.168.1.100"}])"),
              R"({"returnValue":true})");
    EXPECT_EQ(daemon.system.interfaceList->dhcpServer->numSlots, 10u);
    EXPECT_EQ(Guest(wire, 1).Discover()->yiaddr, ToIPv4("192.168.1.101"));
    EXPECT_EQ(Guest(wire, 2).Discover()->yiaddr, ToIPv4("192.168.1.100"));
}

TEST_F(KeptLeases, AnOperatorHoldsAndReleasesAnAddress) {
    Guest laptop(wire, 2);
    EXPECT_EQ(laptop.Discover()->yiaddr, ToIPv4("192.168.1.100"));
    EXPECT_EQ(laptop.Request("192.168.1.100")->Type(), kAck);
    const size_t posts = world.posts.size();
    EXPECT_EQ(Act(R"("192.168.1.100")", R"("hold")"), R"({"returnValue":true})");
    EXPECT_EQ(world.posts.size(), posts + 1);
    EXPECT_EQ(Table(), R"({"returnValue":true,"interfaceList":[{"interface":"eth0","leases":[]}]})");
    EXPECT_EQ(laptop.Discover()->yiaddr, ToIPv4("192.168.1.101"));
    EXPECT_EQ(Act(R"("192.168.1.100")", R"("release")"), R"({"returnValue":true})");
    EXPECT_EQ(Act(R"("192.168.1.101")", R"("release")"), R"({"returnValue":true})");

    const struct {
        std::string request, problem;
    } refusals[] = {
        {R"({"ipv4Address":"192.168.1.100","leaseAction":"hold"})",
         R"(\"interface\": a text of 1 to 16 bytes is wanted)"},
        {R"({"interface":"eth1"})", R"(\"interface\": runs no server)"},
        {R"({"interface":"eth0","leaseAction":"hold"})",
         R"(\"ipv4Address\": an IPv4 address such as 192.0.2.1 is wanted)"},
        {R"({"interface":"eth0","ipv4Address":"192.168.1.99","leaseAction":"hold"})",
         R"(\"ipv4Address\": is not the server's to give)"},
        {R"({"interface":"eth0","ipv4Address":"192.168.1.100","leaseAction":"Hold"})",
         R"(\"leaseAction\": \"release\" or \"hold\" is wanted)"},
    };
    for (const auto& [request, problem] : refusals)
        EXPECT_EQ(world.Call("/server", "leaseAction", request),
                  R"({"returnValue":false,"problem":")" + problem + "\"}");
}

}  // namespace
}  // namespace sim
