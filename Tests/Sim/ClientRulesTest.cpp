// The client by the rfc rules, and what holds by both sets.
//
// The scenes of the other files are of the plain rules, to the byte. Here are those that differ, and the ones that must
// come out the same.

#include <algorithm>
#include <cmath>
#include <tuple>

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

TEST(ClientRFC, DrawsAnotherTransactionOnEveryDevice) {
    std::vector<uint32_t> ids;
    for (uint64_t seed = 1; seed <= 100; ++seed) {
        RFCLan lan(seed);
        lan.Init();
        lan.RunFor(6s);
        ids.push_back(lan.Sent(kDiscover).at(0).xid);
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
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

// Which DHCPNAK ends what, in which state.
TEST(ClientRFC, HeedsARefusalOnlyOfTheServerAskedForWhatItAsked) {
    const struct {
        const char* state;
        bool any, server;  // ends it: of any server, of the one asked
    } states[] = {{"INIT-REBOOT", false, false}, {"SELECTING", false, false}, {"REQUESTING", false, true},
                  {"BOUND", false, false},       {"RENEWING", false, true},   {"REBINDING", true, true},
                  {"REBOOTING", true, true}};
    for (const auto& [state, any, ofServer] : states) {
        for (const bool isForeign : {false, true}) {
            for (const bool hasXid : {false, true}) {
                SCOPED_TRACE(std::string(state) + (isForeign ? ", foreign" : "") + (hasXid ? ", xid" : ""));
                RFCLan lan;
                const std::string_view word = state;
                ScriptedServer server(lan.wire,
                                      {.silent = word == "SELECTING", .silentToRequest = word == "REQUESTING"});
                if (word == "REBOOTING")
                    lan.Act("init", {.address = 0x0A0200C0});
                else if (word != "INIT-REBOOT")
                    lan.Init();
                if (word == "REBOOTING") server.script.silent = true;
                lan.RunFor(2s);
                server.script.silent = true;
                if (word == "RENEWING") lan.Act("renew");
                if (word == "REBINDING") lan.Act("rebind");
                ASSERT_EQ(lan.State(), state);

                DHCPMessage nak = server.Answer({.ethernetSource = kClientMAC, .chaddr = kClientMAC}, kNak);
                nak.xid = __builtin_bswap32(lan.Client().transactionID) + (hasXid ? 0 : 1);
                if (isForeign) nak.options[1].second[3] ^= 1;
                server.Send(nak);
                lan.RunFor(1ms);
                const bool ends = hasXid && (isForeign ? any : ofServer);
                EXPECT_EQ(lan.State(), ends ? "INIT" : state);
            }
        }
    }
}

TEST(ClientRFC, TakesALeaseFromTheServerItChose) {
    RFCLan lan;
    ScriptedServer server(lan.wire, {.silentToRequest = true});
    lan.Init();
    lan.RunFor(1s);
    DHCPMessage ack = server.Answer(lan.Sent(kRequest).at(0), kAck);
    ack.options[1].second[3] ^= 1;
    server.Send(ack);
    lan.RunFor(1s);
    EXPECT_EQ(lan.State(), "REQUESTING");
    server.Send(server.Answer(lan.Sent(kRequest).at(0), kAck));
    lan.RunFor(1s);
    EXPECT_EQ(lan.State(), "BOUND");
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
    const auto yiaddr = [](const char* address) {
        return [address](DHCPMessage& answer) { answer.yiaddr = ToIPv4(address); };
    };
    const struct {
        const char* what;
        std::function<void(DHCPMessage&)> tamper;
        const char* says;  // "": no lease
        uint32_t t1 = 1800, t2 = 3150;
    } cases[] = {
        {"no address", yiaddr("0.0.0.0"), ""},
        {"this network", yiaddr("0.1.2.3"), ""},
        {"loopback", yiaddr("127.0.0.1"), ""},
        {"multicast", yiaddr("224.0.0.1"), ""},
        {"reserved", yiaddr("240.0.0.1"), ""},
        {"broadcast", yiaddr("255.255.255.255"), ""},
        {"mask of nothing", with(1, "00000000"), ""},
        {"mask with a hole", with(1, "ffff00ff"), ""},
        {"mask cut", with(1, "ffffff"), ""},
        {"no time", with(51, "00000000"), ""},
        {"no lease time", without(51), ""},
        {"no server", without(54), ""},
        {"no mask, class C", without(1), R"("ipv4Subnet":"255.255.255.0")"},
        {"a router and a half", with(3, "c00002010a00"), R"("dnsServers":["192.0.2.2","192.0.2.3"])"},
        {"DNS servers cut", with(6, "c0000201ff"), R"("ipv4Router":["192.0.2.1"])"},
        {"T1 cut", with(58, "0001"), "192.0.2.10", 1800, 2000},
        {"T2 before T1", with(59, "0000000a"), "192.0.2.10"},
        {"T2 after the end", with(59, "00000e10"), "192.0.2.10"},
    };
    for (const auto& one : cases) {
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

TEST(ClientRFC, PublishesAnExtensionAtOnce) {
    BoundRFCLan renewed;
    const size_t arp = renewed.SentARP().size();
    renewed.RunFor(1801s);
    EXPECT_EQ(renewed.world.posts.size(), 2U);
    EXPECT_EQ(renewed.SentARP().size(), arp) << "an extension is not checked";
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
        EXPECT_TRUE(lan.Act(word));
        EXPECT_EQ(lan.Lease().address, "192.0.2.10");
        lan.RunFor(1s);
        EXPECT_EQ(lan.Sent(kRequest).size(), 2U);
        EXPECT_EQ(lan.world.posts.size(), 2U);
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

// Both sets: what a caller asks for by new keys.
TEST(ClientRules, AskForAFormerAddressFirstAndReleaseOnRequest) {
    for (const bool isRFC : {false, true}) {
        for (const char* const answer : {"ack", "nak", "none"}) {
            SCOPED_TRACE(std::string(isRFC ? "rfc, " : "plain, ") + answer);
            Lan lan(1, {{"rfc", isRFC}});
            ScriptedServer server(lan.wire);
            server.script.silent = answer == std::string_view("none");
            if (answer == std::string_view("nak")) server.script.firstLease = ToIPv4("192.0.2.11");
            Ostrel_InterfaceObj* const iface = lan.daemon.system.interfaceList;
            ASSERT_EQ(Ostrel_DHCPClientLeaseAction(iface, "init", {.address = 0x0A0200C0}), kNoErr);
            lan.RunFor(1ms);
            const DHCPMessage request = lan.Sent(kRequest).at(0);
            EXPECT_EQ(request.Number(50), ToIPv4("192.0.2.10"));
            EXPECT_EQ(request.Find(54), nullptr);
            EXPECT_EQ(request.ciaddr, 0U);
            EXPECT_EQ(request.destination, kEveryoneIPv4);
            lan.RunFor(5s + 500ms);
            const bool isRefused = answer == std::string_view("nak");
            EXPECT_EQ(lan.Lease().address, server.script.silent ? "0.0.0.0" : isRefused ? "192.0.2.11" : "192.0.2.10");
            EXPECT_EQ(!lan.Sent(kDiscover).empty(), answer != std::string_view("ack"));
            if (server.script.silent) continue;

            ASSERT_EQ(Ostrel_DHCPClientLeaseAction(iface, "halt", {.release = true}), kNoErr);
            const DHCPMessage release = lan.Sent(kRelease).at(0);
            EXPECT_EQ(release.ciaddr, server.Answer(request, kAck).yiaddr);
            EXPECT_EQ(release.source, release.ciaddr);
            EXPECT_EQ(release.destination, server.script.address);
            EXPECT_EQ(release.ethernetDestination, server.mac);
            EXPECT_EQ(release.Number(54), server.script.address);
            EXPECT_EQ(release.Find(50), nullptr);
            EXPECT_EQ(release.Find(55), nullptr);
            EXPECT_EQ(lan.Lease().address, "0.0.0.0");
            ASSERT_EQ(Ostrel_DHCPClientLeaseAction(iface, "halt", {.release = true}), kNoErr);
            EXPECT_EQ(lan.Sent(kRelease).size(), 1U) << "there is nothing any more";
        }
    }
}

// What a caller gives beside the usual goes out in each DISCOVER and REQUEST, long options in parts (RFC 3396), and
// what it asks for comes with the lease.
TEST(ClientRules, CarryACallersValues) {
    for (const bool isRFC : {false, true}) {
        SCOPED_TRACE(isRFC);
        Lan lan;
        ASSERT_TRUE(lan.daemon.Finalize("eth0"));
        Ostrel_InterfaceConfig config{};
        config.ifname = {"eth0"};
        config.mode = kOstrelModeDHCPClient;
        config.rfc = isRFC;
        const Frame name = Bytes("6b69746368656e");
        const Frame longOne(300, 0x5A);
        config.client.sent.values = os_new_records<Ostrel_OptionValue>(2);
        config.client.sent.count = 2;
        for (const auto& [index, code, data] : {std::tuple{0U, 12, name}, {1U, 224, longOne}}) {
            Ostrel_OptionValue& value = config.client.sent.values[index];
            value.code = static_cast<uint8_t>(code);
            value.data = os_copy_array<uint8_t>(data);
            value.length = static_cast<uint32_t>(data.size());
        }
        config.client.requested = os_copy_array<uint8_t>(Bytes("2a 0f 2a"));  // 15 is asked for anyhow
        config.client.numRequested = 3;
        config.client.clientIdentifier = os_copy_array<uint8_t>(Bytes("ff 00010203"));
        config.client.clientIdentifierLength = 5;
        config.client.broadcast = true;
        config.client.arpCheck = 0;
        ASSERT_EQ(Ostrel_InterfaceInitialize(&lan.daemon.system, &config), kNoErr);

        ScriptedServer server(lan.wire);
        server.script.tamper = [](DHCPMessage& answer) { answer.options.emplace_back(42, Bytes("c0000207")); };
        lan.Init();
        lan.RunFor(10ms);
        ASSERT_EQ(lan.world.posts.size(), 1U) << "without a check at once";
        for (const MessageType type : {kDiscover, kRequest}) {
            const DHCPMessage message = lan.Sent(type).at(0);
            EXPECT_EQ(message.flags, 0x8000);
            EXPECT_EQ(*message.Find(61), Bytes("ff 00010203"));
            EXPECT_EQ(*message.Find(55), Bytes("01 1c 02 03 06 0f 2a"));
            const size_t last = message.options.size() - 3;
            EXPECT_EQ(message.options[last].second, name);
            EXPECT_EQ(message.options[last + 1], (std::pair<uint8_t, Frame>{224, Frame(255, 0x5A)}));
            EXPECT_EQ(message.options[last + 2], (std::pair<uint8_t, Frame>{224, Frame(45, 0x5A)}));
        }
        const Ostrel_OptionList& options = lan.daemon.system.interfaceList->dhcpClient->lease.options;
        ASSERT_EQ(options.count, 2U);
        EXPECT_EQ(options.values[0].code, 42);
        EXPECT_EQ(options.values[0].length, 4U);
        EXPECT_EQ(options.values[1].code, 15);
    }
}

// The lease's moments reach the other roles, once each.
TEST(ClientRules, TellWhenALeaseBeginsAndIsLost) {
    for (const bool isRFC : {false, true}) {
        Lan lan(1, {{"rfc", isRFC}});
        ScriptedServer server(lan.wire, {.leaseTime = 100});
        const Ostrel_InterfaceObj* const iface = lan.daemon.system.interfaceList;
        lan.Init();
        lan.RunFor(400ms);
        EXPECT_FALSE(iface->leaseIsHeld) << "under the check";
        lan.RunFor(2s);
        EXPECT_TRUE(iface->leaseIsHeld);
        server.script.silent = true;
        lan.RunFor(97s);
        EXPECT_TRUE(iface->leaseIsHeld);
        lan.RunFor(3s);
        EXPECT_FALSE(iface->leaseIsHeld);
    }
}

}  // namespace
}  // namespace sim
