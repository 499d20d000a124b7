// The link-local selector by both sets of rules: two hosts that want one address, neighbours that contest whatever it
// chooses, and an address that is only a fallback. What the plain rules do to the second is in LinkLocalTest.cpp.

#include <algorithm>
#include <endian.h>
#include <gtest/gtest.h>

#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Publish.h"

#include "Harness.h"

namespace {

using namespace sim;

constexpr MAC kRival{2, 0, 0, 0, 0, 0x78};

// A client that is never started, so that all ARP on the wire is the selectors'.
struct Scene {
    Lan lan;
    ArpHost rival{lan.wire, kRival, 0};

    explicit Scene(bool rfc, uint64_t seed = 1) : lan(seed, {{"ipv4LinkLocal", true}, {"rfc", rfc}}) {}

    Ostrel_InterfaceObj& Interface() { return *lan.daemon.system.interfaceList; }
    Ostrel_LinkLocalObj& Selector() { return *Interface().linkLocal; }
    IPv4 Address() { return be32toh(Selector().IPv4Address); }
    static IPv4 ShownOf(const Ostrel_InterfaceObj& iface) {
        return be32toh(Ostrel_LinkLocalShownAddress(iface.linkLocal));
    }
    IPv4 Shown() { return ShownOf(Interface()); }
    // Past the bus, which would start the client as well.
    void Act(const char* action) { EXPECT_EQ(Ostrel_LinkLocalAction(&Interface(), action), kNoErr); }

