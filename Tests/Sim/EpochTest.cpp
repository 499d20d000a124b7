// Days on which a clock runs out: 2038, when the wall clock needs more than 31 bits, and the end of the monotonic
// seconds, which are 32. A world that begins an hour before must send the same frames at the same moments as any other,
// and tell times that go on.

#include "ServerScene.h"

namespace sim {
namespace {

struct Epoch {
    const char* what;
    int64_t wallStart;
    uint32_t monotonicStart;
};

constexpr int64_t kUsual = 1'780'000'000;
constexpr int64_t kEnd31 = 2'147'483'648;  // 2038-01-19 03:14:08 UTC
constexpr Epoch kEpochs[] = {
    {"any day", kUsual, 1000},
    {"an hour before 2038-01-19 03:14:08", kEnd31 - 3600, 1000},
    {"an hour before 2106-02-07 06:28:16", 2 * kEnd31 - 3600, 1000},
    {"an hour before the monotonic seconds wrap", kUsual, UINT32_MAX - 3600},
    {"half an hour before both", kEnd31 - 1800, UINT32_MAX - 1800},
};

// The seconds since 1970 of a lease's time, which stands in local time as ctime writes it; here local time is UTC.
int64_t TimeIn(const std::string& text, const std::string& key) {
    const size_t at = text.find('"' + key + "\":\"");
    if (at == std::string::npos) return -1;
    tm fields{};
    if (strptime(text.c_str() + at + key.size() + 4, "%a %b %e %H:%M:%S %Y", &fields) == nullptr) return -1;
    return timegm(&fields);
}

// Every frame of three hours: a client that renews each half hour, loses its server for one hour, and has it back.
std::vector<SentFrame> ClientStory(const Epoch& epoch) {
    Lan lan;
    lan.world.wallStart = epoch.wallStart;
    lan.world.monotonicStart = epoch.monotonicStart;
    ScriptedServer server(lan.wire, {.leaseTime = 3600});
    lan.Init();
    for (int quarter = 0; quarter < 12; ++quarter) {
        server.script.silent = quarter >= 5 && quarter < 9;
        lan.RunFor(15min);
        const LeaseReport lease = lan.Lease();
        const int64_t now = epoch.wallStart + lan.world.Now() / 1s;
        if (lease.address == "0.0.0.0") continue;
        EXPECT_EQ(TimeIn(lease.text, "leaseExpiryString") - TimeIn(lease.text, "leaseTimeString"), 3600);
        EXPECT_LE(TimeIn(lease.text, "leaseTimeString"), now);
        EXPECT_GE(TimeIn(lease.text, "leaseTimeString"), now - 3600);
    }
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    return lan.wire.sent;
}

// What the table of a server tells each quarter of an hour, its times counted from the beginning.
std::string ServerStory(const Epoch& epoch) {
    ServerLan lan({.maxLeases = 4, .leaseTime = 1200});
    lan.world.wallStart = epoch.wallStart;
    lan.world.monotonicStart = epoch.monotonicStart;
    std::string story;
    Guest first(lan.wire, 1), second(lan.wire, 2);
    for (int quarter = 0; quarter < 8; ++quarter) {
        Guest& guest = quarter % 3 == 0 ? first : second;
        const auto offer = guest.Discover();
        const auto answer = offer ? guest.Request(ToText(offer->yiaddr)) : std::nullopt;
        const std::string table = lan.world.Call("/server", "leaseInformation", "{}");
        story += lan.Books() + (answer ? " " + ToText(answer->yiaddr) : " nothing") + " until " +
                 std::to_string(TimeIn(table, "leaseExpiryString") - epoch.wallStart) + "\n";
        lan.world.RunFor(15min);
    }
    return story;
}

TEST(Epoch, ClocksThatRunOutChangeNothing) {
    const std::vector<SentFrame> frames = ClientStory(kEpochs[0]);
    const std::string story = ServerStory(kEpochs[0]);
    EXPECT_GT(frames.size(), 30U);
    EXPECT_NE(story.find("A"), std::string::npos) << story;
    EXPECT_EQ(story.find("until -"), std::string::npos) << story;
    for (const Epoch& epoch : kEpochs) {
        SCOPED_TRACE(epoch.what);
        const std::vector<SentFrame> others = ClientStory(epoch);
        ASSERT_EQ(others.size(), frames.size());
        for (size_t i = 0; i < frames.size(); ++i) {
            EXPECT_TRUE(others[i].time == frames[i].time && others[i].bytes == frames[i].bytes)
                << DescribeFrame(others[i].bytes);
        }
        EXPECT_EQ(ServerStory(epoch), story);
    }
}

}  // namespace
}  // namespace sim
