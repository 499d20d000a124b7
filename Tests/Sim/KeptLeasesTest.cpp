// A server's table that outlives the server: shown, kept by the caller as it is, and given back.

#include "LeaseInvariants.h"
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

// A server of 40 addresses that awaits its leases, and a subscriber to events.
struct Awaiting {
    Awaiting() {
        (void)lan.world.Call("/server", "leaseEvents", R"({"subscribe":true})", ":1.9");
        lan.world.posts.clear();
    }
    std::string Give(const std::string& leases, const std::string& more) {
        return lan.world.Call("/server", "giveLeases",
                              R"({"interface":"eth0","leases":[)" + leases + R"(],"more":)" + more + "}");
    }
    std::string State() {
        const std::string shown = lan.world.Call("/", "interfaceState", "{}");
        return shown.find(R"("state":"SERVING")") != std::string::npos ? "SERVING" : "AWAITING_LEASES";
    }
    size_t Active() { return Ostrel_DHCPServerGaugesOf(&lan.Server()).active; }

    ServerLan lan{
        {.maxLeases = 40, .keys = R"("rfc":true,"probe":0,"leasesFollow":true,"leases":[)" + Old(1, 900) + "]"}};

    // The lease of a station, at 192.168.1.99 and so many, with what is left of it in seconds.
    static std::string Old(int station, int remaining) {
        const std::string number = std::to_string(station);
        return R"({"ipv4Address":"192.168.1.)" + std::to_string(99 + station) + R"(","mac":"02:00:00:00:00:)" +
               (station < 10 ? "0" : "") + number + R"(","remaining":)" + std::to_string(remaining) + "}";
    }
};

TEST(KeptLeases, MayComeInPartsBeforeAnybodyIsAnswered) {
    Awaiting scene;
    ServerLan& lan = scene.lan;
    constexpr char kGiven[] = R"({"returnValue":true})";
    const auto refused = [](const std::string& why) { return R"({"returnValue":false,"problem":")" + why + "\"}"; };
    EXPECT_EQ(scene.Give(Awaiting::Old(21, 60) + "," + Awaiting::Old(20, 3000) + "," + Awaiting::Old(22, 1800), "true"),
              kGiven);
    for (const auto& [leases, more, why] :
         {std::tuple<std::string, std::string, std::string>{
              Awaiting::Old(5, 70) + R"(,{"ipv4Address":"192.168.1.1"})", "false",
              R"(\"leases\"[1].mac: an Ethernet address such as 02:00:5e:10:00:01 is wanted)"},
          {Awaiting::Old(5, 70), "1", R"(\"more\": true or false is wanted)"},
          {"7", "false", R"(\"leases\"[0]: a lease as leaseInformation shows it is wanted)"}})
        EXPECT_EQ(scene.Give(leases, more), refused(why));
    EXPECT_EQ(scene.Active(), 4U) << "of a part that is refused nothing is taken";

    lan.world.RunFor(9s);
    EXPECT_FALSE(Guest(lan.wire, 7).Discover());
    EXPECT_FALSE(Guest(lan.wire, 1).Request("192.168.1.100"));
    EXPECT_EQ(lan.Server().counters.dropped[static_cast<size_t>(Ostrel_VerdictKind::State)], 2U);
    EXPECT_EQ(scene.State(), "AWAITING_LEASES");
    std::string rest;
    for (const int station : {2, 9, 4, 8, 3, 6, 10, 12, 11})
        rest += Awaiting::Old(station, 100 + station * 37 % 50 * 60) + (station == 11 ? "" : ",");
    EXPECT_EQ(scene.Give(rest, "false"), kGiven);
    EXPECT_EQ(scene.State(), "SERVING");
    EXPECT_EQ(FindLeaseFault(lan.Server()), "");
    EXPECT_EQ(lan.Server().counters.leasesGranted, 0U);
    EXPECT_EQ(scene.Give("", "false"), refused(R"(\"interface\": awaits no leases)"));
    EXPECT_EQ(scene.Active(), 13U);
    EXPECT_EQ(Guest(lan.wire, 1).Request("192.168.1.100")->Type(), kAck);
    EXPECT_EQ(Guest(lan.wire, 7).Discover()->yiaddr, ToIPv4("192.168.1.104")) << "the lowest that nobody has";

    // Ends are told in their order, and nothing else was.
    std::string told;
    for (size_t seen = 0; lan.world.Now() < 3700s; lan.world.RunFor(1s)) {
        for (; seen < lan.world.posts.size(); ++seen) {
            const std::string& post = lan.world.posts[seen].payload;
            const size_t event = post.find("expired");
            const size_t station = post.find("02:00:00:00:00:");
            if (event != std::string::npos) told += post.substr(station + 15, 2) + " ";
            EXPECT_EQ(post.find("granted"), std::string::npos) << post;
        }
    }
    EXPECT_EQ(told, "21 11 03 10 06 02 22 09 12 08 04 20 01 ");
}

TEST(KeptLeases, AreNotAwaitedForEver) {
    Awaiting silent;
    silent.lan.world.RunFor(11s);
    EXPECT_EQ(silent.State(), "SERVING");
    EXPECT_TRUE(silent.lan.world.Logged("The rest of the leases has not come; the server begins with 1 of them."));
    EXPECT_EQ(Guest(silent.lan.wire, 1).Request("192.168.1.100")->Type(), kAck);

    EXPECT_TRUE(silent.lan.daemon.Finalize("eth0"));
    EXPECT_TRUE(silent.lan.Start({.keys = R"("leasesFollow":true)"}));
    for (int part = 0; part < 6; ++part) {
        EXPECT_EQ(silent.State(), "AWAITING_LEASES") << part;
        EXPECT_NE(silent.Give("", "true").find("true"), std::string::npos);
        silent.lan.world.RunFor(9900ms);
    }
    silent.lan.world.RunFor(1s);
    EXPECT_EQ(silent.State(), "SERVING") << "a caller that says nothing in many words";
    EXPECT_TRUE(silent.lan.daemon.Finalize("eth0"));
    EXPECT_TRUE(silent.lan.Start({.keys = R"("leasesFollow":true)"}));
    EXPECT_TRUE(silent.lan.daemon.Finalize("eth0"));  // and nothing is left of the wait
    silent.lan.world.RunFor(120s);
}

TEST(KeptLeases, TheFirstAddressOfTheRangeMayBeKeptForSomebody) {
    ServerLan lan({.keys = R"("probe":0,"fixed":[{"macAddress":"02:00:00:00:00:02","ipv4Address":"192.168.1.100"}])"});
    EXPECT_EQ(lan.daemon.system.interfaceList->dhcpServer->numSlots, 10u);
    EXPECT_EQ(Guest(lan.wire, 1).Discover()->yiaddr, ToIPv4("192.168.1.101"));
    EXPECT_EQ(Guest(lan.wire, 2).Discover()->yiaddr, ToIPv4("192.168.1.100"));
}

}  // namespace
}  // namespace sim
