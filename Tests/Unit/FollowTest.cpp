// What ostrelctl follows: when an address may be used, what happened in words, and which domain names are let through.
#include <cstdlib>
#include <gtest/gtest.h>

#include "Ostrel/OstrelJsonUtils.h"

#include "ostrelctl/Changes.h"
#include "ostrelctl/Happening.h"
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

    static TimePoint At(int seconds) { return TimePoint(std::chrono::seconds(100 + seconds)); }
    static Hearing Heard(int at) { return {(kNow + at) * 1000, At(at)}; }

    // What the daemon says, as it says it: the members of "client" and "linkLocal", or none.
    void Told(int at, const std::string& client, const std::string& linkLocal = "null") {
        valdo::JDomParser parser;
        ASSERT_TRUE(parser.parse(R"({"interfaceList":[{"interface":"eth0","managed":true,"client":)" + client +
                                     R"(,"linkLocal":)" + linkLocal + "}]}",
                                 valdo::JSchemaFragment("{}")));
        const std::vector<InterfaceState> states = ReadStates(parser.getDom());
        ASSERT_EQ(states.size(), 1u);
        Hear(holding, states.front(), Heard(at));
    }
    void Bound(int at, const std::string& address, int64_t ends, bool isHeld = true, const char* reason = "ack") {
        Told(at, R"({"state":"BOUND","since":5,"reason":")" + std::string(reason) + R"(","ipv4Address":")" + address +
                     R"(","held":)" + (isHeld ? "true" : "false") + R"(,"expires":)" + std::to_string(kNow + ends) +
                     "}");
    }
    void Details(int at, const std::string& address, const std::string& mask = "255.255.255.0") {
        ClientLease said;
        said.address = Address(address);
        said.mask = Address(mask);
        holding.detailsAreDue = false;
        Hear(holding, said, Heard(at));
    }
    [[nodiscard]] std::string Held() const { return holding.lease ? AddressText(holding.lease->address) : "-"; }
};

constexpr char kPicked[] = R"({"state":"HELD","ipv4Address":"169.254.1.1","held":true})";
constexpr char kPicking[] = R"({"state":"PROBE","ipv4Address":"169.254.1.1","held":false})";
constexpr char kSearching[] = R"({"state":"SELECTING","held":false,"ipv4Address":null,"reason":"action"})";

}  // namespace

TEST(Follow, AnAddressIsUsedExactlyWhileItIsHeldAndItsDetailsAreKnown) {
    Story story;
    story.Bound(0, "192.0.2.5", 60, false);  // being checked
    EXPECT_FALSE(story.holding.detailsAreDue);
    story.Bound(2, "192.0.2.5", 60);
    EXPECT_TRUE(story.holding.detailsAreDue);
    EXPECT_EQ(story.Held(), "-");
    story.Details(2, "192.0.2.4");  // asked for too early, or too late
    EXPECT_EQ(story.Held(), "-");
    story.Details(2, "192.0.2.5", "0.0.0.0");
    EXPECT_EQ(story.Held(), "-");
    story.Details(2, "192.0.2.5");
    EXPECT_EQ(story.Held(), "192.0.2.5");
    story.Bound(30, "192.0.2.5", 90);
    EXPECT_EQ(story.holding.ends, Story::At(90));  // at once, and the details may have changed
    EXPECT_TRUE(story.holding.detailsAreDue);
    story.Bound(40, "192.0.2.5", 90, false, "conflict");
    EXPECT_EQ(story.Held(), "-");
    story.Bound(50, "192.0.2.6", 90);  // whose details are not known
    EXPECT_EQ(story.Held(), "-");
    story.Details(50, "192.0.2.6");
    EXPECT_EQ(story.Held(), "192.0.2.6");
    story.Bound(60, "192.0.2.7", 90);
    EXPECT_EQ(story.Held(), "-");
    story.Details(60, "192.0.2.7");
    GiveUpEnded(story.holding, Story::At(89));
    EXPECT_EQ(story.Held(), "192.0.2.7");
    GiveUpEnded(story.holding, Story::At(90));
    EXPECT_EQ(story.Held(), "-");
    for (const char* const useless : {"127.0.0.1", "0.0.0.7", "224.0.0.1", "255.255.255.255"}) {
        story.Bound(91, useless, 200);
        story.Details(91, useless);
        EXPECT_EQ(story.Held(), "-") << useless;
    }
    story.Told(92, R"({"state":"STATIC","ipv4Address":"192.0.2.8","held":true,"expires":null})");
    story.Details(92, "192.0.2.8");
    EXPECT_EQ(story.holding.ends, kNever);
    Hear(story.holding, InterfaceState{.interface = "eth0"}, Story::Heard(93));
    EXPECT_EQ(story.Held(), "-");
}

