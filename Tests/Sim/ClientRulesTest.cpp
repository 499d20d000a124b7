// The client by the rfc rules, and what holds by both sets.
//
// The scenes of the other files are of the plain rules, to the byte. Here are those that differ, and the ones that must
// come out the same.

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>

#include "ClientScene.h"

namespace sim {
namespace {

void ExpectNear(const std::vector<double>& gaps, std::initializer_list<double> expected, double tolerance) {
    ASSERT_GE(gaps.size(), expected.size());
    size_t i = 0;
    for (const double wanted : expected) {
        EXPECT_NEAR(gaps[i], wanted, tolerance) << i;
        ++i;
    }
}

TEST(ClientRFC, HasItsLeaseWithinASecondAndSpeaksByTheBook) {
    RFCLan lan;
    ScriptedServer server(lan.wire);
    lan.Init();
    lan.RunFor(1s);
    ASSERT_EQ(lan.world.posts.size(), 1U);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    EXPECT_TRUE(lan.IsHeld());
    lan.RunFor(3s);

    const DHCPMessage discover = lan.Sent(kDiscover).at(0);
    const DHCPMessage request = lan.Sent(kRequest).at(0);
    EXPECT_EQ(discover.xid, request.xid);
    EXPECT_EQ(*discover.Find(61), Bytes("01 001122334455"));
    EXPECT_EQ(*request.Find(61), Bytes("01 001122334455"));
    for (const SentFrame& frame : lan.wire.sent) {
        const bool isMessage = frame.sender == &lan.eth0 && ReadDHCP(frame.bytes);
        EXPECT_GE(frame.bytes.size(), isMessage ? 342U : 0U);
    }
    // The second had room for two probes beside the exchange; two announcements follow, two seconds apart.
    std::vector<std::pair<IPv4, IPv4>> arp;
    for (const ARPFrame& frame : lan.SentARP()) arp.emplace_back(frame.sender, frame.target);
    const IPv4 ours = ToIPv4("192.0.2.10");
    EXPECT_EQ(arp, (std::vector<std::pair<IPv4, IPv4>>{{0, ours}, {0, ours}, {ours, ours}, {ours, ours}}));
}

TEST(ClientRFC, ChecksASlowServersAddressWithThreeProbesAndWithAsManyAsTheCallerSays) {
    const struct {
        std::optional<uint32_t> check;
        size_t probes;
    } cases[] = {{{}, 3}, {0, 0}, {9000, 3}};
    for (const auto& [check, probes] : cases) {
        SCOPED_TRACE(check.value_or(1));
        RFCLan lan;
        ScriptedServer server(lan.wire);
        lan.wire.latency = 300ms;  // a second from the DISCOVER to the first probe
        if (check) lan.Client().arpCheck = *check;
        lan.Init();
        lan.RunFor(1200ms + std::chrono::milliseconds(check.value_or(500)) - 1ms);
        EXPECT_EQ(lan.SentARP().size(), probes);
        EXPECT_TRUE(lan.world.posts.empty());
        EXPECT_FALSE(lan.IsHeld());
        lan.RunFor(2ms);
        EXPECT_EQ(lan.world.posts.size(), 1U);
    }
}

TEST(ClientRFC, AsksInOneTransactionForEverAndTakesALateOffer) {
    RFCLan lan;
    lan.Init();
    lan.RunFor(400s);
    ExpectNear(lan.Gaps(kDiscover), {4, 8, 16, 32, 64, 64, 64, 64}, 1.001);
    const std::vector<double> gaps = lan.Gaps(kDiscover);
    EXPECT_TRUE(std::any_of(gaps.begin(), gaps.end(), [](double gap) { return gap != std::round(gap); }));
    const std::vector<DHCPMessage> sent = lan.Sent(kDiscover);
    for (const DHCPMessage& one : sent) EXPECT_EQ(one.xid, sent[0].xid);

    ScriptedServer server(lan.wire);
    server.Send(server.Answer(sent[3], kOffer));  // long after it was asked for
    lan.RunFor(1s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    // secs: of the REQUEST as of the latest DISCOVER, at 18 in the frame's BOOTP message
    for (const SentFrame& frame : lan.wire.sent) {
        const std::optional<DHCPMessage> message = ReadDHCP(frame.bytes);
        if (frame.sender != &lan.eth0 || !message) continue;
        const auto secs = static_cast<uint32_t>(frame.bytes[50] << 8 | frame.bytes[51]);
        const Duration asked = message->Type() == kRequest ? sent.back().time : frame.time;
        EXPECT_EQ(secs, (asked - sent[0].time) / 1s);
    }
}

TEST(ClientRFC, PausesLongerAfterEachRefusalAndAgainBrieflyAfterALeaseThatLasted) {
    RFCLan lan;
    ScriptedServer server(lan.wire);
    server.script.tamper = [](DHCPMessage& answer) {
        if (answer.Type() == kAck) answer.options[0].second[0] = kNak;
    };
    lan.Init();
    lan.RunFor(400s);
    ExpectNear(lan.Gaps(kDiscover), {1.5, 2.5, 4.5, 8.5, 16.5, 32.5, 64.5, 64.5, 64.5}, 0.51);

    server.script.tamper = nullptr;
    lan.RunFor(140s);
    ASSERT_TRUE(lan.IsHeld());
    lan.Act("renew");
    const DHCPMessage renewal = lan.Sent(kRequest).back();
    server.script.silent = true;
    lan.RunFor(1s);
    EXPECT_TRUE(lan.IsHeld());
    lan.Act("rebind");
    server.Send(server.Answer(lan.Sent(kRequest).back(), kNak));
    lan.RunFor(2100ms);
    EXPECT_EQ(lan.State(), "SELECTING");
    EXPECT_NE(renewal.xid, lan.Sent(kRequest).back().xid);
}

// Which answer counts in which state: of the server asked, or of any that knows the transaction.
TEST(ClientRFC, HeedsOnlyWhoWasAskedAndWhatAnswersIt) {
    const struct {
        const char* state;
        bool asks, nakOfAny, ackOfAny;
    } states[] = {{"INIT-REBOOT", false, false, false}, {"SELECTING", false, false, false},
                  {"REQUESTING", true, false, false},   {"BOUND", false, false, false},
                  {"RENEWING", true, false, true},      {"REBINDING", true, true, true},
                  {"REBOOTING", true, true, true}};
    for (const auto& [state, asks, nakOfAny, ackOfAny] : states) {
        for (unsigned variant = 0; variant < 8; ++variant) {
            const bool isForeign = (variant & 1) != 0;
            const bool hasXid = (variant & 2) != 0;
            const bool isAck = (variant & 4) != 0;
            SCOPED_TRACE(std::string(state) + (isAck ? ", ack" : ", nak") + (isForeign ? ", foreign" : "") +
                         (hasXid ? ", xid" : ""));
            RFCLan lan;
            const std::string_view word = state;
            ScriptedServer server(lan.wire, {.silent = word == "SELECTING", .silentToRequest = word == "REQUESTING"});
            if (word == "REBOOTING")
                lan.Act("init", {.address = htonl(ToIPv4("192.0.2.10"))});
            else if (word != "INIT-REBOOT")
                lan.Init();
            if (word == "REBOOTING") server.script.silent = true;
            lan.RunFor(2s);
            server.script.silent = true;
            if (word == "RENEWING") lan.Act("renew");
            if (word == "REBINDING") lan.Act("rebind");
            ASSERT_EQ(lan.State(), state);

            DHCPMessage answer =
                server.Answer({.ethernetSource = kClientMAC, .chaddr = kClientMAC}, isAck ? kAck : kNak);
            answer.xid = ntohl(lan.Client().transactionID) + (hasXid ? 0 : 1);
            if (isForeign) answer.options[1].second[3] ^= 1;
            server.Send(answer);
            lan.RunFor(1ms);
            const bool counts = hasXid && (!isForeign ? asks : isAck ? ackOfAny : nakOfAny);
            EXPECT_EQ(lan.State(), !counts ? state : isAck ? "BOUND" : "INIT");
        }
    }
}

TEST(ClientRFC, ChecksWhatALeaseSays) {
    const auto with = [](uint8_t code, const char* hex) {
        return [=](DHCPMessage& answer) {
            for (auto& [known, data] : answer.options) {
                if (known == code) data = Bytes(hex);
            }
        };
    };
    const auto without = [](uint8_t code) {
        return [code](DHCPMessage& answer) {
            std::erase_if(answer.options, [code](const auto& option) { return option.first == code; });
        };
    };
    struct Case {
        const char* what;
        std::function<void(DHCPMessage&)> tamper;
        const char* says;  // "": no lease
        uint32_t t1 = 1800, t2 = 3150;
    };
    std::vector<Case> cases = {
        {"mask of nothing", with(1, "00000000"), ""},
        {"mask with a hole", with(1, "ffff00ff"), ""},
        {"mask cut", with(1, "ffffff"), ""},
        {"no time", with(51, "00000000"), ""},
        {"no lease time", without(51), ""},
        {"no server", without(54), ""},
        {"no mask, class C", without(1), R"("ipv4Subnet":"255.255.255.0")"},
        {"no mask, class B",
         [](DHCPMessage& answer) {
             std::erase_if(answer.options, [](const auto& option) { return option.first == 1; });
             answer.yiaddr = ToIPv4("172.16.0.9");
         },
         R"("ipv4Subnet":"255.255.0.0")"},
        {"a router and a half", with(3, "c00002010a00"), R"("dnsServers":["192.0.2.2","192.0.2.3"])"},
        {"DNS servers cut", with(6, "c0000201ff"), R"("ipv4Router":["192.0.2.1"])"},
        {"T1 cut", with(58, "0001"), "192.0.2.10", 1800, 2000},
        {"T2 before T1", with(59, "0000000a"), "192.0.2.10"},
        {"T2 after the end", with(59, "00000e10"), "192.0.2.10"},
    };
    for (const char* address : {"0.0.0.0", "0.1.2.3", "127.0.0.1", "224.0.0.1", "240.0.0.1", "255.255.255.255"})
        cases.push_back({address, [=](DHCPMessage& answer) { answer.yiaddr = ToIPv4(address); }, ""});
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        const bool hasTimes = std::string_view(one.what).starts_with("T");
        RFCLan lan;
        ScriptedServer server(lan.wire);
        if (hasTimes) server.script.t1 = 1000, server.script.t2 = 2000;
        server.script.tamper = [&one](DHCPMessage& answer) {
            if (answer.Type() == kAck) one.tamper(answer);
        };
        lan.Init();
        lan.RunFor(3s);
        const bool isLease = *one.says != 0;
        EXPECT_EQ(lan.IsHeld(), isLease);
        EXPECT_EQ(lan.world.posts.size(), isLease ? 1U : 0U);
        if (!isLease) continue;
        EXPECT_TRUE(lan.Lease().Says(one.says)) << lan.Lease().text;
        EXPECT_EQ(lan.Client().lease.renewalTime, one.t1);
        EXPECT_EQ(lan.Client().lease.rebindingTime, one.t2);
    }
}

TEST(ClientRFC, ExtendsItsLeaseByTheBook) {
    BoundRFCLan lan;
    lan.server.script.silent = true;
    lan.RunFor(3600s - lan.world.Now());
    const std::vector<DHCPMessage> requests = lan.Sent(kRequest);
    ASSERT_GE(requests.size(), 6U);
    const auto at = [](const DHCPMessage& message) { return std::chrono::duration<double>(message.time).count(); };
    EXPECT_TRUE(at(requests[1]) >= 1800 * .95 && at(requests[1]) <= 1800.1) << at(requests[1]);
    for (size_t i = 1; i < requests.size(); ++i) {
        const DHCPMessage& request = requests[i];
        const bool isRenewing = request.destination != kEveryoneIPv4;
        EXPECT_TRUE(isRenewing ? at(request) < 3151 : at(request) > 3150 * .95) << at(request);
        EXPECT_EQ(request.ethernetDestination, isRenewing ? lan.server.mac : kEveryone);
        EXPECT_EQ(request.ciaddr, ToIPv4("192.0.2.10"));
        EXPECT_EQ(request.source, request.ciaddr);
        EXPECT_EQ(request.Find(50), nullptr);
        EXPECT_EQ(request.Find(54), nullptr);
        const bool isSoon = i > 1 && at(request) - at(requests[i - 1]) < 60;
        EXPECT_FALSE(isSoon && isRenewing) << "only T2 may come sooner";
    }
    EXPECT_TRUE(lan.IsHeld()) << "to its end";
}

TEST(ClientRFC, KeepsItsLeaseWhenAnExtensionIsMalformedOrOfAnotherAddress) {
    for (const bool isMalformed : {false, true}) {
        BoundRFCLan lan;
        lan.server.script.tamper = [isMalformed](DHCPMessage& answer) {
            if (answer.Type() != kAck) return;
            if (isMalformed)
                std::erase_if(answer.options, [](const auto& option) { return option.first == 51; });
            else
                ++answer.yiaddr;
        };
        lan.RunFor(3590s - lan.world.Now());
        EXPECT_EQ(lan.Lease().address, "192.0.2.10");
        lan.server.script.silent = true;
        lan.RunFor(11s);
        EXPECT_FALSE(lan.IsHeld()) << "its end is counted from the REQUEST";
        EXPECT_EQ(lan.Sent(kDiscover).size(), 2U);
    }
}

TEST(ClientRFC, ActsALittleLaterWhenTheSecondIsFull) {
    RFCLan lan;
    ScriptedServer server(lan.wire);
    lan.Init();
    lan.RunFor(501ms);  // DISCOVER, REQUEST, two probes; the lease counts
    ASSERT_TRUE(lan.IsHeld());
    lan.Act("renew");
    EXPECT_EQ(lan.Sent(kRequest).size(), 1U);
    lan.RunFor(600ms);
    EXPECT_EQ(lan.Sent(kRequest).size(), 2U);
    EXPECT_EQ(lan.world.posts.size(), 2U);
    lan.Act("init");
    lan.RunFor(3s);
    EXPECT_TRUE(lan.IsHeld());
    EXPECT_EQ(lan.Sent(kDiscover).size(), 2U);
    EXPECT_EQ(lan.Sent(kRequest).size(), 3U);
}

TEST(ClientRFC, IsExtendedByAnActionAndKeepsItsAddress) {
    for (const char* const word : {"renew", "rebind"}) {
        SCOPED_TRACE(word);
        BoundRFCLan lan;
        const size_t arp = lan.SentARP().size();
        EXPECT_TRUE(lan.Act(word));
        EXPECT_EQ(lan.Lease().address, "192.0.2.10");
        lan.RunFor(1s);
        EXPECT_EQ(lan.Sent(kRequest).size(), 2U);
        EXPECT_EQ(lan.world.posts.size(), 2U);
        EXPECT_EQ(lan.SentARP().size(), arp) << "an extension is not checked";
        lan.server.script.silent = true;
        lan.RunFor(3596s);
        EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    }
    for (const char* const word : {"renew", "rebind"}) {
        RFCLan idle;
        EXPECT_TRUE(idle.Act(word));
        idle.RunFor(1s);
        EXPECT_EQ(idle.Sent(kDiscover).size(), 1U) << "without a lease as init";
    }
}

// Both sets: what a caller asks for by new keys. What else the REQUEST says, ClientLink tells.
TEST(ClientRules, AskForAFormerAddressFirstAndReleaseOnRequest) {
    for (const bool isRFC : {false, true}) {
        for (const std::string_view answer : {"ack", "nak", "none"}) {
            SCOPED_TRACE(std::string(isRFC ? "rfc, " : "plain, ").append(answer));
            Lan lan(1, {{"rfc", isRFC}});
            ScriptedServer server(lan.wire, {.silent = answer == "none"});
            if (answer == "nak") server.script.firstLease = ToIPv4("192.0.2.11");
            Ostrel_InterfaceObj* const iface = lan.daemon.system.interfaceList;
            ASSERT_EQ(Ostrel_DHCPClientLeaseAction(iface, "init", {.address = htonl(ToIPv4("192.0.2.10"))}), kNoErr);
            lan.RunFor(5s + 500ms);
            const DHCPMessage request = lan.Sent(kRequest).at(0);
            EXPECT_LT(request.time, 1ms);
            EXPECT_EQ(request.Number(50), ToIPv4("192.0.2.10"));
            EXPECT_EQ(lan.Lease().address, answer == "none"  ? "0.0.0.0"
                                           : answer == "nak" ? "192.0.2.11"
                                                             : "192.0.2.10");
            EXPECT_EQ(lan.Sent(kDiscover).empty(), answer == "ack");
            if (answer == "none") continue;

            for (int i = 0; i < 2; ++i) {  // the second time there is nothing any more
                ASSERT_EQ(Ostrel_DHCPClientLeaseAction(iface, "halt", {.release = true}), kNoErr);
                EXPECT_EQ(lan.Lease().address, "0.0.0.0");
            }
            ASSERT_EQ(lan.Sent(kRelease).size(), 1U);
            const DHCPMessage release = lan.Sent(kRelease)[0];
            EXPECT_EQ(release.ciaddr, server.Answer(request, kAck).yiaddr);
            EXPECT_EQ(release.source, release.ciaddr);
            EXPECT_EQ(release.destination, server.script.address);
            EXPECT_EQ(release.ethernetDestination, server.mac);
            EXPECT_EQ(release.Number(54), server.script.address);
            EXPECT_EQ(release.Find(50), nullptr);
            EXPECT_EQ(release.Find(55), nullptr);
        }
    }
}

}  // namespace
}  // namespace sim
