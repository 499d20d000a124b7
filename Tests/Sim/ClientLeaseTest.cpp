// A lease's life: renewal, rebinding and expiry, refusals, conflicts, lease actions, and clients that are told their
// address.

#include "Harness.h"

namespace sim {
namespace {

constexpr int64_t kWeek = int64_t{7} * 24 * 3600;

// What the timetable of a period says: T at which it began, then half of what remains each time, never under a minute.
void AddHalving(Seconds& moments, int64_t start, int64_t period, int64_t end) {
    for (int64_t remaining = period; start < end;) {
        moments.push_back(start);
        const int64_t half = remaining / 2;
        start += half <= 60 ? 60 : half;
        if (half > 60) remaining -= half;
    }
}

// A client bound at second 2, its server now silent.
class BoundLan : public Lan {
public:
    explicit BoundLan(ServerScript script = {}) : server(wire, std::move(script)) {
        Init();
        RunFor(1s);
        server.script.silent = true;
        RunFor(1s + 500ms);
        EXPECT_EQ(world.posts.size(), 1U);
    }
    ScriptedServer server;
};

TEST(ClientLease, IsRenewedFromT1AndReboundFromT2UntilItsWeekIsOver) {
    BoundLan lan({.leaseTime = static_cast<uint32_t>(kWeek)});
    lan.RunFor(std::chrono::seconds(kWeek));
    const int64_t t1 = 2 + kWeek / 2;
    const int64_t t2 = 2 + kWeek / 8 * 7;
    const int64_t end = 2 + kWeek;
    Seconds expected{0};
    AddHalving(expected, t1, t2 - t1, t2);
    AddHalving(expected, t2, end - t2, end);
    ASSERT_GT(expected.size(), 20U);
    EXPECT_EQ(lan.SentAt(kRequest), expected);
    EXPECT_EQ(lan.SentAt(kDiscover), (Seconds{0, end}));
    EXPECT_EQ(lan.Lease().address, "0.0.0.0");

    uint32_t xid = be32toh(lan.Sent(kRequest)[0].xid);  // as it lies in memory
    for (const DHCPMessage& request : lan.Sent(kRequest)) {
        EXPECT_EQ(be32toh(request.xid), xid++);
        if (request.time < std::chrono::seconds(t1)) continue;
        const bool isRenewing = request.time < std::chrono::seconds(t2);  // it asks its server alone
        EXPECT_EQ(request.ethernetDestination, isRenewing ? lan.server.mac : kEveryone);
        EXPECT_EQ(request.destination, isRenewing ? lan.server.script.address : kEveryoneIPv4);
        EXPECT_EQ(request.source, isRenewing ? ToIPv4("192.0.2.10") : 0);
        EXPECT_EQ(request.ciaddr, 0U);
        EXPECT_EQ(request.Number(50), ToIPv4("192.0.2.10"));
        EXPECT_EQ(request.Find(54), nullptr);
    }
}

TEST(ClientLease, IsRenewedByAnAnswerAtAnyTimeAndPublishedAgain) {
    for (const Duration silence : {1790s, 3140s}) {  // until just before T1, T2
        BoundLan lan;
        lan.RunFor(silence);
        lan.server.script.silent = false;
        lan.server.script.domainName = "renewed.example";
        lan.RunFor(70s);
        EXPECT_EQ(lan.world.posts.size(), 2U);
        EXPECT_TRUE(lan.Lease().Says("renewed.example"));
        lan.server.script.silent = true;
        const Duration renewed = std::chrono::seconds(lan.SentAt(kRequest).back());
        lan.RunFor(renewed + 3601s - lan.world.Now());
        EXPECT_EQ(lan.Lease().address, "192.0.2.10");
        lan.RunFor(2s);
        EXPECT_EQ(lan.Lease().address, "0.0.0.0");
    }
}

// Times a server may say, and when the client then asks. T1 and T2 are taken as given, in whatever order.
TEST(ClientLease, FollowsTheTimesItWasGiven) {
    const struct {
        const char* what;
        uint32_t lease;
        std::optional<uint32_t> t1, t2;
        int64_t seconds;  // how long we look
        Seconds requests;
        Seconds discovers;
    } cases[] = {
        {"own T1 and T2", 7200, 1000, 1130, 1200, {0, 1002, 1067, 1127, 1132}, {0}},
        {"T2 before T1", 400, 300, 100, 403, {0, 102, 252, 327, 387}, {0, 402}},
        {"T1 after the lease", 100, 5000, 6000, 130, {0}, {0, 102, 107, 114, 125}},
        {"both at once", 400, 0, 0, 100, {0, 2, 2}, {0}},
        {"no time at all", 0, {}, {}, 3, {0, 2, 2}, {0, 2}},
        {"7 times it is more than 32 bits", 700'000'000, 699'999'999, {}, 612'500'010, {0, 612'500'002}, {0}},
        {"T2 and end are over 68 years away", 0xFFFFFFFE, {}, {}, kWeek, {0}, {0}},
        {"infinite", 0xFFFFFFFF, {}, {}, 20 * 52 * kWeek, {0}, {0}},
        {"infinite, with T1 and T2", 0xFFFFFFFF, 1000, 2000, kWeek, {0}, {0}},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.what);
        BoundLan lan({.leaseTime = one.lease, .t1 = one.t1, .t2 = one.t2});
        lan.RunFor(std::chrono::seconds(one.seconds) - lan.world.Now());
        EXPECT_EQ(lan.SentAt(kRequest), one.requests);
        EXPECT_EQ(lan.SentAt(kDiscover), one.discovers);
    }
}

TEST(ClientLease, EndsWithARefusalInAnyState) {
    const struct {
        const char* state;
        Duration moment;
        bool silent, silentToRequest;
    } cases[] = {{"INIT-REBOOT", -1s, false, false}, {"SELECTING", 1s, true, false},
                 {"REQUESTING", 2s, false, true},    {"BOUND", 100s, false, false},
                 {"RENEWING", 1900s, false, false},  {"REBINDING", 3200s, false, false}};
    for (const auto& [state, moment, silent, silentToRequest] : cases) {
        SCOPED_TRACE(state);
        Lan lan;
        ScriptedServer server(lan.wire, {.silent = silent, .silentToRequest = silentToRequest});
        if (moment >= 0s) lan.Init();
        lan.RunFor(2s + 500ms);
        server.script.silent = true;
        lan.RunFor(std::max<Duration>(moment - lan.world.Now(), 0s));
        const size_t discovers = lan.Sent(kDiscover).size();
        DHCPMessage request{.ethernetSource = kClientMAC, .xid = 0x0BAD0BAD};  // of any transaction
        for (const MAC& mac : {kOtherMAC, kClientMAC}) {
            request.chaddr = mac;
            server.Send(server.Answer(request, kNak));
            lan.RunFor(20us);
            EXPECT_EQ(lan.Sent(kDiscover).size(), discovers + (mac == kClientMAC ? 1 : 0));
        }
        EXPECT_EQ(lan.Lease().address, "0.0.0.0");
    }
}

TEST(ClientLease, IsDeclinedLaterTooButOnlyForAReplyOfAnother) {
    BoundLan lan;
    const auto send = [&](uint16_t operation, const MAC& mac, const char* address) {
        ArpHost(lan.wire, mac, ToIPv4(address)).Send(operation, kClientMAC, 0);
        lan.RunFor(1s);
        return lan.Sent(kDecline).size();
    };
    EXPECT_EQ(send(1, kOtherMAC, "192.0.2.10"), 0U);
    EXPECT_EQ(send(2, kClientMAC, "192.0.2.10"), 0U);
    EXPECT_EQ(send(2, kOtherMAC, "192.0.2.11"), 0U);
    lan.RunFor(1810s);
    EXPECT_EQ(send(2, kOtherMAC, "192.0.2.10"), 1U);
    EXPECT_EQ(lan.Sent(kDiscover).size(), 2U);
    EXPECT_EQ(lan.Lease().address, "0.0.0.0");
}

// What a malformed acknowledgement of a renewal leaves: nothing, and a client that starts over.
TEST(ClientLease, IsLostWithAMalformedRenewal) {
    for (const Duration moment : {1810s, 3160s}) {  // RENEWING, REBINDING
        BoundLan lan;
        lan.RunFor(moment);
        DHCPMessage ack = lan.server.Answer(lan.Sent(kRequest).back(), kAck);
        std::erase_if(ack.options, [](const auto& option) { return option.first == 1; });
        lan.server.Send(ack);
        lan.RunFor(1s);
        EXPECT_EQ(lan.Sent(kDiscover).size(), 2U);
        EXPECT_EQ(lan.Lease().address, "0.0.0.0");
        EXPECT_EQ(lan.world.posts.size(), 1U);
    }
}

// The next timer of the lease takes over from a send that came back short.
TEST(ClientLease, GoesOnAfterAShortSendOfARenewal) {
    BoundLan lan;
    for (const Duration moment : {1790s, 3140s}) {
        lan.RunFor(moment - lan.world.Now());
        lan.world.FailSends("eth0", SendFault::Short, 1);
    }
    lan.RunFor(3610s - lan.world.Now());
    EXPECT_EQ(lan.SentAt(kRequest), Seconds{0});
    EXPECT_EQ(lan.SentAt(kDiscover), (Seconds{0, 3602, 3607}));
}

TEST(ClientLease, IsDroppedByEveryLeaseAction) {
    for (const char* const word : {"init", "renew", "rebind", "halt"}) {
        SCOPED_TRACE(word);
        BoundLan lan;
        EXPECT_TRUE(lan.daemon.LeaseAction("eth0", word));
        EXPECT_EQ(lan.Lease().address, "0.0.0.0");
        const size_t before = lan.FramesSent();
        lan.RunFor(4s);
        const bool isHalted = std::string_view(word) == "halt";
        EXPECT_EQ(lan.FramesSent() - before, isHalted ? 0U : 1U);
        EXPECT_EQ(lan.Sent(kDiscover).size(), isHalted ? 1U : 2U);
        EXPECT_EQ(lan.world.posts.size(), 1U);
    }
}

TEST(ClientLease, OfAStaticClientIsItsConfigurationAndNeverEnds) {
    valdo::JValue servers = valdo::Array();
    for (const char* const server : {"10.0.0.1", "0.0.0.0", "10.0.0.3"}) servers.append(server);
    Lan lan(1, {{"ipv4Config", "static"},
                {"ipv4Address", "10.0.0.7"},
                {"ipv4Subnet", "255.0.0.0"},
                {"ipv4Router", "10.0.0.1"},
                {"dnsServers", servers},
                {"domainName", "static.example"}});
    (void)lan.world.Call("/client", "leaseInformation", R"({"subscribe":true})", ":1.7");  // once more is not twice
    (void)lan.world.Call("/server", "leaseInformation", R"({"subscribe":true})", ":1.8");
    const auto expectLease = [&](size_t posts) {
        lan.RunFor(1s);
        ASSERT_EQ(lan.world.posts.size(), posts);
        const LeaseReport report = LeaseReport::From(lan.world.posts.back().payload);
        EXPECT_TRUE(report.Says(R"("ipv4Address":"10.0.0.7","ipv4Subnet":"255.0.0.0","ipv4Router":["10.0.0.1"],)"
                                R"("dnsServers":["10.0.0.1"],"domainName":"static.example")"))
            << report.text;
        EXPECT_EQ(lan.world.PendingTimeouts(), 0U);
    };
    expectLease(1);
    lan.Init();
    expectLease(2);
    EXPECT_EQ(lan.FramesSent(), 0U);

    ArpHost squatter(lan.wire, kOtherMAC, ToIPv4("10.0.0.7"));
    squatter.Send(2, kClientMAC, 0);
    expectLease(3);
    ASSERT_EQ(lan.Sent(kDecline).size(), 1U);
    EXPECT_EQ(lan.Sent(kDecline)[0].ethernetDestination, MAC{});
    EXPECT_EQ(lan.Sent(kDecline)[0].destination, 0U);
    lan.daemon.LeaseAction("eth0", "halt");
    expectLease(3);
    EXPECT_EQ(lan.Lease().address, "10.0.0.7");
}

TEST(ClientLease, KeepsAManualAddressUntilAServerSaysAnother) {
    Lan lan(1, {{"ipv4Config", "dhcpManualAddress"}, {"ipv4Address", "192.0.2.200"}, {"clientIdentifier", "kitchen"}});
    EXPECT_EQ(lan.Lease().address, "192.0.2.200");
    lan.Init();
    lan.RunFor(1s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.200");
    EXPECT_EQ(lan.Sent(kDiscover).size(), 1U);
    EXPECT_EQ(lan.Sent(kDiscover)[0].Find(50), nullptr);
    EXPECT_EQ(*lan.Sent(kDiscover)[0].Find(61), Bytes("00 6b69746368656e"));

    ScriptedServer server(lan.wire,
                          {.firstLease = ToIPv4("192.0.2.50"), .routers = {}, .dnsServers = {}, .domainName = ""});
    lan.RunFor(10s);
    EXPECT_TRUE(lan.Lease().Says(R"("ipv4Address":"192.0.2.50","ipv4Subnet":"255.255.255.0","leaseTimeString":)"))
        << "a lease may be this bare";
    lan.daemon.LeaseAction("eth0", "halt");
    EXPECT_TRUE(lan.Lease().Says(R"("ipv4Address":"192.0.2.50","ipv4Subnet":"0.0.0.0")")) << "the address stays";
}

}  // namespace
}  // namespace sim