TEST(Follow, ALinkLocalAddressServesWhileThereIsNoLease) {
    Story story;
    story.Told(0, kSearching, kPicking);
    EXPECT_EQ(story.Held(), "-");
    story.Told(1, kSearching, kPicked);
    EXPECT_EQ(story.Held(), "169.254.1.1");
    EXPECT_EQ(PrefixLength(story.holding.lease->mask), 16u);
    const std::string bound = R"({"state":"BOUND","ipv4Address":"192.0.2.5","held":true,"expires":null})";
    story.Told(2, bound, kPicked);
    EXPECT_EQ(story.Held(), "169.254.1.1");
    story.Details(2, "192.0.2.5");
    EXPECT_EQ(story.Held(), "192.0.2.5");
    story.Told(3, bound, kPicking);
    EXPECT_EQ(story.Held(), "192.0.2.5");
    story.Told(4, kSearching, kPicking);
    EXPECT_EQ(story.Held(), "-");
}

TEST(Follow, ANewDaemonHasTimeToHoldWhatTheLastOneLeft) {
    Story story;
    const auto leave = [&story] {
        story.Bound(0, "192.0.2.5", 60);
        story.Details(0, "192.0.2.5");
        Forget(story.holding, kNever);
        Forget(story.holding, Story::At(20));
        EXPECT_EQ(story.Held(), "192.0.2.5");
    };
    leave();
    story.Told(12, kSearching);
    EXPECT_EQ(story.Held(), "192.0.2.5");
    EXPECT_EQ(NextEnd(story.holding), Story::At(20));
    story.Bound(13, "192.0.2.5", 73);
    story.Details(13, "192.0.2.5");
    EXPECT_EQ(NextEnd(story.holding), Story::At(73));
    leave();
    story.Told(12, kSearching, kPicked);
    EXPECT_EQ(story.Held(), "169.254.1.1");
    leave();
    GiveUpEnded(story.holding, Story::At(20));
    EXPECT_EQ(story.Held(), "-");
    leave();
    story.Told(12, R"({"state":"INIT","reason":"nak"})");
    EXPECT_EQ(story.Held(), "-");
    leave();
    Hear(story.holding, InterfaceState{.interface = "eth0"}, Story::Heard(12));
    EXPECT_EQ(story.Held(), "-");
}

TEST(Follow, ReadsNoStateThatTheDaemonCouldNotHaveMeant) {
    Story story;
    story.Told(0, R"({"state":7,"since":-1,"reason":null,"ipv4Address":["192.0.2.5"],"held":"true","server":false,
                      "renews":1e300,"rebinds":1.5,"expires":"soon","nextTry":18446744073709551615,"tries":-3,
                      "refusals":null,"conflict":[]})");
    EXPECT_EQ(*story.holding.state->client, ClientState{});
    story.Told(0, R"({"state":")" + std::string(65, 'A') + R"(","reason":"\u001b[2J"})");
    EXPECT_EQ(story.holding.state->client->state, "");
    EXPECT_EQ(story.holding.state->client->reason, "?[2J");
}

TEST(Follow, TellsWhatChangedAndNothingElse) {
    const auto words = [](const std::optional<Change>& change) {
        return change ? change->sign + (' ' + change->words.substr(0, change->words.find(" until"))) : "";
    };
    Story story;
    Holding before = story.holding;
    story.Bound(0, "192.0.2.5", 60);
    story.Details(0, "192.0.2.5");
    story.holding.lease->domainName = "\033[2J";
    EXPECT_EQ(words(ChangeOf(before, story.holding)), "+ address 192.0.2.5/24, domain ?[2J,");
    before = story.holding;
    story.holding.ends += std::chrono::seconds(1);  // told in whole seconds
    EXPECT_EQ(words(ChangeOf(before, story.holding)), "");
    story.holding.ends += std::chrono::seconds(30);
    EXPECT_EQ(words(ChangeOf(before, story.holding)), "  lease renewed");
    story.holding = before;
    story.holding.lease->routers = {Address("192.0.2.1"), Address("192.0.2.2")};
    story.holding.lease->domainName.clear();
    EXPECT_EQ(words(ChangeOf(before, story.holding)), "  router 192.0.2.1, 192.0.2.2, domain ?[2J -> none");
    story.Bound(2, "192.0.2.5", 60, false, "conflict");
    EXPECT_EQ(words(ChangeOf(before, story.holding)), "- address 192.0.2.5/24 lost: another host has the address");
}

