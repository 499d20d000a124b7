// By the rfc rules: other hosts that have the client's address, links that come and go, and a device that sleeps.

#include "ClientScene.h"

namespace sim {
namespace {

constexpr IPv4 kOurs = 0xC000020A;  // 192.0.2.10

// Which ARP frames of whom count, while the address is checked and later.
TEST(ClientConflict, IsAnyFrameOfAnotherHostThatHasTheAddressOrProbesForIt) {
    const struct {
        const char* what;
        ARPFrame frame;
        bool checking, holding;  // whether it is a conflict then
    } cases[] = {
        {"reply", {kClientMAC, 2, kOtherMAC, kOurs, kClientMAC, 0}, true, true},
        {"announcement", {kEveryone, 1, kOtherMAC, kOurs, {}, kOurs}, true, true},
        {"question to another", {kEveryone, 1, kOtherMAC, kOurs, {}, kOurs + 1}, true, true},
        {"probe", {kEveryone, 1, kOtherMAC, 0, {}, kOurs}, true, false},
        {"probe for another", {kEveryone, 1, kOtherMAC, 0, {}, kOurs + 1}, false, false},
        {"question for ours", {kEveryone, 1, kOtherMAC, kOurs + 1, {}, kOurs}, false, false},
        {"our own", {kEveryone, 1, kClientMAC, kOurs, {}, kOurs}, false, false},
        {"of another interface of ours", {kClientMAC, 2, {2, 0, 0, 0, 0, 5}, kOurs, kClientMAC, 0}, false, false},
    };
    for (const auto& [what, frame, checking, holding] : cases) {
        for (const bool isHeld : {false, true}) {
            SCOPED_TRACE(std::string(what) + (isHeld ? ", held" : ", under the check"));
            RFCLan lan;
            ScriptedServer server(lan.wire);
            const ArpHost stranger(lan.wire, kOtherMAC, kOurs + 190);
            lan.world.ownAddresses = {{2, 0, 0, 0, 0, 5}};
            lan.Init();
            lan.RunFor(isHeld ? 5s : Duration(100ms));
            for (int i = 0; i < 2; ++i) {  // a lease that is held is defended once
                lan.wire.Send(stranger, WriteARP(frame));
                lan.RunFor(1500ms);
            }
            const bool isConflict = isHeld ? holding : checking;
            EXPECT_EQ(lan.Sent(kDecline).size(), isConflict ? 1U : 0U);
            EXPECT_EQ(lan.State(), isConflict ? "INIT" : "BOUND");
        }
    }
}

// At once, or as soon as the second has room for one more frame.
TEST(ClientConflict, IsDeclinedByTheBookAndAnotherAddressAskedForAfterTenSeconds) {
    for (const bool isFull : {false, true}) {
        SCOPED_TRACE(isFull);
        RFCLan lan;
        ScriptedServer server(lan.wire);
        const ArpHost stranger(lan.wire, kOtherMAC, kOurs + 190);
        lan.Init();
        lan.RunFor(isFull ? 400ms : 1ms);  // DISCOVER, REQUEST, one probe or two
        lan.wire.Send(stranger, WriteARP({kClientMAC, 2, kOtherMAC, kOurs, kClientMAC, 0}));
        lan.RunFor(1ms);
        EXPECT_EQ(lan.State(), "INIT");
        EXPECT_EQ(lan.Sent(kDecline).empty(), isFull);
        lan.RunFor(20s);
        ASSERT_EQ(lan.Sent(kDecline).size(), 1U);
        const DHCPMessage decline = lan.Sent(kDecline)[0];
        EXPECT_LT(decline.time, 1100ms);
        EXPECT_EQ(decline.Number(50), kOurs);
        EXPECT_EQ(decline.Number(54), server.script.address);
        EXPECT_EQ(decline.ciaddr | decline.source, 0U);
        EXPECT_EQ(decline.destination, kEveryoneIPv4);
        EXPECT_EQ(decline.ethernetDestination, kEveryone);
        EXPECT_EQ(*decline.Find(61), Bytes("01 001122334455"));
        EXPECT_EQ(decline.Find(55), nullptr);
        ASSERT_EQ(lan.Sent(kDiscover).size(), 2U);
        const Duration pause = lan.Sent(kDiscover)[1].time - (isFull ? 400ms : 1ms);
        EXPECT_TRUE(pause >= 10s && pause <= 11s) << pause / 1ms;
        EXPECT_EQ(lan.Lease().address, "192.0.2.11");
    }
}

TEST(ClientConflict, IsMetByOneDefenceInTenSeconds) {
    BoundRFCLan lan;
    const ArpHost stranger(lan.wire, kOtherMAC, kOurs + 190);
    const auto claim = [&] {
        const size_t before = lan.SentARP().size();
        lan.wire.Send(stranger, WriteARP({kEveryone, 1, kOtherMAC, kOurs, {}, kOurs}));
        lan.RunFor(1ms);
        return lan.SentARP().size() - before;
    };
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(claim(), 1U);
        EXPECT_EQ(lan.SentARP().back().sender, kOurs);
        lan.RunFor(10s);
        EXPECT_TRUE(lan.IsHeld());
    }
    EXPECT_EQ(claim(), 1U);
    lan.RunFor(9s);
    EXPECT_EQ(claim(), 0U);
    EXPECT_FALSE(lan.IsHeld());
    EXPECT_EQ(lan.Sent(kDecline).size(), 1U);
}

TEST(ClientConflict, NeverCostsAStaticAddressWhichIsDefended) {
    Lan lan(1, {{"rfc", true}, {"ipv4Config", "static"}, {"ipv4Address", "192.0.2.10"}, {"ipv4Subnet", "255.0.0.0"}});
    ArpHost squatter(lan.wire, kOtherMAC, kOurs);
    for (int i = 0; i < 600; ++i) {
        squatter.Send(2, kClientMAC, 0);
        lan.RunFor(100ms);
    }
    EXPECT_EQ(lan.SentARP().size(), 6U);
    EXPECT_EQ(lan.FramesSent(), 6U);
    EXPECT_EQ(lan.world.posts.size(), 1U);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
}

TEST(ClientLink, IsWaitedForAndTheLeaseThenConfirmed) {
    for (const char* const answer : {"ack", "nak", "none"}) {
        SCOPED_TRACE(answer);
        BoundRFCLan lan;
        lan.world.SetLink("eth0", false);
        lan.RunFor(1900s);  // T1 passes
        EXPECT_TRUE(lan.IsHeld());
        const size_t before = lan.FramesSent();
        const bool isNone = answer == std::string_view("none");
        lan.server.script.silent = isNone;
        if (answer == std::string_view("nak")) {
            lan.server.script.tamper = [](DHCPMessage& message) {
                if (message.Type() == kAck) message.options[0].second[0] = kNak;
            };
        }
        lan.world.SetLink("eth0", true);
        lan.RunFor(1s);
        EXPECT_GT(lan.FramesSent(), before);
        const DHCPMessage request = lan.Sent(kRequest).at(1);
        EXPECT_EQ(request.Number(50), kOurs);
        EXPECT_EQ(request.Find(54), nullptr);
        EXPECT_EQ(request.ciaddr, 0U);
        EXPECT_EQ(request.destination, kEveryoneIPv4);
        lan.RunFor(1s);
        EXPECT_EQ(lan.IsHeld(), answer != std::string_view("nak"));
        EXPECT_EQ(lan.world.posts.size(), answer == std::string_view("ack") ? 2U : 1U);
        if (!isNone) continue;
        lan.RunFor(3590s - lan.world.Now());
        EXPECT_TRUE(lan.IsHeld()) << "nobody has refused it";
        lan.RunFor(11s);
        EXPECT_FALSE(lan.IsHeld()) << "and nobody extended it";
    }
}

TEST(ClientLink, LeavesTheEndOfTheLeaseAndStartsAfreshWithoutOne) {
    BoundRFCLan lan({.leaseTime = 100});
    lan.world.SetLink("eth0", false);
    lan.RunFor(99s - lan.world.Now());
    EXPECT_TRUE(lan.IsHeld());
    const size_t before = lan.FramesSent();
    lan.RunFor(600s);
    EXPECT_FALSE(lan.IsHeld());
    EXPECT_EQ(lan.FramesSent(), before);
    lan.Init();  // a caller who does not know
    lan.RunFor(5s);
    EXPECT_EQ(lan.FramesSent(), before);
    lan.world.SetLink("eth0", true);
    lan.RunFor(1s);
    EXPECT_EQ(lan.Sent(kDiscover).size(), 2U);
    lan.RunFor(1s);
    EXPECT_TRUE(lan.IsHeld());

    lan.Act("halt");
    lan.world.SetLink("eth0", false);
    lan.RunFor(1s);
    lan.world.SetLink("eth0", true);
    lan.RunFor(60s);
    EXPECT_EQ(lan.State(), "INIT-REBOOT") << "who is halted stays so";
    EXPECT_EQ(lan.Sent(kDiscover).size(), 2U);
}

TEST(ClientLink, BringsAnotherEthernetAddressIntoEveryMessage) {
    BoundRFCLan lan;
    constexpr MAC kNewMAC{2, 0, 0, 0, 0, 0x99};
    lan.world.ChangeMAC("eth0", kNewMAC);
    lan.RunFor(20s);
    const DHCPMessage request = lan.Sent(kRequest).at(1);
    EXPECT_EQ(request.ethernetSource, kNewMAC);
    EXPECT_EQ(request.chaddr, kNewMAC);
    EXPECT_EQ(*request.Find(61), Bytes("01 020000000099"));
    EXPECT_TRUE(lan.IsHeld());
    EXPECT_EQ(lan.Lease().address, "192.0.2.11") << "to the server it is another host";
}

TEST(ClientSleep, EndsWithAConfirmationAndT1CountsThroughIt) {
    BoundRFCLan lan;
    lan.world.Suspend(600s);
    lan.RunFor(601s);
    ASSERT_EQ(lan.Sent(kRequest).size(), 2U);
    EXPECT_EQ(lan.Sent(kRequest)[1].Number(50), kOurs);
    EXPECT_TRUE(lan.IsHeld());
    lan.RunFor(5s);
    const Duration slept = lan.world.Now();
    lan.world.Suspend(1h);
    lan.RunFor(1h);
    ASSERT_GE(lan.Sent(kRequest).size(), 3U);
    const Duration woken = lan.Sent(kRequest)[2].time - slept;
    EXPECT_TRUE(woken > 1700s && woken < 1801s) << woken / 1s << ": T1 wakes the device";
    EXPECT_TRUE(lan.IsHeld());
}

}  // namespace
}  // namespace sim
