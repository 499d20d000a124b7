// A server's table that outlives the server: shown, kept by the caller as it is, and given back.

#include "ServerScene.h"

namespace sim {
namespace {

// The value of a key of a reply or post, as text; it is the last one.
std::string LastOf(const std::string& json, const std::string& key) {
    const size_t begin = json.find("\"" + key + "\":") + key.size() + 3;
    return json.substr(begin, json.size() - 1 - begin);
}

TEST(KeptLeases, AreAgainWhatTheyWere) {
    const std::string keys = R"("rfc":true,"probe":0)";
    ServerLan lan({.keys = keys});
    lan.world.zoneSeconds = 7200;
    const auto table = [&lan] { return lan.world.Call("/server", "leaseInformation", "{}"); };
    Guest camera(lan.wire, 1);
    DHCPMessage request = MessageFrom(camera.mac, kRequest, "", "192.168.1.105");
    request.options.push_back({61, {0xFF, 0, 1, 0xFE, 'x'}});
    request.options.push_back({12, {'c', 0xFF, 'm'}});
    EXPECT_EQ(camera.Ask(request)->Type(), kAck);
    lan.world.RunFor(600s);
    EXPECT_EQ(Guest(lan.wire, 2).Request("192.168.1.100")->Type(), kAck);
    const std::string shown = table();
    EXPECT_NE(shown.find(R"("clientIdentifierHex":"ff0001fe78")"), std::string::npos) << shown;

    // Killed, and started anew a while later, by a clock that went on.
    for (const std::string& kept : {LastOf(shown, "interfaceList"), LastOf(lan.world.posts.back().payload, "leases")}) {
        EXPECT_TRUE(lan.daemon.Finalize("eth0"));
        lan.world.RunFor(60s);
        EXPECT_TRUE(lan.Start({.keys = (keys + R"(,"leases":)").append(kept)})) << lan.startReply;
        EXPECT_EQ(table(), shown);
    }
}

TEST(KeptLeases, TheFirstAddressOfTheRangeMayBeKeptForSomebody) {
    ServerLan lan({.keys = R"("probe":0,"fixed":[{"macAddress":"02:00:00:00:00:02","ipv4Address":"192.168.1.100"}])"});
    EXPECT_EQ(lan.daemon.system.interfaceList->dhcpServer->numSlots, 10u);
    EXPECT_EQ(Guest(lan.wire, 1).Discover()->yiaddr, ToIPv4("192.168.1.101"));
    EXPECT_EQ(Guest(lan.wire, 2).Discover()->yiaddr, ToIPv4("192.168.1.100"));
}

}  // namespace
}  // namespace sim