    void Say(uint16_t operation, IPv4 sender, IPv4 target, const MAC& mac = kRival) {
        rival.segment.Send(rival, WriteARP({kEveryone, operation, mac, sender, {}, target}));
        lan.RunFor(1ms);
    }
    [[nodiscard]] std::vector<Duration> SentSince(Duration from) const {
        std::vector<Duration> moments;
        for (const SentFrame& frame : lan.wire.sent)
            if (frame.sender == &lan.eth0 && frame.time >= from && ReadARP(frame.bytes)) moments.push_back(frame.time);
        return moments;
    }
    [[nodiscard]] size_t Most(Duration window) const {
        const std::vector<Duration> sent = SentSince(0s);
        size_t most = 0;
        for (size_t first = 0, last = 0; last < sent.size(); ++last) {
            while (sent[last] - sent[first] >= window) ++first;
            most = std::max(most, last - first + 1);
        }
        return most;
    }
};

TEST(LinkLocalRules, FollowTheTimetable) {
    for (uint64_t seed = 1; seed <= 50; ++seed) {
        Scene scene(true, seed);
        scene.Act("init");
        scene.lan.RunFor(30s);
        const std::vector<Duration> at = scene.SentSince(0s);
        ASSERT_EQ(at.size(), 5U);
        EXPECT_LE(at[0], 1s);
        EXPECT_GE(std::min(at[1] - at[0], at[2] - at[1]), 1s);
        EXPECT_LE(std::max(at[1] - at[0], at[2] - at[1]), 2s);
        EXPECT_EQ(at[3] - at[2], 2s);
        EXPECT_EQ(at[4] - at[3], 2s);
        EXPECT_TRUE(scene.lan.Lease().Says(R"("ipv4Subnet":"255.255.0.0")"));
        // It is posted when it is announced, and the same after a restart.
        EXPECT_EQ(scene.lan.world.posts.back().time, at[3]);
        EXPECT_EQ(LeaseReport::From(scene.lan.world.posts.back().payload).address, ToText(scene.Address()));
        const IPv4 before = scene.Address();
        scene.Act("renew");
        scene.lan.RunFor(1500ms);
        EXPECT_EQ(scene.Address(), before);
        EXPECT_EQ(scene.Shown(), 0U) << "a candidate";
        EXPECT_EQ(LeaseReport::From(scene.lan.world.posts.back().payload).address, "0.0.0.0");
    }
}

TEST(LinkLocalRules, SayWhichFramesAreAConflict) {
    enum Moment : uint8_t { Probing, Held, Halted };
    constexpr IPv4 kOurs = 0;  // stands for the address that was chosen
    const struct {
        const char* what;
        Moment moment;
        uint16_t operation;
        bool fromAddress;  // or 0.0.0.0
        bool toAddress;
        MAC mac;
        bool plain;  // whether the address is lost
        bool rfc;
    } cases[] = {
        {"another's probe", Probing, 1, false, true, kRival, false, true},
        {"another's probe", Held, 1, false, true, kRival, false, false},
        {"a probe of an own interface", Probing, 1, false, true, kOtherMAC, false, false},
        {"a reply to nobody", Probing, 2, false, true, kRival, false, false},
        {"an announcement", Probing, 1, true, true, kRival, true, true},
        {"an announcement", Held, 1, true, true, kRival, true, false},
        {"an announcement", Halted, 1, true, true, kRival, true, false},
        {"a request for others", Probing, 1, true, false, kRival, true, true},
        {"an own interface's request", Probing, 1, true, false, kOtherMAC, true, false},
        {"its own, reflected", Probing, 1, true, true, kClientMAC, false, false},
    };
    for (const bool rfc : {false, true}) {
        for (const auto& one : cases) {
            Scene scene(rfc);
            scene.lan.world.ownAddresses = {kOtherMAC};
            scene.Act("init");
            scene.lan.RunFor(one.moment == Probing ? Duration(1500ms) : Duration(20s));
            if (one.moment == Halted) scene.Act("halt");
            const IPv4 address = rfc && one.moment == Halted ? kOurs : scene.Address();
            scene.Say(one.operation, one.fromAddress ? address : 0, one.toAddress ? address : 1, one.mac);
            scene.lan.RunFor(20s);
            EXPECT_EQ(scene.Selector().numConflicts, (rfc ? one.rfc : one.plain) ? 1 : 0)
                << one.what << (rfc ? " rfc " : " plain ") << one.moment;
            EXPECT_EQ(scene.Address() != address, rfc ? one.rfc : one.plain) << one.what << (rfc ? " rfc" : " plain");
        }
    }
}

TEST(LinkLocalRules, AHeldAddressIsDefendedOnceInTenSeconds) {
    Scene scene(true);
    scene.Act("init");
    scene.lan.RunFor(20s);
    const IPv4 held = scene.Address();
    for (int i = 0; i < 3; ++i) {  // far enough apart
        const size_t sent = scene.SentSince(0s).size();
        scene.Say(2, held, held);
        EXPECT_EQ(scene.SentSince(0s).size(), sent + 1);
        EXPECT_EQ(scene.Selector().state, kLinkLocalStateDefend);
        scene.lan.RunFor(11s);
        EXPECT_EQ(scene.Shown(), held);
    }
    scene.Say(2, held, held);
    scene.lan.RunFor(9s);
    scene.Say(2, held, held);
    EXPECT_EQ(scene.Shown(), 0U);
    scene.lan.RunFor(20s);
    EXPECT_NE(scene.Shown(), held);
    EXPECT_NE(scene.Shown(), 0U);
    EXPECT_EQ(scene.Selector().numConflicts, 1);
    scene.lan.RunFor(60s);
    EXPECT_EQ(scene.Selector().numConflicts, 0) << "held for a minute";
}

// Two hosts that have chosen one address, and probe for it within two seconds of each other. However their probes fall,
// the daemon never says of both that they have it.
TEST(LinkLocalRules, TwoHostsNeverShowOneAddress) {
    for (const bool rfc : {false, true}) {
        int both = 0;
        for (uint64_t seed = 1; seed <= 1000; ++seed) {
            Scene scene(rfc, seed);
            scene.lan.world.interfacesAreHosts = true;
            scene.lan.world.keepLog = false;
            scene.lan.world.AddInterface("eth1", kOtherMAC, scene.lan.wire);
            ASSERT_TRUE(scene.lan.daemon.Initialize("eth1", {{"ipv4LinkLocal", true}, {"rfc", rfc}}));
            Ostrel_InterfaceObj* other = scene.Interface().next;
            scene.Act("init");
            scene.lan.RunFor(std::chrono::milliseconds(seed * 2));
            ASSERT_EQ(Ostrel_LinkLocalAction(other, "init"), kNoErr);
            scene.lan.RunFor(0s);
            other->linkLocal->IPv4Address = scene.Selector().IPv4Address;
            bool isShared = false;
            for (int step = 0; step < 3000; ++step) {
                scene.lan.RunFor(10ms);
                isShared |= scene.Shown() != 0 && scene.Shown() == Scene::ShownOf(*other);
            }
            both += isShared ? 1 : 0;
            EXPECT_NE(scene.Shown(), 0U) << seed;
        }
        EXPECT_EQ(both > 0, !rfc);
        std::printf("two hosts with one link-local address, %s rules: %d of 1000 seeds\n", rfc ? "rfc" : "plain", both);
    }
}

// A neighbour that owns every address, and one that waits until it can do most harm.
TEST(LinkLocalRules, NoNeighbourMakesItAStorm) {
    for (uint64_t seed = 1; seed <= 60; ++seed) {
        Scene scene(true, seed);
        scene.lan.world.keepLog = false;
        scene.Act("init");
        const auto patience = std::chrono::milliseconds(seed * 150);  // up to nine seconds
        while (scene.lan.world.Now() < 1h) {
            if (seed == 1) {
                const size_t sent = scene.SentSince(0s).size();
                while (scene.SentSince(0s).size() == sent && scene.lan.world.Now() < 1h) scene.lan.RunFor(20ms);
            } else {
                scene.lan.RunFor(patience);
            }
            if (scene.lan.world.random() % 4 != 0) scene.Say(2, scene.Address(), scene.Address());
            if (scene.lan.world.random() % 8 == 0) scene.Act("init");
        }
        EXPECT_LE(scene.Most(1s), 4U) << seed;
        EXPECT_LE(scene.Most(60s), 30U) << seed;
        scene.lan.RunFor(5min);
        EXPECT_NE(scene.Shown(), 0U) << "it is left alone, " << seed;
    }
}

TEST(LinkLocalRules, AFallbackIsSelectedOnlyWithoutALease) {
    for (const bool rfc : {false, true}) {
        Scene scene(rfc);
        scene.Selector().isFallback = true;
        scene.Act("init");
        scene.lan.RunFor(4900ms);
        EXPECT_EQ(scene.SentSince(0s).size(), 0U);
        Ostrel_InterfaceLeaseChanged(&scene.Interface(), true);
        scene.lan.RunFor(60s);
        scene.Act("renew");
        scene.lan.RunFor(60s);
        EXPECT_EQ(scene.SentSince(0s).size(), 0U);

        const Duration lost = scene.lan.world.Now();
        Ostrel_InterfaceLeaseChanged(&scene.Interface(), false);
        scene.lan.RunFor(4900ms);
        EXPECT_EQ(scene.SentSince(lost).size(), 0U);
        scene.lan.RunFor(15s);
        EXPECT_EQ(scene.SentSince(lost).size(), 5U);
        EXPECT_NE(scene.Shown(), 0U);

        Ostrel_InterfaceLeaseChanged(&scene.Interface(), true);
        EXPECT_EQ(scene.Shown(), 0U);
        Ostrel_InterfaceLeaseChanged(&scene.Interface(), false);
        scene.Act("halt");
        scene.lan.RunFor(60s);
        EXPECT_EQ(scene.SentSince(lost).size(), 5U);
    }
}

// A cable that is pulled out and put into another network; a device that wakes up in another.
TEST(LinkLocalRules, AnAddressIsProbedAnewWhereTheNetworkMayBeAnother) {
    Scene scene(true);
    scene.Act("init");
    scene.lan.RunFor(20s);
    const IPv4 held = scene.Address();
    scene.lan.world.SetLink("eth0", false);
    scene.lan.RunFor(60s);
    EXPECT_EQ(scene.Shown(), held);
    const Duration back = scene.lan.world.Now();
    scene.lan.world.SetLink("eth0", true);
    scene.lan.RunFor(1s);
    EXPECT_EQ(scene.Shown(), 0U);
    scene.lan.RunFor(20s);
    EXPECT_EQ(scene.SentSince(back).size(), 5U);
    EXPECT_EQ(scene.Shown(), held);

    scene.lan.world.Suspend(1h);
    scene.lan.RunFor(1h + 20s);
    EXPECT_EQ(scene.SentSince(back).size(), 10U);
    EXPECT_EQ(scene.Shown(), held);
    scene.Act("halt");
    EXPECT_EQ(scene.Shown(), 0U);
    scene.lan.world.SetLink("eth0", false);
    scene.lan.RunFor(1s);
    scene.lan.world.SetLink("eth0", true);
    scene.lan.RunFor(20s);
    EXPECT_EQ(scene.SentSince(back).size(), 10U);
}

}  // namespace
