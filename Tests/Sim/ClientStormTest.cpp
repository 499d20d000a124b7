// What would have a client ask at wire speed for ever. That no interface sends more than it may is checked by the
// harness in every scenario; here it is made to try, and must come through.

#include <algorithm>
#include <deque>

#include "Harness.h"

namespace sim {
namespace {

// How often that part stands in the log.
size_t CountLines(const World& world, std::string_view part) {
    return static_cast<size_t>(std::count_if(world.log.begin(), world.log.end(), [part](const LogLine& line) {
        return line.text.find(part) != std::string::npos;
    }));
}

constexpr char kHeld[] = "[eth0] DHCP Client holds DISCOVERs back: 10 in ten seconds, now one a second.";
constexpr char kFree[] = "[eth0] DHCP Client no longer holds DISCOVERs back.";

// The daemon's clock begins the test, and ten at once are followed by one a second.
Seconds OnePerSecond(int64_t until) {
    Seconds moments(10, 0);
    for (int64_t second = 1; second <= until; ++second) moments.push_back(second);
    return moments;
}

TEST(ClientStorm, AServerThatOffersAndRefusesIsAskedOnceASecond) {
    Lan lan;
    ScriptedServer server(lan.wire);
    server.script.tamper = [](DHCPMessage& answer) {
        if (answer.Type() == kAck) answer.options[0].second[0] = kNak;
    };
    lan.Init();
    lan.RunFor(60s + 500ms);
    EXPECT_EQ(lan.SentAt(kDiscover), OnePerSecond(60));
    EXPECT_EQ(CountLines(lan.world, kHeld), 1U);
    EXPECT_EQ(CountLines(lan.world, kFree), 0U);

    server.script.tamper = nullptr;  // it comes to its senses: a lease at the next try, and the line at the next start
    lan.RunFor(4s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    lan.RunFor(20s);
    lan.Init();
    lan.RunFor(1s);
    EXPECT_EQ(CountLines(lan.world, kHeld), 1U);
    EXPECT_EQ(CountLines(lan.world, kFree), 1U);
}

TEST(ClientStorm, AConflictWithAHostThatAlwaysAnswersIsMetOnceASecond) {
    Lan lan;
    ScriptedServer server(lan.wire);
    std::deque<ArpHost> squatters;  // one for each address that the server will ever offer
    for (IPv4 i = 0; i < 100; ++i) squatters.emplace_back(lan.wire, kOtherMAC, ToIPv4("192.0.2.10") + i);
    lan.Init();
    lan.RunFor(60s + 500ms);
    EXPECT_EQ(lan.SentAt(kDiscover), OnePerSecond(60));
    EXPECT_EQ(lan.SentAt(kDecline), OnePerSecond(60));
    EXPECT_TRUE(lan.world.posts.empty());
    squatters.clear();
    lan.RunFor(4s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.80");
    EXPECT_EQ(lan.world.posts.size(), 1U);
}

// Replies at wire speed for the address of a static client: it publishes no more often than it declines.
TEST(ClientStorm, AStaticClientWhoseAddressAnswersARPDeclinesOnceASecond) {
    Lan lan(1, {{"ipv4Config", "static"}, {"ipv4Address", "10.0.0.7"}, {"ipv4Subnet", "255.0.0.0"}});
    ArpHost squatter(lan.wire, kOtherMAC, ToIPv4("10.0.0.7"));
    lan.RunFor(1ms);
    const Duration start = lan.world.Now();
    while (lan.world.Now() < start + 30s) {
        squatter.Send(2, kClientMAC, 0);
        lan.RunFor(5ms);
    }
    const size_t declines = lan.Sent(kDecline).size();
    EXPECT_TRUE(declines >= 38 && declines <= 40) << declines;
    EXPECT_LE(lan.world.posts.size(), declines + 1);
    lan.RunFor(2s);
    EXPECT_EQ(lan.world.PendingTimeouts(), 0U);
    EXPECT_EQ(lan.Lease().address, "10.0.0.7");
}

TEST(ClientStorm, AFloodOfRefusalsDoesNotKeepTheClientFromItsLease) {
    Lan lan;
    ScriptedServer server(lan.wire);
    const DHCPMessage refusal = server.Answer({.ethernetSource = kClientMAC, .chaddr = kClientMAC}, kNak);
    lan.Init();
    for (int i = 0; i < 6000; ++i) {
        server.Send(refusal);
        lan.RunFor(5ms);
    }
    EXPECT_EQ(lan.SentAt(kDiscover), OnePerSecond(29));
    lan.RunFor(4s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
}

}  // namespace
}  // namespace sim
