// Subscribers and callers that stop reading: what they cost, what they get when they read again, and that nobody else
// notices.

#include "ServerScene.h"
#include "VoroBus.h"

namespace sim {
namespace {

constexpr char kSubscribe[] = R"({"subscribe":true})";
constexpr char kSlow[] = ":1.8";
constexpr char kHealthy[] = ":1.7";  // ServerLan's own subscriber
constexpr size_t kMebibyte = size_t{1} << 20;

// A server for some stations, each with a long host name, and a subscriber that has just stopped reading.
struct Crowd : ServerLan {
    explicit Crowd(int32_t slots) : ServerLan({.rangeStart = "192.168.1.2", .maxLeases = slots}) {
        wire.sentLimit = 1;
        for (int32_t i = 0; i < slots; ++i) Renew(i);
        (void)world.Call("/server", "leaseInformation", kSubscribe, kSlow);
        world.posts.clear();
        world.StopReading(kSlow);
    }
    // A REQUEST that is answered; `round` shows in its station's name.
    void Renew(int32_t station, size_t round = 0) {
        Guest guest(wire, static_cast<uint8_t>(station + 1));
        DHCPMessage request = MessageFrom(guest.mac, kRequest, "", "192.168.1." + std::to_string(station + 2));
        std::string name = "round" + std::to_string(round) + ".";
        name.resize(200, '\x01');  // six characters each in JSON
        request.options.emplace_back(12, std::vector<uint8_t>(name.begin(), name.end()));
        const auto answer = guest.Ask(request);
        ASSERT_TRUE(answer && answer->Type() == kAck) << station;
    }
    std::vector<std::string> PostsTo(std::string_view subscriber) {
        std::vector<std::string> texts;
        for (const Post& post : world.posts)
            if (post.subscriber == subscriber) texts.push_back(post.payload);
        return texts;
    }
    std::string Leases(std::string_view caller) { return world.Call("/server", "leaseInformation", "{}", caller); }
    bool HasSubscriber() {
        return VSSubscriptionHasSubscribers(daemon.system.serviceHandle, "/server", "leaseInformation");
    }
};

TEST(BusFlow, OneThatStopsReadingMissesStatesButNotTheLast) {
    Crowd lan(20);
    constexpr size_t kRounds = 200;
    for (size_t round = 1; round <= kRounds; ++round) lan.Renew(3, round);
    const auto healthy = lan.PostsTo(kHealthy);
    ASSERT_EQ(healthy.size(), kRounds) << "one for each, whatever others do";
    for (size_t i = 0; i < kRounds; ++i)
        ASSERT_NE(healthy[i].find("round" + std::to_string(i + 1) + "."), std::string::npos) << "out of order";
    EXPECT_LT(lan.world.UnreadBytes(kSlow), kMebibyte + healthy[0].size());
    EXPECT_GT(lan.world.UnreadBytes(kSlow), kMebibyte / 2) << "nothing was tried";
    EXPECT_NE(lan.Leases(":1.9").find("round200."), std::string::npos);

    lan.world.ReadAgain(kSlow);
    lan.world.RunFor(200ms);
    const auto slow = lan.PostsTo(kSlow);
    ASSERT_LT(slow.size(), kRounds / 2);
    for (size_t i = 0; i + 1 < slow.size(); ++i) ASSERT_EQ(slow[i], healthy[i]);
    EXPECT_EQ(slow.back(), healthy.back());
    lan.Renew(3, kRounds + 1);
    EXPECT_NE(lan.PostsTo(kSlow).back().find("round201."), std::string::npos);
    EXPECT_EQ(lan.PostsTo(kSlow).size(), slow.size() + 1);
    EXPECT_EQ(lan.world.PendingTimeouts(), 0U) << "nobody is asked any more";
}

TEST(BusFlow, TheStateOfAnInterfaceThatIsGoneIsToldToNobody) {
    Crowd lan(4);
    for (size_t round = 1; round <= 100; ++round) lan.Renew(1, round);
    lan.daemon.Finalize("eth0");
    const size_t unread = lan.world.UnreadBytes(kSlow);
    lan.world.ReadAgain(kSlow);
    lan.world.RunFor(1s);
    size_t bytes = 0;
    for (const std::string& text : lan.PostsTo(kSlow)) bytes += text.size();
    EXPECT_EQ(bytes, unread);
}

TEST(BusFlow, OneThatIsSilentForAMinuteIsDroppedAndMayComeBack) {
    Crowd lan(2);
    lan.Renew(0, 1);
    lan.world.RunFor(59s);
    EXPECT_FALSE(lan.world.Logged(":1.8 has read nothing"));
    for (size_t round = 2; round < 100; ++round) lan.Renew(0, round);
    lan.world.RunFor(6s);
    EXPECT_TRUE(lan.world.Logged(":1.8 has read nothing for a minute: its subscriptions end"));
    EXPECT_TRUE(lan.world.Logged("subscribers (removed one)."));
    EXPECT_FALSE(lan.world.Logged(":1.7 has read nothing"));
    const size_t unread = lan.world.UnreadBytes(kSlow);
    lan.Renew(0, 100);
    EXPECT_EQ(lan.world.UnreadBytes(kSlow), unread);

    lan.world.ReadAgain(kSlow);
    lan.world.posts.clear();
    lan.Renew(0, 101);
    EXPECT_TRUE(lan.PostsTo(kSlow).empty());
    EXPECT_NE(lan.world.Call("/server", "leaseInformation", kSubscribe, kSlow).find("\"subscribed\":true"),
              std::string::npos);
    lan.Renew(0, 102);
    EXPECT_EQ(lan.PostsTo(kSlow).size(), 1U);
}

TEST(BusFlow, OneThatLeavesUnreadIsForgotten) {
    Crowd lan(2);
    for (size_t round = 1; round < 100; ++round) lan.Renew(0, round);
    lan.world.LeaveBus(kSlow);
    lan.world.LeaveBus(kHealthy);
    EXPECT_FALSE(lan.HasSubscriber());
    lan.world.RunFor(120s);
    EXPECT_FALSE(lan.world.Logged("has read nothing"));
    EXPECT_TRUE(lan.world.Logged("subscribers (removed one)."));
}

TEST(BusFlow, ManyStoppedSubscribersAreBoundedTogether) {
    Crowd lan(100);
    std::vector<std::string> names;
    for (int i = 0; i < 110; ++i) {
        names.push_back(":2." + std::to_string(i));
        (void)lan.world.Call("/server", "leaseInformation", kSubscribe, names.back());
        lan.world.StopReading(names.back());
    }
    for (size_t round = 1; round <= 40; ++round) lan.Renew(7, round);
    size_t unread = 0;
    for (const std::string& name : names) unread += lan.world.UnreadBytes(name);
    EXPECT_LT(unread, 66 * kMebibyte);
    EXPECT_GT(unread, 16 * kMebibyte) << "nothing was tried";
    EXPECT_NE(lan.PostsTo(kHealthy).back().find("round40."), std::string::npos) << "one that reads is still told";
    (void)lan.world.Call("/server", "leaseEvents", kSubscribe, kHealthy);
    lan.Renew(8);
    const auto healthy = lan.PostsTo(kHealthy);
    EXPECT_TRUE(std::any_of(healthy.begin(), healthy.end(),
                            [](auto& text) { return text.find(R"("event":"renewed")") != std::string::npos; }));
    for (const std::string& name : names) lan.world.ReadAgain(name);
    lan.world.RunFor(1s);
    for (const std::string& name : names)
        ASSERT_NE(lan.PostsTo(name).back().find("round40."), std::string::npos) << name;
}

TEST(BusFlow, RepliesThatNobodyFetchesAreBoundedToo) {
    for (const bool busCounts : {true, false}) {
        SCOPED_TRACE(busCounts);
        Crowd lan(50);
        lan.world.busCounts = busCounts;
        const auto call = [&lan](const char* caller) {
            const std::string reply = lan.Leases(caller);
            lan.world.RunFor(1ms);
            return !reply.empty();
        };
        for (int i = 0; i < 100; ++i) ASSERT_TRUE(call(":1.9")) << "this one reads";
        lan.world.StopReading(":1.10");
        size_t answered = 0;
        while (call(":1.10")) ASSERT_LT(++answered, 100U);
        const size_t unread = lan.world.UnreadBytes(":1.10");
        EXPECT_GT(unread, 4 * kMebibyte);
        EXPECT_LT(unread, 5 * kMebibyte);
        EXPECT_EQ(lan.world.callError, "org.freedesktop.DBus.Error.LimitsExceeded");
        for (int i = 0; i < 1000; ++i) ASSERT_FALSE(call(":1.10"));
        EXPECT_EQ(lan.world.callError, "no answer") << "it doesn't read refusals either";
        EXPECT_EQ(lan.world.UnreadBytes(":1.10"), unread);
        EXPECT_TRUE(call(":1.9"));
        lan.world.ReadAgain(":1.10");
        (void)call(":1.10");
        EXPECT_TRUE(call(":1.10"));
    }
}

TEST(BusFlow, CallersThatComeAndGoLeaveNothing) {
    ServerLan lan;
    for (int i = 0; i < 2000; ++i) {
        const std::string name = ":3." + std::to_string(i);
        ASSERT_FALSE(lan.world.Call("/", "interfaceConfigDump", "{}", name).empty());
        lan.world.LeaveBus(name);
        lan.world.RunFor(1ms);
    }
    EXPECT_LT(lan.world.BusAccounts(), 300U);
    size_t enrolled = 1;  // ServerLan's own
    for (int i = 0; i < 200; ++i) {
        const std::string reply = lan.world.Call("/server", "leaseInformation", kSubscribe, ":4." + std::to_string(i));
        enrolled += reply.find("\"subscribed\":true") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(enrolled, kVSMaxSubscribers) << "the others are told";
    lan.world.LeaveBus(":4.0");
    EXPECT_NE(lan.world.Call("/server", "leaseInformation", kSubscribe, ":4.199").find("\"subscribed\":true"),
              std::string::npos);
}

}  // namespace
}  // namespace sim
