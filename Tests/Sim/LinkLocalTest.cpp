// The link-local selector in time: its schedule, its conflicts, and what stops it.

#include <algorithm>
#include <cstdlib>
#include <endian.h>
#include <gtest/gtest.h>

#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"

#include "Harness.h"

namespace {

using namespace sim;

constexpr MAC kRival{2, 0, 0, 0, 0, 0x77};

// A client that is never started, so that all ARP on the wire is the selector's.
class LinkLocal : public testing::Test {
protected:
    Lan lan{1, {{"ipv4LinkLocal", true}}};

    Ostrel_LinkLocalObj& Selector() { return *lan.daemon.system.interfaceList->linkLocal; }
    [[nodiscard]] IPv4 Address() { return be32toh(Selector().IPv4Address); }

    // Past the bus, which would start the client as well.
    bool Act(const char* action) { return Ostrel_LinkLocalAction(lan.daemon.system.interfaceList, action) == kNoErr; }

    // Another host uses `address`.
    void Claim(IPv4 address, const MAC& mac = kRival) {
        ArpHost(lan.wire, mac, address).Send(1, kEveryone, address);
        lan.RunFor(1ms);
    }

    // Moments at which eth0 sent ARP frames from `from` on, in milliseconds after it.
    std::vector<int64_t> SentSince(Duration from) {
        std::vector<int64_t> moments;
        for (const SentFrame& frame : lan.wire.sent)
            if (frame.sender == &lan.eth0 && frame.time >= from && ReadARP(frame.bytes))
                moments.push_back((frame.time - from) / 1ms);
        return moments;
    }

