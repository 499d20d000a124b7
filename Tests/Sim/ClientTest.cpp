// A dhcp client from the first DISCOVER to a bound lease, and everything that can go wrong on the way.

#include <array>
#include <cstdlib>
#include <set>

#include "Ostrel/DHCPShared.h"
#include "Ostrel/Interface.h"

#include "DHCPClient/Machine.h"
#include "Harness.h"

namespace sim {
namespace {

// A DHCP message of the client: its headers as far as xid and flags and, behind chaddr, sname and file, its options.
Frame Literal(const char* headers, const char* options) {
    Frame frame = Bytes(std::string(headers) + "001122334455");
    frame.resize(frame.size() + 10 + 64 + 128);
    const Frame tail = Bytes(std::string("63825363") + options + "ff");
    frame.insert(frame.end(), tail.begin(), tail.end());
    return frame;
}

// The state that the first change of state in the log leads to; "" when there is none.
std::string NextState(const World& world) {
    for (const LogLine& line : world.log) {
        if (line.text.find("DHCP Client state transition") == std::string::npos) continue;
        const size_t at = line.text.rfind("> ") + 2;
        return line.text.substr(at, line.text.size() - at - 1);  // without the full stop
    }
    return "";
}

// Cancels the client's timeouts and says which there were.
std::string Disarmed(Ostrel_ClientObj* client) {
    std::string armed;
    for (const Ostrel_TimeoutKind& kind : kClientTimeouts) {
        const int removed = kind.rtc ? eloop_cancel_timeout_rtc(kind.name, kind.handler, client, client->iface)
                                     : eloop_cancel_timeout(kind.handler, client, client->iface);
        const std::string_view name = kind.name;
        for (int i = 0; i < removed; ++i) armed += std::string(name.substr(name.rfind('.') + 1)) + " ";
    }
    return armed;
}

TEST(Client, IsSilentUntilALeaseActionAndThenSpeaksInTheseBytes) {
    Lan lan;
    ScriptedServer server(lan.wire);
    ArpHost squatter(lan.wire, kOtherMAC, ToIPv4("192.0.2.10"));
    lan.RunFor(1h);
    EXPECT_EQ(lan.FramesSent(), 0U);
    EXPECT_EQ(lan.Lease().address, "0.0.0.0");

    ASSERT_TRUE(lan.Init());
    lan.RunFor(60us);
    const std::pair<const char*, Frame> expected[] = {
        {"DISCOVER", Literal("ffffffffffff 001122334455 0800 4500 0125 0000 0000 8011 39c9 00000000 ffffffff"
                             "0044 0043 0111 67fa 01 01 06 00 697351ff 0000 0000 00000000 00000000 00000000 00000000",
                             "350101 3706011c0203060f 390205dc 3d0701001122334455")},
        {"REQUEST", Literal("ffffffffffff 001122334455 0800 4500 0131 0000 0000 8011 39bd 00000000 ffffffff"
                            "0044 0043 011d 79cd 01 01 06 00 697351ff 0000 0000 00000000 00000000 00000000 00000000",
                            "350103 3706011c0203060f 390205dc 3d0701001122334455 3204c000020a 3604c0000201")},
        {"ARP probe", Bytes("ffffffffffff 001122334455 0806 0001 0800 06 04 0001"
                            "001122334455 00000000 000000000000 c000020a")},
        {"DECLINE", Literal("020000000001 001122334455 0800 4500 0119 0000 0000 8011 b5c8 c000020a c0000201"
                            "0044 0043 0105 317a 01 01 06 00 697351ff 0000 0000 c000020a 00000000 00000000 00000000",
                            "350104 3d0701001122334455")},
    };
    std::vector<Frame> sent;
    for (const SentFrame& frame : lan.wire.sent) {
        if (frame.sender == &lan.eth0) sent.push_back(frame.bytes);
    }
    ASSERT_EQ(sent.size(), 5U);  // the fifth starts over
    for (size_t i = 0; i < std::size(expected); ++i) EXPECT_EQ(sent[i], expected[i].second) << expected[i].first;
    EXPECT_EQ(lan.Sent(kDiscover).size(), 2U);
    EXPECT_TRUE(lan.world.Logged("DHCP Client RX'd ARP REPLY from 02:00:00:00:00:77 for lease offer of 192.0.2.10."));

    lan.RunFor(5s);  // the server's next choice is free
    ASSERT_EQ(lan.world.posts.size(), 1U);
    EXPECT_EQ(lan.Lease().address, "192.0.2.11");
}

TEST(Client, PublishesItsLeaseTwoSecondsAfterTheProbe) {
    Lan lan;
    ScriptedServer server(lan.wire);
    lan.Init();
    lan.RunFor(1s);
    ASSERT_EQ(lan.SentARP().size(), 1U);
    EXPECT_TRUE(lan.world.posts.empty());
    lan.RunFor(2s);
    ASSERT_EQ(lan.world.posts.size(), 1U);
    EXPECT_EQ(lan.world.posts[0].subscriber, ":1.7");
    for (const LeaseReport& report : {LeaseReport::From(lan.world.posts[0].payload), lan.Lease()}) {
        EXPECT_TRUE(report.Says(R"("interface":"eth0","ipv4Address":"192.0.2.10","ipv4Subnet":"255.255.255.0",)"
                                R"("ipv4Router":["192.0.2.1"],"dnsServers":["192.0.2.2","192.0.2.3"],)"
                                R"("domainName":"lan.example","leaseTimeString":)"));
        EXPECT_TRUE(report.Says(R"("leaseTime":3600})")) << report.text;
    }
}

TEST(Client, DoublesItsWaitUpTo512SecondsWhileNobodyAnswers) {
    Lan lan;
    lan.Init();
    lan.RunFor(1600s);
    EXPECT_EQ(lan.SentAt(kDiscover), (Seconds{0, 5, 12, 23, 42, 77, 144, 275, 534, 1049, 1564}));
    std::set<uint32_t> ids;
    for (const DHCPMessage& discover : lan.Sent(kDiscover)) EXPECT_TRUE(ids.insert(discover.xid).second);

    // The raised wait outlives a lease.
    ScriptedServer server(lan.wire);
    lan.RunFor(600s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    const int64_t refused = lan.SentAt(kDiscover).back() + 521;
    lan.RunFor(std::chrono::seconds(refused) - lan.world.Now());
    server.Send(server.Answer(lan.Sent(kRequest).back(), kNak));
    lan.RunFor(600s);
    EXPECT_EQ(lan.SentAt(kDiscover).back(), refused + 512);
}

TEST(Client, TakesTheFirstOfferAndItsServersLastWord) {
    Lan lan;
    ScriptedServer first(lan.wire);
    ScriptedServer second(lan.wire, {.mac = {2, 0, 0, 0, 0, 9}, .address = ToIPv4("192.0.2.9")});
    first.script.tamper = [&first](DHCPMessage& answer) {
        if (answer.Type() != kOffer) return;
        DHCPMessage hasty = answer;
        hasty.yiaddr = ToIPv4("192.0.2.99");  // corrected by the offer that follows
        first.Send(hasty);
    };
    lan.Init();
    lan.RunFor(3s);
    ASSERT_EQ(lan.Sent(kRequest).size(), 1U);
    EXPECT_EQ(lan.Sent(kRequest)[0].Number(54), first.script.address);
    EXPECT_EQ(lan.Sent(kRequest)[0].Number(50), ToIPv4("192.0.2.10"));
}

// Offers and acknowledgements that aren't for the client, or not whole: nothing of them is kept, and it asks again.
TEST(Client, DropsAMalformedAnswerWhole) {
    const auto resized = [](uint8_t code, size_t size) {
        return [=](DHCPMessage& answer) {
            for (auto& [known, data] : answer.options) {
                if (known == code) data.resize(size);
            }
        };
    };
    const auto without = [](uint8_t code) {
        return [code](DHCPMessage& answer) {
            std::erase_if(answer.options, [code](const auto& option) { return option.first == code; });
        };
    };
    const auto otherXid = [](DHCPMessage& answer) { answer.xid ^= 1; };
    const auto otherClient = [](DHCPMessage& answer) { answer.chaddr[5] ^= 1; };
    const auto otherType = [](DHCPMessage& answer) { answer.options[0].second[0] = kInform; };
    const struct {
        const char* what;
        MessageType type;
        std::function<void(DHCPMessage&)> tamper;
    } cases[] = {{"offer, another transaction", kOffer, otherXid},
                 {"offer, another client", kOffer, otherClient},
                 {"offer, no server identifier", kOffer, without(54)},
                 {"offer, server identifier cut", kOffer, resized(54, 3)},
                 {"offer, no message type", kOffer, without(53)},
                 {"offer, another message type", kOffer, otherType},
                 {"ack, another transaction", kAck, otherXid},
                 {"ack, another client", kAck, otherClient},
                 {"ack, no lease time", kAck, without(51)},
                 {"ack, lease time cut", kAck, resized(51, 2)},
                 {"ack, no server identifier", kAck, without(54)},
                 {"ack, server identifier too long", kAck, resized(54, 5)},
                 {"ack, no mask", kAck, without(1)},
                 {"ack, mask cut", kAck, resized(1, 3)},
                 {"ack, a router and a half", kAck, resized(3, 6)},
                 {"ack, DNS servers cut", kAck, resized(6, 7)},
                 {"ack, T1 cut", kAck, resized(58, 2)},
                 {"ack, T2 too long", kAck, resized(59, 8)}};
    for (const auto& [what, type, tamper] : cases) {
        SCOPED_TRACE(what);
        Lan lan;
        ScriptedServer server(lan.wire, {.t1 = 100, .t2 = 200});
        server.script.tamper = [type = type, &tamper = tamper](DHCPMessage& answer) {
            if (answer.Type() == type) tamper(answer);
        };
        lan.Init();
        lan.RunFor(6s);
        EXPECT_EQ(lan.SentAt(kDiscover), type == kOffer ? (Seconds{0, 5}) : Seconds{0});
        EXPECT_EQ(lan.SentAt(kRequest), type == kOffer ? Seconds{} : (Seconds{0, 4}));
        EXPECT_EQ(lan.Lease().address, "0.0.0.0");
        EXPECT_FALSE(lan.Lease().Says("leaseTime"));
        EXPECT_TRUE(lan.world.posts.empty());
        server.script.tamper = nullptr;
        lan.RunFor(10s);
        EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    }
}

TEST(Client, RepeatsAnUnansweredRequestAndThenStartsOver) {
    Lan lan;
    ScriptedServer server(lan.wire, {.silentToRequest = true});
    lan.Init();
    lan.RunFor(65s);
    EXPECT_EQ(lan.SentAt(kRequest), (Seconds{0, 4, 12, 28, 60, 64}));
    EXPECT_EQ(lan.SentAt(kDiscover), (Seconds{0, 64}));
    const auto requests = lan.Sent(kRequest);
    for (size_t i = 1; i < 5; ++i) EXPECT_EQ(WriteDHCP(requests[i]), WriteDHCP(requests[0]));

    lan.RunFor(77s - lan.world.Now());  // the second round is as the first
    EXPECT_EQ(lan.SentAt(kRequest), (Seconds{0, 4, 12, 28, 60, 64, 68, 76}));

    server.script.silentToRequest = false;  // a late answer to the same transaction is still an answer
    lan.RunFor(18s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
}

// A short send ends the step it happened in; "init" always helps.
TEST(Client, SurvivesAShortSendInEveryStep) {
    const std::pair<const char*, uint32_t> steps[] = {{"DISCOVER", 0}, {"REQUEST", 1}, {"ARP probe", 2}};
    for (const auto& [step, before] : steps) {
        SCOPED_TRACE(step);
        const uint32_t good = before;
        Lan lan;
        ScriptedServer server(lan.wire);
        lan.Init();
        uint32_t seen = 0;
        if (good == 0) lan.world.FailSends("eth0", SendFault::Short, 1);
        lan.world.onSend = [&](auto) {
            if (++seen == good) lan.world.FailSends("eth0", SendFault::Short, 1);
        };
        lan.RunFor(30s);
        EXPECT_EQ(lan.FramesSent(), good);
        EXPECT_TRUE(lan.world.Logged("( err >= wpabuf_len( iface->txFrame ) )"));
        lan.Init();
        lan.RunFor(3s);
        EXPECT_EQ(lan.Lease().address, "192.0.2.10");
        EXPECT_EQ(lan.world.posts.size(), 1U);
    }
}

// A send refused by the link is a frame lost on the wire, and no failure.
TEST(Client, TakesARefusedSendForALostFrame) {
    Lan lan;
    ScriptedServer server(lan.wire);
    lan.world.SetLink("eth0", false);
    lan.Init();
    lan.RunFor(4s);
    EXPECT_EQ(lan.FramesSent(), 0U);
    Ostrel_InterfaceObj* const iface = lan.daemon.system.interfaceList;
    for (const auto& [size, status] : {std::pair{2006U, kNoErr}, {2007U, kSendFailedErr}}) {  // the buffer's room
        const std::vector<uint8_t> payload(size);
        EXPECT_EQ(Ostrel_SendPacket(iface, &iface->arpFilter, kBroadcastMAC, 0, 68, kBroadcastIPv4, 67, payload),
                  status);
    }
    lan.world.SetLink("eth0", true);
    lan.RunFor(4s);
    EXPECT_EQ(lan.SentAt(kDiscover), Seconds{5});
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
}

TEST(Client, RecoversFromEveryFailedAllocation) {
    size_t droppedOffers = 0;
    for (size_t nth = 1;; ++nth) {
        SCOPED_TRACE(nth);
        World world;
        Segment& wire = world.AddSegment();
        world.AddInterface("eth0", kClientMAC, wire);
        ScriptedServer server(wire);
        Daemon daemon;
        const size_t atRest = world.LiveAllocations();
        world.FailAllocation(nth);
        const bool made = daemon.Initialize("eth0", {{"clientIdentifier", "kitchen"}});
        EXPECT_TRUE(made || (world.LiveAllocations() == atRest && world.OpenSockets() == 0));
        if (made) daemon.LeaseAction("eth0", "init");
        world.RunFor(10s);
        const bool failed = !world.AllocationFailurePending();
        world.FailAllocation(0);
        EXPECT_TRUE(made || daemon.Initialize("eth0"));
        EXPECT_TRUE(daemon.LeaseAction("eth0", "init"));
        world.RunFor(10s);
        EXPECT_EQ(daemon.Lease().address, "192.0.2.10");
        if (world.Logged("leaseOffer")) {  // reported where it happened, and with its status where the offer is dropped
            ++droppedOffers;
            EXPECT_TRUE(std::any_of(world.log.begin(), world.log.end(), [](const LogLine& line) {
                return line.text.find("err -6728 ") != std::string::npos && line.text.ends_with("ProcessOffer()");
            }));
        }
        if (failed) continue;
        EXPECT_EQ(droppedOffers, 1U);
        EXPECT_GT(nth, 10U);  // interface, buffers, sockets, programs, client, identifier, options, offer, lease
        return;
    }
}

TEST(Client, CarriesAnIdentifierThatFitsItsOptionAndRefusesALongerOne) {
    for (const size_t length : {0U, 1U, 254U, 255U}) {
        SCOPED_TRACE(length);
        Lan lan;
        ASSERT_TRUE(lan.daemon.Finalize("eth0"));
        const std::string text(length, 'x');
        ASSERT_EQ(lan.daemon.Initialize("eth0", {{"clientIdentifier", valdo::JValue(text)}}), length < 255);
        EXPECT_EQ(lan.world.Logged("( length <= kOptionMaxData )"), length == 255);
        if (length == 255) continue;
        lan.Init();
        lan.RunFor(1s);
        Frame identifier(length + 1, 'x');
        identifier[0] = 0;
        EXPECT_EQ(*lan.Sent(kDiscover).at(0).Find(61), identifier);
    }
}

TEST(Timeouts, AreDrawnBelowTheirUpperBound) {
    const World world;
    uint32_t seen = 0;
    for (int i = 0; i < 1000; ++i) {
        uint32_t drawn = 0;
        Ostrel_RandomizeTimeout(1000, 1003, &drawn);
        ASSERT_TRUE(drawn >= 1000 && drawn < 1003) << drawn;
        seen |= 1U << (drawn - 1000);
    }
    EXPECT_EQ(seen, 7U);
    std::srand(1);  // as it was, for the tests that know the sequence
}

// The table above the state machine, walked: what is armed in each state, and which state each event leads to next.
TEST(Client, InEachStateHasItsTimeoutsAndGoesWhereEachEventLeads) {
    const struct {
        const char* state;
        Duration moment;
        bool silent, silentToRequest;
        const char* armed;
        std::array<const char*, 6> next;
    } rows[] = {
        {"INIT-REBOOT", -1s, false, false, "", {"INIT", "INIT-REBOOT", "", "", "INIT", ""}},
        {"INIT", 4s, true, false, "init ", {"INIT", "INIT-REBOOT", "", "", "INIT", ""}},
        {"SELECTING", 1s, true, false, "selecting ", {"INIT", "INIT-REBOOT", "REQUESTING", "", "INIT", ""}},
        {"REQUESTING", 2s, false, true, "requesting ", {"INIT", "INIT-REBOOT", "", "BOUND", "INIT", ""}},
        {"BOUND", 1s, false, false, "arping ", {"INIT", "INIT-REBOOT", "", "", "INIT", "INIT"}},
        {"BOUND", 100s, false, false, "renewing rebinding expiry ", {"INIT", "INIT-REBOOT", "", "", "INIT", "INIT"}},
        {"RENEWING",
         1900s,
         false,
         false,
         "renewing rebinding expiry ",
         {"INIT", "INIT-REBOOT", "", "BOUND", "INIT", "INIT"}},
        {"REBINDING", 3200s, false, false, "rebinding expiry ", {"INIT", "INIT-REBOOT", "", "BOUND", "INIT", "INIT"}},
    };
    constexpr std::array kEvents{"init", "halt", "OFFER", "ACK", "NAK", "ARP reply"};
    for (const auto& row : rows) {
        for (size_t event = 0; event < kEvents.size(); ++event) {
            SCOPED_TRACE(std::string(row.state) + ", " + kEvents[event]);
            Lan lan;
            ScriptedServer server(lan.wire, {.silent = row.silent, .silentToRequest = row.silentToRequest});
            Ostrel_ClientObj* const client = lan.daemon.system.interfaceList->dhcpClient;
            if (row.moment >= 0s) lan.Init();
            lan.RunFor(std::min<Duration>(std::max<Duration>(row.moment, 0s), 2s + 500ms));
            server.script.silent = true;
            lan.RunFor(std::max<Duration>(row.moment - lan.world.Now(), 0s));
            ASSERT_STREQ(Ostrel_ClientStateString(client->state), row.state);

            lan.world.log.clear();
            const DHCPMessage request{
                .ethernetSource = kClientMAC, .xid = be32toh(client->transactionID), .chaddr = kClientMAC};
            if (event < 2) lan.daemon.LeaseAction("eth0", kEvents[event]);
            if (event == 2) server.Send(server.Answer(request, kOffer));
            if (event == 3) server.Send(server.Answer(request, kAck));
            if (event == 4) server.Send(server.Answer(request, kNak));
            if (event == 5) ArpHost(lan.wire, kOtherMAC, ToIPv4("192.0.2.10")).Send(2, kClientMAC, 0);
            lan.RunFor(50us);
            EXPECT_EQ(NextState(lan.world), row.next[event]);
            if (*row.next[event] != 0) continue;
            EXPECT_EQ(Disarmed(client), row.armed);
        }
    }
}

TEST(Roles, LeaveNothingBehindAThousandTimes) {
    const Members roles[] = {{{"domainName", "lan"}, {"ipv4LinkLocal", true}},
                             {{"mode", "server"},
                              {"ipv4LinkLocal", true},
                              {"ipv4Address", "192.0.2.2"},
                              {"ipv4Subnet", "255.255.255.0"},
                              {"ipv4RangeStart", "192.0.2.100"},
                              {"maxLeases", 50},
                              {"ipv4Router", "192.0.2.1"}}};
    Lan lan;
    ScriptedServer server(lan.wire);
    ASSERT_TRUE(lan.daemon.Finalize("eth0"));
    const size_t atRest = lan.world.LiveAllocations();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(lan.daemon.Initialize("eth0", roles[i % 2]) && lan.Init());
        lan.RunFor(i % 5 * 1s);  // in INIT, under the ARP check, bound; probing, announcing
        const size_t before = lan.FramesSent();
        ASSERT_TRUE(lan.daemon.Finalize("eth0"));
        ASSERT_EQ(lan.FramesSent(), before);
        ASSERT_EQ(lan.world.LiveAllocations(), atRest);
        ASSERT_EQ(lan.world.PendingTimeouts(), 1U);  // the daemon's own, for want of work
        ASSERT_EQ(lan.world.OpenSockets(), 0U);
    }
}

}  // namespace
}  // namespace sim