// Both ways to an event end in the same words.
TEST(Follow, TheLogAndThePostsSayTheSame) {
    const auto states = [](const std::string& client) {
        Story story;
        story.Told(0, client);
        return *story.holding.state;
    };
    const auto said = [](const Happening& happening) { return SignOf(happening) + (' ' + WordsOf(happening)); };
    struct Row {
        const char* client;  // what is posted, after kSearching
        std::vector<const char*> lines;
        const char* words;
    };
    const Row rows[] = {
        {R"({"state":"REQUESTING","since":1,"reason":"offer","ipv4Address":"192.0.2.50","server":"192.0.2.1"})",
         {"[eth0] client REQUESTING, offer, 192.0.2.50 of 192.0.2.1"},
         "  client is offered 192.0.2.50 by 192.0.2.1, and asks for it\n"},
        {R"({"state":"INIT","since":1,"reason":"nak","server":"192.0.2.1"})",
         {"[eth0] client INIT, nak of 192.0.2.1"},
         "! refused (NAK) by 192.0.2.1: client pauses before it asks\n"},
        {R"({"state":"BOUND","since":1,"reason":"ack","ipv4Address":"192.0.2.50","held":true,"server":"192.0.2.1"})",
         {"[eth0] client BOUND, ack, 192.0.2.50 of 192.0.2.1", "[eth0] client holds 192.0.2.50"},
         "  client is granted 192.0.2.50 by 192.0.2.1\n+ address 192.0.2.50 in use\n"},
        {R"({"state":"INIT","since":1,"reason":"conflict","conflict":{"ipv4Address":"192.0.2.50","macAddress":"02:9"}})",
         {"[eth0] client conflict, 02:9 has 192.0.2.50", "[eth0] client INIT, conflict"},
         "! 02:9 has 192.0.2.50\n  another host has the address: client pauses before it asks\n"},
        {R"({"state":"INIT-REBOOT","since":1,"reason":"action"})",
         {"[eth0] client INIT-REBOOT, action"},
         "  client is halted\n"},
    };
    for (const Row& row : rows) {
        std::string posted, logged;
        for (const Happening& happening : HappeningsBetween(states(kSearching), states(row.client)))
            posted += said(happening) + '\n';
        for (const char* const line : row.lines) logged += said(ReadLogLine(line).value()) + '\n';
        EXPECT_EQ(posted, row.words);
        EXPECT_EQ(logged, row.words);
    }
    const std::pair<const char*, const char*> lines[] = {
        {"[eth0] client gives up 192.0.2.50, expired", "- address 192.0.2.50 no longer in use: the lease has expired"},
        {"[eth0] linkLocal holds 169.254.1.1", "+ link-local address 169.254.1.1 in use"},
        {"[eth0] The link is lost.", "- link down"},
        {"[eth0] Lease 192.0.2.9 granted to 02:11 until Mon Nov 16 11:40:22 2026, host name a of b",
         "+ 192.0.2.9 02:11 a of b, leased: until Mon Nov 16 11:40:22 2026"},
        {"[eth0] Lease 192.0.2.9 of 02:11 until Mon Nov 16 11:40:22 2026 has ended: released",
         "- 192.0.2.9 02:11, released"},
        {"[eth0] Address 192.0.2.9 is held for 600 s: declined, 02:11",
         "! 192.0.2.9 02:11, held back, as this host has it"},
        {"Remove 0x55d0 from the interface list, for interface eth0", "- not managed any more"},
    };
    for (const auto& [line, words] : lines) EXPECT_EQ(said(ReadLogLine(line).value()), words);
    for (const char* const other :
         {"", "[eth0]", "[eth0] ", "[eth0] client", "[eth0] client holds", "[eth0] Lease 1.2.3.4",
          "[eth0] DHCP Client leaves out option 5, which is in no usable shape.", "OSTREL STARTED"})
        EXPECT_FALSE(ReadLogLine(other).has_value()) << other;
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
