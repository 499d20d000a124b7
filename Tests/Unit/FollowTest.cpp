// What ostrelctl follows: when an address counts, what changed in words, and which domain names are let through.
#include <cstdlib>
#include <gtest/gtest.h>

#include "Ostrel/OstrelJsonUtils.h"

#include "ostrelctl/Changes.h"
#include "ostrelctl/Resolver.h"

namespace ostrelctl {

namespace {

constexpr int64_t kNow = 1800000000;  // wall clock

Ostrel_IPv4 Address(const std::string& text) {
    Ostrel_IPv4 address = kAnyIPv4;
    EXPECT_TRUE(OstrelJsonUtilsIPv4FromText(text, &address)) << text;
    return address;
}

// One interface, told of `at` seconds after the beginning.
struct Story {
    Holding holding;

    void Told(int at, bool posted, const std::string& address, std::optional<LeaseTimes> times,
              const std::string& mask = "255.255.255.0") {
        ClientLease said;
        said.address = Address(address);
        said.mask = Address(mask);
        said.times = times;
        Hear(holding, said, {posted, kNow + at, (kNow + at) * 1000, TimePoint(std::chrono::seconds(100 + at))});
    }
    void Post(int at, const std::string& address, int age = 2) { Told(at, true, address, Lease(at, age)); }
    void Reply(int at, const std::string& address, int age) { Told(at, false, address, Lease(at, age)); }
    void LinkLocal(int at, const std::string& address) { Told(at, false, address, std::nullopt, "255.255.0.0"); }
    void Nothing(int at) { Told(at, false, "0.0.0.0", std::nullopt, "0.0.0.0"); }

    [[nodiscard]] std::string Held() const { return holding.lease ? AddressText(holding.lease->address) : "-"; }