    // What follows that part in each line of the log that has it.
    std::string Said(const std::string& part) {
        std::string said;
        for (const LogLine& line : lan.world.log)
            if (const size_t at = line.text.find(part); at != std::string::npos)
                said += line.text.substr(at + part.size()) + " ";
        return said;
    }
};

TEST_F(LinkLocal, ProbesThriceAnnouncesTwiceAndHolds) {
    lan.RunFor(60s);
    Claim(0);
    EXPECT_EQ(lan.SentARP().size(), 0U);  // idle until it is told

    const Duration start = lan.world.Now();
    ASSERT_TRUE(Act("init"));
    lan.RunFor(30s);
    const std::vector<ARPFrame> frames = lan.SentARP();
    ASSERT_EQ(frames.size(), 5U);
    for (size_t i = 0; i < frames.size(); ++i)
        EXPECT_EQ(std::tie(frames[i].ethernetDestination, frames[i].operation, frames[i].senderMAC, frames[i].sender,
                           frames[i].targetMAC, frames[i].target),
                  std::make_tuple(kEveryone, 1, kClientMAC, i < 3 ? 0 : Address(), MAC{}, Address()));
    const std::vector<int64_t> at = SentSince(start);
    EXPECT_EQ(at[0], 0);
    EXPECT_LT(std::max(at[1] - at[0], at[2] - at[1]), 1000);
    EXPECT_EQ((at[3] - at[2]) / 1000, 2);
    EXPECT_EQ(at[4] - at[3], 2000);
    EXPECT_EQ(Said("Link Local state transition "),
              "UNKNOWN -> INIT. INIT -> PROBE. PROBE -> PROBE. PROBE -> PROBE. PROBE -> ANNOUNCE. "
              "ANNOUNCE -> ANNOUNCE. ANNOUNCE -> ANNOUNCE. ");
    EXPECT_TRUE(lan.world.Logged("##### [eth0] IPv4 Link Local Address "));
    EXPECT_EQ(lan.world.PendingTimeouts(), 0U);
}

TEST_F(LinkLocal, ChoosesFromMACClockAndGenerator) {
    // The generator's first value of an unseeded process, as it stands before the bounds are drawn.
    std::srand(1);
    const auto value = static_cast<uint32_t>(std::rand());
    std::srand(1);
    ASSERT_TRUE(Act("renew"));
    lan.RunFor(0s);
    const uint32_t mix = 0x334455 ^ lan.world.MonotonicSeconds() ^ value;
    EXPECT_EQ(Address(), 0xA9FE0000 + ((mix / 256 % 256 % 254) + 1) * 256 + (mix % 256 % 254) + 1);
}

TEST_F(LinkLocal, GivesWayToWhoeverUsesTheAddress) {
    ASSERT_TRUE(Act("init"));
    lan.RunFor(100ms);
    const IPv4 first = Address();
    Claim(0);                  // another host's probe
    Claim(first + 1);          // another address
    Claim(first, kClientMAC);  // our own frame, reflected
    lan.RunFor(20s);
    EXPECT_EQ(Address(), first);

    Claim(first);
    EXPECT_EQ(Address(), first);  // until the pause is over
    lan.RunFor(20s);
    const IPv4 second = Address();
    EXPECT_NE(second, first);

    ASSERT_TRUE(Act("halt"));  // makes no difference
    Claim(second);
    lan.RunFor(20s);
    EXPECT_NE(Address(), second);
    for (const IPv4 held : {second, Address()}) {  // each was announced
        const std::vector<ARPFrame> frames = lan.SentARP();
        EXPECT_EQ(std::count_if(frames.begin(), frames.end(), [held](const auto& arp) { return arp.sender == held; }),
                  2);
    }
    EXPECT_TRUE(lan.world.Logged("     Conflicting MAC Address : 02:00:00:00:00:77"));
}

TEST_F(LinkLocal, SlowsDownAtTheTenthConflict) {
    ASSERT_TRUE(Act("rebind"));
    lan.RunFor(0s);
    for (int conflict = 1; conflict <= 9; ++conflict) {
        Claim(Address());
        lan.RunFor(1s);  // over which the next one is being probed
    }
    const IPv4 ninth = Address();
    const Duration tenth = lan.world.Now();
    Claim(ninth);
    lan.RunFor(59s);
    EXPECT_EQ(Address(), ninth);
    lan.RunFor(240s);
    EXPECT_NE(Address(), ninth);
    EXPECT_EQ(SentSince(tenth), (std::vector<int64_t>{60'000, 120'000, 180'000, 242'000, 244'000}));
}

TEST_F(LinkLocal, HaltsWhereItIs) {
    ASSERT_TRUE(Act("init"));
    lan.RunFor(2500ms);
    const IPv4 candidate = Address();
    const size_t sent = lan.SentARP().size();
    ASSERT_TRUE(Act("halt"));
    lan.RunFor(60s);
    EXPECT_EQ(std::make_tuple(Selector().state, Address(), lan.SentARP().size()),
              std::make_tuple(kLinkLocalStateProbe, candidate, sent));

    EXPECT_FALSE(Act("Init"));
    EXPECT_TRUE(lan.world.Logged("[eth0] Link Local unknown action request <Init>."));
    ASSERT_TRUE(Act("init"));
    ASSERT_TRUE(Act("init"));  // once more is not twice
    lan.RunFor(60s);
    EXPECT_NE(Address(), candidate);
    EXPECT_EQ(lan.SentARP().size(), sent + 5);
}

TEST_F(LinkLocal, StopsWhereASendIsShort) {
    // By the time from the start to the moment the sends begin to fail.
    const std::map<Duration, std::string> reports{
        {0ms, "ProbeAddress() StateTransition_Init() Timeout_Init() "},
        {1ms, "ProbeAddress() StateTransition_Probe() Timeout_Probe() "},
        {2500ms, "AnnounceAddress() StateTransition_Announce() Timeout_Announce() "}};
    for (const auto& [until, functions] : reports) {
        ASSERT_TRUE(Act("init"));
        if (until != 0ms) lan.RunFor(until);
        lan.world.log.clear();
        lan.world.FailSends("eth0", SendFault::Short, 1);
        lan.RunFor(60s);
        EXPECT_EQ(Said("Ostrel_LinkLocal"), functions);
        EXPECT_EQ(lan.world.PendingTimeouts(), 0U);
    }
}

// Both roles of an interface hear every ARP frame: a lease and a link-local address do not get in each other's way.
TEST_F(LinkLocal, LivesBesideAClient) {
    ScriptedServer server(lan.wire);
    ASSERT_TRUE(lan.Init());
    lan.RunFor(20s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    EXPECT_EQ(Selector().numAnnounces, 2);

    // A rival for the link-local address leaves the lease alone.
    const IPv4 held = Address();
    ArpHost(lan.wire, kRival, held).Send(2, kClientMAC, ToIPv4("192.0.2.10"));
    lan.RunFor(20s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    EXPECT_NE(Address(), held);
    EXPECT_EQ(Selector().numConflicts, 1);
}

}  // namespace
