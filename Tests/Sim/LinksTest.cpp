// What happens to an interface beside frames: it is unplugged, taken out and put back, renamed, and gets another
// address. Both sets of rules; only the rfc rules have the link watched.
#include <algorithm>
#include <gtest/gtest.h>

#include "Ostrel/Interface.h"

#include "Harness.h"

namespace {

using namespace sim;

constexpr MAC kNewMAC{0x02, 0, 0, 0, 0, 0x99};

// eth0 has had its first DISCOVER out, and no server answers.
class Links : public testing::TestWithParam<bool> {
protected:
    Lan lan{1, {{"rfc", GetParam()}}};

    void SetUp() override {
        ASSERT_TRUE(lan.Init());
        lan.RunFor(2s);
    }

    Ostrel_InterfaceObj& Interface() { return *lan.daemon.system.interfaceList; }

    [[nodiscard]] size_t Lines(std::string_view part) const {
        return static_cast<size_t>(std::count_if(lan.world.log.begin(), lan.world.log.end(), [part](const auto& line) {
            return line.text.find(part) != std::string::npos;
        }));
    }
    // How often the roles were told, of a link that is lost and back.
    [[nodiscard]] std::pair<size_t, size_t> Told() const {
        return {Lines("[eth0] The link is lost."), Lines("[eth0] The link is there.")};
    }
};
INSTANTIATE_TEST_SUITE_P(Rules, Links, testing::Values(false, true),
                         [](const auto& test) { return test.param ? "rfc" : "plain"; });

using Told2 = std::pair<size_t, size_t>;

TEST_P(Links, AreWatchedOnlyWhereTheRulesHaveIt) {
    const bool rfc = GetParam();
    EXPECT_EQ(lan.world.IsWatched(), rfc);
    lan.world.AddInterface("eth1", kOtherMAC, lan.wire);
    ASSERT_TRUE(lan.daemon.Initialize("eth1", {{"rfc", !rfc}}));
    EXPECT_TRUE(lan.world.IsWatched());
    ASSERT_TRUE(lan.daemon.Finalize("eth0"));
    EXPECT_EQ(lan.world.IsWatched(), !rfc);
    ASSERT_TRUE(lan.daemon.Finalize("eth1"));
    EXPECT_FALSE(lan.world.IsWatched());
}

TEST_P(Links, ThatBounceAreToldOnceAndThatFlapSeldom) {
    const size_t times = GetParam() ? 1 : 0;
    lan.world.SetLink("eth0", false);
    lan.RunFor(1s);
    EXPECT_EQ(Told(), Told2(times, 0));
    for (const bool up : {true, false, true, false, true}) {
        lan.world.SetLink("eth0", up);
        lan.RunFor(30ms);
    }
    EXPECT_EQ(Told(), Told2(times, 0));
    lan.RunFor(1s);
    EXPECT_EQ(Told(), Told2(times, times));

    lan.RunFor(20s);  // it is steady
    const Duration start = lan.world.Now();
    while (lan.world.Now() < start + 60s) {
        lan.world.SetLink("eth0", false);
        lan.RunFor(10ms);
        lan.world.SetLink("eth0", true);
        lan.RunFor(490ms);
    }
    EXPECT_LE(Told().second, 3 * times) << "half a second, for a minute";
    lan.RunFor(9s);
    EXPECT_EQ(Told().first, Told().second);
    EXPECT_TRUE(Interface().link.isRunning);
}

TEST_P(Links, ThatDoNotRunAtFirstAreWaitedFor) {
    ASSERT_TRUE(lan.daemon.Finalize("eth0"));
    lan.world.SetLink("eth0", false);
    lan.world.log.clear();
    ASSERT_TRUE(lan.daemon.Initialize("eth0", {{"rfc", GetParam()}}));
    EXPECT_EQ(Interface().link.isRunning, !GetParam());
    lan.world.SetLink("eth0", true);
    lan.RunFor(300ms);
    EXPECT_TRUE(Interface().link.isRunning);
}

TEST_P(Links, AnInterfaceThatIsPutBackGoesOn) {
    lan.world.RemoveInterface("eth0");
    lan.RunFor(10s);
    lan.world.rawSocketsAllowed = false;  // for a moment
    Station& anew = lan.world.AddInterface("eth0", kNewMAC, lan.wire);
    lan.RunFor(1s);
    lan.world.rawSocketsAllowed = true;
    lan.world.SetLink("eth0", true);
    lan.RunFor(1s);
    EXPECT_EQ(Lines("[eth0] The interface was put back, as number 2."), GetParam() ? 1U : 0U);

    ScriptedServer server(lan.wire);
    ASSERT_TRUE(lan.Init());
    lan.RunFor(20s);
    EXPECT_EQ(lan.Lease().address, GetParam() ? "192.0.2.10" : "0.0.0.0");
    const bool isHeard = std::any_of(lan.wire.sent.begin(), lan.wire.sent.end(),
                                     [&](const SentFrame& frame) { return frame.sender == &anew; });
    EXPECT_EQ(isHeard, GetParam());
}

TEST_P(Links, AServerHoldsItsPortOnTheInterfaceThatWasPutBack) {
    lan.world.AddInterface("usb0", kOtherMAC, lan.wire);
    ASSERT_TRUE(lan.daemon.Initialize("usb0", {{"rfc", GetParam()},
                                               {"mode", "server"},
                                               {"ipv4Address", "198.51.100.1"},
                                               {"ipv4Subnet", "255.255.255.0"},
                                               {"ipv4Router", "198.51.100.1"},
                                               {"ipv4RangeStart", "198.51.100.10"},
                                               {"maxLeases", 5}}));
    EXPECT_EQ(lan.world.IsPortHeld("usb0", 67), GetParam());
    lan.world.RemoveInterface("usb0");
    lan.RunFor(1s);
    lan.world.AddInterface("usb0", kOtherMAC, lan.wire);
    EXPECT_FALSE(lan.world.IsPortHeld("usb0", 67));
    lan.RunFor(1s);
    EXPECT_EQ(lan.world.IsPortHeld("usb0", 67), GetParam());
}

TEST_P(Links, ARenamedInterfaceGoesByItsNewName) {
    lan.world.AddInterface("eth1", kOtherMAC, lan.wire);
    ASSERT_TRUE(lan.daemon.Initialize("eth1", {{"rfc", GetParam()}}));
    // They change names.
    lan.world.RenameInterface("eth0", "spare");
    lan.world.RenameInterface("eth1", "eth0");
    lan.world.RenameInterface("spare", "eth1");
    lan.RunFor(1s);
    EXPECT_STREQ(Interface().ifname.data(), GetParam() ? "eth1" : "eth0");
    EXPECT_STREQ(Interface().next->ifname.data(), GetParam() ? "eth0" : "eth1");
    EXPECT_EQ(Told(), Told2(0, 0));
    if (!GetParam()) return;
    EXPECT_NE(lan.world.posts.back().payload.find(R"("interface":"eth0")"), std::string::npos);

    // One cannot have a name that an interface waits for.
    lan.world.RemoveInterface("eth0");
    lan.world.RenameInterface("eth1", "eth0");
    lan.RunFor(1s);
    EXPECT_STREQ(Interface().ifname.data(), "eth1");
    EXPECT_FALSE(Interface().link.isRunning);
    ASSERT_TRUE(lan.daemon.Finalize("eth0"));
    lan.world.SetLink("eth0", true);
    lan.RunFor(1s);
    EXPECT_STREQ(Interface().ifname.data(), "eth0");
    EXPECT_TRUE(Interface().link.isRunning);
}

}  // namespace