    static LeaseTimes Lease(int at, int age) { return {kNow + at - age, kNow + at - age + 60}; }
};

}  // namespace

TEST(Follow, AnAddressCountsOnceItsCheckIsOver) {
    Story story;
    story.Reply(0, "192.0.2.5", 2);
    EXPECT_EQ(story.Held(), "-");  // may still be under its ARP check
    story.Post(1, "192.0.2.5");
    EXPECT_EQ(story.Held(), "192.0.2.5");
    story.Reply(2, "192.0.2.5", 0);  // renewed, and checked again
    EXPECT_EQ(story.Held(), "192.0.2.5");
    EXPECT_EQ(story.holding.ends, TimePoint(std::chrono::seconds(100 + 2 + 60)));
    story.Reply(4, "192.0.2.6", 1);  // another one, so this one is lost
    EXPECT_EQ(story.Held(), "-");
    story.Reply(6, "192.0.2.6", 3);
    EXPECT_EQ(story.Held(), "192.0.2.6");
    story.Nothing(8);
    EXPECT_EQ(story.Held(), "-");
    story.Post(9, "192.0.2.6", 61);
    EXPECT_EQ(story.Held(), "-");  // has ended
    for (const char* const useless : {"127.0.0.1", "0.0.0.7", "224.0.0.1", "255.255.255.255"}) {
        story.Post(10, useless);
        EXPECT_EQ(story.Held(), "-") << useless;
    }
    story.Told(11, false, "192.0.2.7", LeaseTimes{kNow - 1000, kForever}, "0.0.0.0");
    EXPECT_EQ(story.Held(), "-");  // manual, and no server has confirmed it
    story.Told(12, false, "192.0.2.7", LeaseTimes{kNow - 1000, kForever});
    EXPECT_EQ(story.Held(), "192.0.2.7");
    EXPECT_EQ(story.holding.ends, kNever);
}

TEST(Follow, ALinkLocalAddressCountsWhenSeenLongEnoughAndStaysUntilALeaseCounts) {
    Story story;
    story.LinkLocal(0, "169.254.1.1");
    story.LinkLocal(5, "169.254.1.1");
    story.LinkLocal(6, "169.254.2.2");  // a conflict
    story.LinkLocal(11, "169.254.2.2");
    EXPECT_EQ(story.Held(), "-");
    story.LinkLocal(12, "169.254.2.2");
    EXPECT_EQ(story.Held(), "169.254.2.2");
    story.Reply(14, "192.0.2.5", 1);
    EXPECT_EQ(story.Held(), "169.254.2.2");
    story.Post(15, "192.0.2.5");
    EXPECT_EQ(story.Held(), "192.0.2.5");
    story.LinkLocal(17, "169.254.2.2");
    EXPECT_EQ(story.Held(), "-");
    story.LinkLocal(23, "169.254.2.2");
    EXPECT_EQ(story.Held(), "169.254.2.2");
    story.LinkLocal(25, "169.254.3.3");  // lost to another host
    EXPECT_EQ(story.Held(), "-");
}

TEST(Follow, ARestartOfTheDaemonLeavesTimeForANewLease) {
    const auto at = [](int seconds) { return TimePoint(std::chrono::seconds(100 + seconds)); };
    Story story;
    story.Post(0, "192.0.2.5");
    Forget(story.holding, at(20));
    story.Nothing(12);
    story.Reply(13, "192.0.2.5", 0);
    EXPECT_EQ(story.Held(), "192.0.2.5");
    story.Nothing(20);
    EXPECT_EQ(story.Held(), "-");
    story.Post(21, "192.0.2.5");
    GiveUpEnded(story.holding, at(78));
    EXPECT_EQ(story.Held(), "192.0.2.5");
    GiveUpEnded(story.holding, at(79));
    EXPECT_EQ(story.Held(), "-");
}

TEST(Follow, ALostLeaseIsKeptForItsGraceOrUntilAnotherCounts) {
    const auto at = [](int seconds) { return TimePoint(std::chrono::seconds(100 + seconds)); };
    Story story{.holding = {.grace = std::chrono::seconds(10)}};
    story.Post(0, "192.0.2.5");
    story.Nothing(2);
    story.LinkLocal(3, "169.254.1.1");
    story.LinkLocal(9, "169.254.1.1");  // counts, and yields to the lease
    EXPECT_EQ(story.Held(), "192.0.2.5");
    EXPECT_EQ(NextEnd(story.holding), at(12));
    story.LinkLocal(12, "169.254.1.1");
    EXPECT_EQ(story.Held(), "169.254.1.1");
    story.Nothing(13);  // no lease
    EXPECT_EQ(story.Held(), "-");

    story.Post(20, "192.0.2.5");
    story.Reply(22, "192.0.2.6", 1);
    EXPECT_EQ(story.Held(), "192.0.2.5");
    story.Post(23, "192.0.2.6");
    EXPECT_EQ(story.Held(), "192.0.2.6");
    EXPECT_EQ(NextEnd(story.holding), at(23 - 2 + 60));
    story.Nothing(76);
    EXPECT_EQ(NextEnd(story.holding), at(23 - 2 + 60));  // no lease outlives its end
    story.Nothing(81);
    EXPECT_EQ(story.Held(), "-");
}

TEST(Follow, TellsWhatChangedAndNothingElse) {
    const auto words = [](const std::vector<Change>& changes) {
        std::string text;
        for (const Change& change : changes)
            text += change.sign + (' ' + change.words.substr(0, change.words.find(" until"))) + '\n';
        return text;
    };
    Story story;
    Holding before = story.holding;
    story.Post(0, "192.0.2.5");
    story.holding.lease->domainName = "\033[2J";
    EXPECT_EQ(words(ChangesOf(before, story.holding)), "+ address 192.0.2.5/24, domain ?[2J,\n");
    before = story.holding;
    story.holding.ends += std::chrono::seconds(1);  // told in whole seconds
    EXPECT_EQ(words(ChangesOf(before, story.holding)), "");
    story.holding.ends += std::chrono::seconds(30);
    EXPECT_EQ(words(ChangesOf(before, story.holding)), "  lease renewed\n");
    story.holding = before;
    story.holding.lease->routers = {Address("192.0.2.1"), Address("192.0.2.2")};
    story.holding.lease->domainName.clear();
    EXPECT_EQ(words(ChangesOf(before, story.holding)), "  router 192.0.2.1, 192.0.2.2, domain ?[2J -> none\n");
    story.Nothing(2);
    EXPECT_EQ(words(ChangesOf(before, story.holding)), "- address 192.0.2.5/24 lost\n");

    const auto line = [](const char* address, const char* mac, int ends) {
        ServerLease lease;
        lease.address = Address(address);
        lease.mac = mac;
        return TableLine{lease, TimePoint(std::chrono::seconds(ends))};
    };
    EXPECT_EQ(
        words(ChangesOf({line("9.0.0.1", "a", 9), line("9.0.0.2", "b", 9), line("9.0.0.9", "c", 9)},
                        {line("9.0.0.2", "b", 90), line("9.0.0.9", "d", 9), line("10.0.0.1", "e", 9)})),
        "- 9.0.0.1 a\n  9.0.0.2 b, renewed for ever\n- 9.0.0.9 c\n+ 9.0.0.9 d, for ever\n+ 10.0.0.1 e, for ever\n");
}

TEST(Follow, LetsNothingThroughAsADomainNameThatAProgramCouldStumbleOver) {
    std::string longest;
    for (int label = 0; label < 3; ++label) longest.append(63, 'a').append(".");
    longest.append(61, 'a');
    for (const std::string& good : {longest, std::string("lab.example"), std::string("x"), std::string("_t.a-b.c.")})
        EXPECT_TRUE(IsDomainName(good)) << good;
    const char* const bad[] = {"",      ".",  "a..b",      ".a",
                               "a b",   "-a", "caf\u00e9", "a\nnameserver 203.0.113.9",
                               "$(id)", "a/", "*.example", "a\\032b"};
    for (const char* const name : bad) EXPECT_FALSE(IsDomainName(name)) << name;
    EXPECT_FALSE(IsDomainName(longest + "a"));
    EXPECT_FALSE(IsDomainName(std::string(64, 'a')));
}

}  // namespace ostrelctl
