// The DHCP server as its clients and its subscribers see it.

#include <gtest/gtest.h>

#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"

#include "ServerScene.h"

namespace {

using namespace sim;

constexpr char kNone[] = "0.0.0.0";
const std::string kHandler = "@PacketFilterHandler; ";

using Codes = std::vector<std::pair<int, size_t>>;

// The codes of a message's options, with the length of each.
Codes OptionsOf(const DHCPMessage& message) {
    Codes options;
    for (const auto& [code, data] : message.options) options.emplace_back(code, data.size());
    return options;
}

TEST(Server, OffersTheFirstAddressByteForByte) {
    ServerLan lan({.dnsServers = {"192.168.1.2", "192.168.1.3"}, .domainName = "lan"});
    Guest guest(lan.wire, 0x0A);
    DHCPMessage discover = MessageFrom(guest.mac, kDiscover, "", "192.168.1.105");  // which is not consulted
    discover.options.emplace_back(55, std::vector<uint8_t>{1, 3, 42, 6, 15});
    ASSERT_TRUE(guest.Ask(discover));

    std::vector<uint8_t> expected = Bytes(
        "020000 00000a 001122334455 0800"
        "45000137 00000000 80110000 c0a80101 c0a80164"
        "00430044 01230000"
        "02010600 a1b2c3d4 00000000 00000000 c0a80164 00000000 00000000 02000000 000a0000 00000000 00000000");
    expected.resize(42 + 236);
    for (const uint8_t byte : Bytes("63825363 350102 3604c0a80101 330400000e10 0104ffffff00 0304c0a80101"
                                    "0608c0a80102c0a80103 0f036c616e ff"))
        expected.push_back(byte);
    Frame offer = guest.heard.front();
    for (const size_t checksum : {24, 25, 40, 41}) offer[checksum] = 0;  // CheckEveryFrame has looked at them
    EXPECT_EQ(offer, expected);
}

// Four addresses, and five stations that want them. The table after each message is written as ServerLan::Books does.
TEST(Server, GivesKeepsRefusesAndTakesBack) {
    const std::string refused = "-6729 @ProcessRequest; ";
    const std::string exhausted = "-6729 @ProcessDiscover; -6729 " + kHandler;
    const std::string notItsOwn = "0 lease@ProcessRelease; -6727 " + kHandler;
    struct Step {
        uint32_t at;  // seconds from the first message
        char station;
        MessageType type;
        std::string ciaddr, requested;  // last octet; "": none
        int answer;                     // 0: none
        const char* books;
        std::string reported{};
    };
    const Step steps[] = {
        {0, 'A', kDiscover, "", "", kOffer, "a..."},
        {9, 'B', kDiscover, "", "", kOffer, "ab.."},
        {10, 'C', kDiscover, "", "", kOffer, "cb.."},  // A has not claimed it in time
        {10, 'A', kRequest, "", "100", kNak, "cb..", refused},
        {12, 'B', kRequest, "", "101", kAck, "cB.."},  // its lease counts from 9, when it was offered
        {13, 'C', kRequest, "", "102", kAck, ".BC."},  // what it was offered is free again
        {13, 'A', kInform, "101", "", kNak, ".BC."},
        {13, 'A', kInform, "103", "", kAck, ".BCA"},
        {13, 'B', kInform, "100", "", kNak, ".BCA"},  // an INFORM gives nothing back, so it takes no second one
        {13, 'E', kDiscover, "", "", kOffer, "eBCA"},
        {14, 'E', kInform, "100", "", kAck, "eBCA"},  // nor does it accept an offer
        {14, 'D', kDiscover, "", "", 0, "eBCA", exhausted},
        {14, 'D', kRelease, "101", "", 0, "eBCA", notItsOwn},
        {14, 'B', kRelease, "", "", 0, "eBCA", notItsOwn},
        {14, 'B', kDecline, "100", "", 0, "eBCA"},
        {14, 'B', kRequest, "", "", kNak, "eBCA", refused},  // of nothing
        {14, 'E', kRelease, "100", "", 0, ".BCA"},
        {14, 'A', kDiscover, "", "", kOffer, ".BCa"},  // its own before a lower free one
        {24, 'A', kDiscover, "", "", kOffer, "aBC."},  // unclaimed as well
        {24, 'A', kRequest, "", "104", kNak, ".BC.", refused},
        {1800, 'C', kInform, "102", "", kAck, ".BC."},
        {1800, 'B', kRequest, "101", "", kAck, ".BC."},  // both are confirmed, not prolonged:
        {3608, 'D', kRequest, "", "101", kNak, ".BC.", refused},
        {3609, 'D', kRequest, "", "101", kAck, ".DC."},
        {3612, 'E', kRequest, "", "102", kNak, ".DC.", refused},
        {3613, 'E', kRequest, "", "102", kAck, ".DE."},
        {3613, 'D', kRequest, "", "102", kNak, ".DE.", refused},  // another's: it keeps its own
    };
    ServerLan lan({.maxLeases = 4});
    lan.Reports();
    const auto full = [](const std::string& octet) { return octet.empty() ? octet : "192.168.1." + octet; };
    for (const Step& step : steps) {
        SCOPED_TRACE(std::to_string(step.at) + " s: " + step.station + " -> " + step.books);
        Guest guest(lan.wire, static_cast<uint8_t>(step.station - 'A' + 1));
        lan.world.RunFor(step.at * 1s + 1ms * (&step - steps) - lan.world.Now());
        lan.world.posts.clear();
        const auto answer = guest.Ask(MessageFrom(guest.mac, step.type, full(step.ciaddr), full(step.requested)));
        ASSERT_EQ(answer ? answer->Type() : 0, step.answer);
        ASSERT_EQ(lan.Books(), step.books);
        EXPECT_EQ(lan.Reports(), step.reported);
        EXPECT_EQ(lan.world.posts.size(), step.type == kRequest ? 1U : 0U);
        if (step.answer == kNak) {
            EXPECT_EQ(OptionsOf(*answer), (Codes{{53, 1}, {54, 4}}));
            EXPECT_EQ(answer->yiaddr, 0U);
        } else if (answer) {
            EXPECT_EQ(std::toupper(step.books[answer->yiaddr - ToIPv4("192.168.1.100")]), step.station);
        }
    }
}

TEST(Server, LosesAStationToAnotherOnItsWire) {
    ServerLan lan({.maxLeases = 2});
    lan.world.AddInterface("eth1", {2, 0, 0, 0, 1, 1}, lan.wire);
    ASSERT_TRUE(lan.Start({.address = "192.168.1.2", .rangeStart = "192.168.1.200"}, "eth1"));
    Guest guest(lan.wire, 1);
    for (const auto& [asked, books] : {std::pair{"192.168.1.101", ".A"}, {"10.0.0.5", ".A"}, {"192.168.1.200", ".."}}) {
        DHCPMessage request = MessageFrom(guest.mac, kRequest, "", asked);
        request.options.emplace_back(54, AddressBytes("192.168.1.2"));  // which neither of them looks at
        ASSERT_TRUE(guest.Ask(request));
        EXPECT_EQ(guest.heard.size(), 2U);
        EXPECT_EQ(lan.Books(), books);
    }
    EXPECT_EQ(lan.daemon.system.interfaceList->next->dhcpServer->leases[0].state, kLeaseStateActive);
}

TEST(Server, SendsToWhereTheStationCanHear) {
    struct Case {
        MessageType type, answer;
        uint16_t flags;
        const char *ciaddr, *giaddr;
        const char* destination;
    };
    const Case cases[] = {
        {kDiscover, kOffer, 0, kNone, kNone, "192.168.1.100"},
        {kDiscover, kOffer, 0x8000, kNone, kNone, "255.255.255.255"},
        {kDiscover, kOffer, 0x7FFF, kNone, kNone, "192.168.1.100"},
        {kDiscover, kOffer, 0x8000, "192.168.1.100", kNone, "255.255.255.255"},  // an OFFER carries no ciaddr
        {kDiscover, kOffer, 0x8000, kNone, "10.1.0.1", "10.1.0.1"},
        {kRequest, kAck, 0x8000, "192.168.1.100", kNone, "192.168.1.100"},
        {kRequest, kNak, 0, "192.168.1.50", kNone, "255.255.255.255"},
        {kRequest, kNak, 0, "192.168.1.50", "10.1.0.1", "10.1.0.1"},
        {kInform, kAck, 0, "192.168.1.100", kNone, "192.168.1.100"},
    };
    ServerLan lan;
    Ostrel_SetDebugLevel("trace");
    Guest guest(lan.wire, 1);
    for (const Case& row : cases) {
        DHCPMessage message = MessageFrom(guest.mac, row.type, row.ciaddr);
        message.flags = row.flags;
        message.giaddr = ToIPv4(row.giaddr);
        const auto answer = guest.Ask(message);
        ASSERT_TRUE(answer);
        EXPECT_EQ(std::make_tuple(answer->Type(), ToText(answer->destination), answer->ciaddr, answer->giaddr,
                                  answer->flags, answer->xid, answer->chaddr),
                  std::make_tuple(row.answer, row.destination, row.answer == kAck ? message.ciaddr : 0, message.giaddr,
                                  message.flags, message.xid, message.chaddr));
    }
    EXPECT_TRUE(lan.world.Logged(
        "Ostrel_DHCPServerSend_BOOTPReply(eth0) DST IPv4 <255.255.255.255> because... source packet giaddr <0.0.0.0>, "
        "msgType <DHCPOFFER> ciaddr <0.0.0.0> flags <0x0080> yiaddr <192.168.1.100>."));
}

TEST(Server, AnswersTheParameterRequestListCodeByCodeAsFarAsTheFrameGoes) {
    // 240 of BOOTP, 15 of options 53, 54 and 51, 1 of the end: 1472, 548 and 2006 bytes leave room for so many names.
    const auto longNames = [](size_t count) {
        Codes codes(count, {15, 255});
        codes.emplace_back(3, 4);  // shorter, and last: still kept
        return codes;
    };
    std::vector<uint8_t> names(255, 15);
    names.back() = 3;
    const std::string longName(255, 'x');
    struct Case {
        ServerWishes wishes;
        std::vector<uint8_t> asked;
        Codes answered;  // after 53, 54 and 51
    };
    const Case cases[] = {
        {{}, {}, {}},
        {{}, {15, 12, 6, 255, 0, 1}, {{6, 0}, {1, 4}}},
        {{.dnsServers = {kNone, "10.0.0.2"}, .domainName = "abc"}, {6, 6, 15, 3}, {{6, 8}, {6, 8}, {15, 3}, {3, 4}}},
        {{.dnsServers = {"10.0.0.1", "10.0.0.2", "10.0.0.3"}}, {6}, {{6, 12}}},
        {{.domainName = longName}, names, longNames(4)},
        {{.domainName = longName, .mtu = 576}, names, longNames(1)},
        {{.domainName = longName, .mtu = 540}, names, longNames(0)},
        {{.domainName = longName, .mtu = 9000}, names, longNames(6)},
    };
    for (const Case& row : cases) {
        ServerLan lan(row.wishes);
        Guest guest(lan.wire, 1);
        DHCPMessage discover = MessageFrom(guest.mac, kDiscover);
        discover.options.emplace_back(55, row.asked);
        const auto offer = guest.Ask(discover);
        ASSERT_TRUE(offer);
        Codes expected{{53, 1}, {54, 4}, {51, 4}};
        expected.insert(expected.end(), row.answered.begin(), row.answered.end());
        EXPECT_EQ(OptionsOf(*offer), expected);
    }
}

TEST(Server, RemembersWhatAClientSaysOfItself) {
    std::string replaced;
    for (int i = 0; i < 254; ++i) replaced += "\xEF\xBF\xBD";
    struct Case {
        std::optional<std::string> identifier, hostName;
        std::string shown;
    };
    const Case cases[] = {
        {"\1\2\x11\x22\x33\x44\x55", "host", R"("mac":"02:11:22:33:44:55","leaseTimeString")"},
        {std::string(255, '\xC3'), std::nullopt, R"("leaseTime":3600,"clientIdentifier":")" + replaced + "\"}"},
        {std::nullopt, std::string("a\0b", 3), R"("leaseTime":3600,"hostName":"a"})"},
        {std::nullopt, "\xFF", "\"hostName\":\"\xEF\xBF\xBD\"}"},
        {std::string("\0\xEF\xB7\x90", 4), "\xEF\xBF\xBF", "\"hostName\":\"\uFFFD\",\"clientIdentifier\":\"\uFFFD\"}"},
        {std::nullopt, "\xF0\x9F\xBF\xBE", "\"hostName\":\"\uFFFD\"}"},
        {std::nullopt, std::nullopt, R"("leaseTime":3600})"},
    };
    ServerLan lan;
    Guest guest(lan.wire, 1);
    for (const Case& row : cases) {
        DHCPMessage request = MessageFrom(guest.mac, kRequest, "", "192.168.1.100");
        for (const auto& [code, text] : {std::pair(61, &row.identifier), {12, &row.hostName}})
            if (*text) request.options.emplace_back(code, std::vector<uint8_t>((*text)->begin(), (*text)->end()));
        lan.world.posts.clear();
        ASSERT_EQ(guest.Ask(request)->Type(), kAck);
        // A zero byte follows what is kept.
        EXPECT_TRUE(!row.identifier || lan.Slot(0).clientIdentifier[row.identifier->size()] == 0);
        EXPECT_TRUE(!row.hostName || lan.Slot(0).hostName[row.hostName->size()] == 0);
        ASSERT_EQ(lan.world.posts.size(), 1U);
        EXPECT_NE(lan.world.posts[0].payload.find(row.shown), std::string::npos) << lan.world.posts[0].payload;
    }
}

// A line where a lease begins and one where it ends, and nothing in between; what a client calls itself stands last.
TEST(Server, WritesALineWhereALeaseBeginsAndWhereItEnds) {
    ServerLan lan({.leaseTime = 3600});
    Ostrel_SetDebugLevel("info");
    const auto takeLines = [&lan] {
        std::string lines;
        for (const LogLine& line : lan.world.log)
            if (!line.systemLog && line.level == kDebugLevelInfo) lines += line.text + "\n";
        lan.world.log.clear();
        return lines;
    };
    Guest guest(lan.wire, 1);
    const auto request = [&guest](const char* address, std::string_view hostName) {
        DHCPMessage message = MessageFrom(guest.mac, kRequest, "", address);
        if (!hostName.empty()) message.options.emplace_back(12, std::vector<uint8_t>(hostName.begin(), hostName.end()));
        EXPECT_TRUE(guest.Ask(message));
    };
    takeLines();

    ASSERT_TRUE(guest.Discover());
    EXPECT_EQ(takeLines(), "");
    lan.world.RunFor(5s);
    request("192.168.1.100", "cam until 2099\n[eth0] Lease\x1B[2J");  // good from when it was offered
    EXPECT_EQ(takeLines(),
              "[eth0] Lease 192.168.1.100 granted to 02:00:00:00:00:01 until Thu May 28 21:26:40 2026, "
              "host name cam until 2099\\x0a[eth0] Lease\\x1b[2J\n");
    lan.world.RunFor(600s);
    request("192.168.1.100", "cam");
    request("192.168.1.100", "cam");
    EXPECT_EQ(takeLines(), "");

    const std::string end = "of 02:00:00:00:00:01 until Thu May 28 21:26:40 2026 has ended: ";
    const std::string anew = "to 02:00:00:00:00:01 until Thu May 28 21:36:45 2026";
    ASSERT_TRUE(guest.Discover());
    EXPECT_EQ(takeLines(), "[eth0] Lease 192.168.1.100 " + end + "its client begins anew, host name cam\n");
    request("192.168.1.100", "");
    EXPECT_EQ(takeLines(), "[eth0] Lease 192.168.1.100 granted " + anew + "\n");
    request("192.168.1.102", "");
    EXPECT_EQ(takeLines(), "[eth0] Lease 192.168.1.100 of" + anew.substr(2) +
                               " has ended: its client asks for another address\n" +
                               "[eth0] Lease 192.168.1.102 granted " + anew + "\n");
    guest.Ask(MessageFrom(guest.mac, kRelease, "192.168.1.102"));
    EXPECT_EQ(takeLines(), "[eth0] Lease 192.168.1.102 of" + anew.substr(2) + " has ended: released\n");
    ASSERT_TRUE(guest.Ask(MessageFrom(guest.mac, kInform, "192.168.1.103")));
    EXPECT_EQ(takeLines(), "[eth0] Lease 192.168.1.103 granted " + anew + "\n");
    lan.world.RunFor(3600s);
    EXPECT_EQ(takeLines(), "");
    ASSERT_TRUE(Guest(lan.wire, 2).Discover());
    EXPECT_EQ(takeLines(), "[eth0] Lease 192.168.1.103 of" + anew.substr(2) + " has ended: expired\n");
}

TEST(Server, WritesItsWalksAtTraceLevel) {
    const ServerWishes wishes{.maxLeases = 2, .leaseTime = 60};
    ServerLan lan(wishes);
    ASSERT_TRUE(lan.daemon.Finalize("eth0"));
    Ostrel_SetDebugLevel("chatty");
    ASSERT_TRUE(lan.Start(wishes));
    Guest holder(lan.wire, 1);
    Guest other(lan.wire, 2);
    holder.Ask(MessageFrom(holder.mac, kInform, "192.168.1.101"));
    holder.Discover();
    other.Ask(MessageFrom(other.mac, kInform, "192.168.1.101"));
    holder.Ask(MessageFrom(holder.mac, kInform, "10.0.0.1"));
    holder.Ask(MessageFrom(holder.mac, kInform));
    holder.Request("192.168.1.100");
    lan.world.RunFor(60s);
    other.Ask(MessageFrom(other.mac, kDecline));
    for (const char* line :
         {"eth0 Adding 192.168.1.101 as an available lease.",
          "[eth0] Find Lease for 02:00:00:00:00:01, requested IPv4 of 0.0.0.0.",
          "[eth0] Lease at index 1 has MAC <02:00:00:00:00:01> and IPv4 <192.168.1.101> in state <5>, lease set to 0x",
          "[eth0] msgType mismatch, expected 1, actual 8...continue",
          "[eth0] Lease at index 0 possible lease candidate for MAC <02:00:00:00:00:01>.",
          "[eth0] Lease at index 1 match for MAC <02:00:00:00:00:01>.",
          "[eth0] SUBNET MISMATCH: 02:00:00:00:00:01 requested IPv4 of 10.0.0.1 on subnet 192.168.1.0.",
          "free for MAC <02:00:00:00:00:01>, assigned to MAC <02:00:00:00:00:02>.",
          "[eth0] Lease at index 1, IPv4 <192.168.1.101> free for MAC <02:00:00:00:00:01>.",
          "[eth0] Free Lease 192.168.1.101 assigned to 02:00:00:00:00:01.",
          "State <5>, MAC <02:00:00:00:00:01>, Offer time <1000>, now <1060>.",
          "(lease active) Now 1060, Offered at 1000, Lease Time 60.",
          "[eth0] ### PRUNE LEASE ### Lease 192.168.1.101 Free - do nothing."})
        EXPECT_TRUE(lan.world.Logged(line)) << line;
}

TEST(Server, DropsWhatItCannotRead) {
    ServerLan lan;
    Guest guest(lan.wire, 1);
    const Frame whole = WriteDHCP(MessageFrom(guest.mac, kDiscover));
    struct Case {
        size_t size, at;
        uint8_t byte;  // at that place
        std::string reports;
    };
    const Case cases[] = {
        {whole.size(), 281, 98, "-6742 " + kHandler + "-6750 " + kHandler},
        {whole.size(), 282, 255, "-6752 " + kHandler},
        {whole.size(), 283, 9, "-6750 " + kHandler},
        {284, 283, 0, "-6743 " + kHandler},
        // No end option: the message type is found, option 55 could not be.
        {whole.size() - 1, 0, 0xFF, "-6750 @Send_BOOTPReply; -6750 @ProcessDiscover; -6750 " + kHandler},
    };
    for (const Case& row : cases) {
        lan.Reports();
        Frame frame = whole;
        frame.resize(row.size);
        frame[row.at] = row.byte;
        EXPECT_FALSE(guest.AskBytes(frame));
        EXPECT_EQ(lan.Reports(), row.reports) << row.at;
    }
    EXPECT_EQ(lan.Books(), "..........");
    // The OFFER that was not sent has left its mark, and no more.
    EXPECT_EQ(lan.Slot(0).srcMAC, guest.mac);
    EXPECT_EQ(ToText(Guest(lan.wire, 2).Discover()->yiaddr), "192.168.1.100");
}

TEST(Server, GoesOnWhenASendOrAnAllocationFails) {
    const auto noBus = [](World& world) { world.failPosts = true; };
    const auto noIdentifier = [](World& world) { world.FailAllocation(1); };
    const auto noHostName = [](World& world) { world.FailAllocation(2); };
    const auto shortSend = [](World& world) { world.FailSends("eth0", SendFault::Short, 1); };
    const auto noLink = [](World& world) { world.FailSends("eth0", SendFault::Error, 1); };
    struct Case {
        std::function<void(World&)> fail;
        MessageType type;
        bool answered;
        size_t posts;
        const char* books;
        std::string reports;
    };
    const Case cases[] = {
        {shortSend, kDiscover, false, 0, ".", "-6747 @Send_BOOTPReply; -6747 @ProcessDiscover; -6747 " + kHandler},
        {shortSend, kRequest, false, 0, "A", "-6747 @Send_BOOTPReply; -6747 @ProcessRequest; -6747 " + kHandler},
        {noLink, kRequest, false, 1, "A", ""},  // an error of the link layer is no failure
        {noIdentifier, kRequest, false, 0, "A", "0 lease->clientIdentifier@ProcessRequest; -6728 " + kHandler},
        {noHostName, kRequest, false, 0, "A", "0 lease->hostName@ProcessRequest; -6728 " + kHandler},
        {noBus, kRequest, true, 0, "A", "-6700 @ProcessRequest; -6700 " + kHandler},  // with the reply out already
    };
    ServerLan lan({.maxLeases = 1});
    Guest guest(lan.wire, 1);
    for (const Case& row : cases) {
        DHCPMessage message = MessageFrom(guest.mac, row.type, "", "192.168.1.100");
        message.options.insert(message.options.end(), {{61, {0, 'a'}}, {12, {'h'}}});
        lan.Reports();
        lan.world.posts.clear();
        row.fail(lan.world);
        EXPECT_EQ(guest.Ask(message).has_value(), row.answered) << row.reports;
        EXPECT_EQ(std::make_tuple(lan.world.posts.size(), lan.Books(), lan.Reports()),
                  std::make_tuple(row.posts, row.books, row.reports));
    }
}

TEST(Server, TakesOnlyAConfigurationThatWorks) {
    struct Case {
        ServerWishes wishes;
        bool started;
        const char* said = "-6705   Src/DHCPServer";
    };
    const Case cases[] = {
        {{.maxLeases = 50}, true, "     inConfig range end     192.168.1.149"},
        {{.rangeStart = "192.168.1.200", .maxLeases = 55}, true, "     Max Leases            55"},
        {{.rangeStart = "192.168.1.200", .maxLeases = 56}, false},
        {{.address = "192.168.1.100", .maxLeases = 50}, false},
        {{.address = "192.168.1.149", .maxLeases = 50}, false},
        {{.address = "192.168.1.150", .maxLeases = 50}, true, "     Domain Name           <NULL>"},
        {{.address = "192.168.1.0"}, false},
        {{.address = "192.168.1.255"}, false},
        {{.router = "192.168.1.0"}, false},
        {{.router = "192.168.1.255"}, false},
        {{.router = "192.168.2.1"}, false},
        {{.maxLeases = 0}, false},
        {{.leaseTime = -1}, false},
        {{.leaseTime = 0}, true, "     Lease Time            86400"},
        {{.domainName = std::string(255, 'x')}, true, "     Max Leases            10"},
        {{.domainName = std::string(256, 'x')}, false},
        {{.mask = "255.255.255.128"}, false, "(server->IPv4SubnetMask < 0x01000000)"},
        {{.mask = "255.255.0.0"}, true, "     broadcast address      192.168.255.255"},
        {{.mask = "0.0.0.0", .maxLeases = kMaxLeasesLimit + 1}, false},
        {{.address = "192.168.2.1"}, true, "every REQUEST will be refused"},
        {{.address = "192.168.2.1", .rangeStart = "192.168.1.0", .maxLeases = 254}, true, "will be leased to a client"},
        {{.address = "192.168.2.1", .rangeStart = "192.168.1.0", .maxLeases = 255},
         false,
         "(~server->IPv4SubnetMask > server->maxLeases)"},
    };
    ServerLan lan;
    World& world = lan.world;
    ASSERT_TRUE(lan.daemon.Finalize("eth0"));
    const auto before = std::make_tuple(world.OpenSockets(), world.LiveAllocations());
    for (const Case& row : cases) {
        world.log.clear();
        EXPECT_EQ(lan.Start(row.wishes), row.started) << row.said;
        EXPECT_TRUE(world.Logged(row.said)) << row.said;
        EXPECT_EQ(lan.daemon.Finalize("eth0"), row.started);
        EXPECT_EQ(std::make_tuple(world.OpenSockets(), world.LiveAllocations()), before) << row.said;
        ASSERT_TRUE(lan.Start({}));
        ASSERT_TRUE(lan.daemon.Finalize("eth0"));
    }
}

TEST(Server, LeavesNothingBesideALinkLocalSelectorStartedOrNot) {
    ServerLan lan;
    Guest guest(lan.wire, 1);
    ASSERT_TRUE(lan.daemon.Finalize("eth0"));
    const auto left = [&world = lan.world] {
        return std::make_tuple(world.OpenSockets(), world.PendingTimeouts(), world.LiveAllocations());
    };
    const auto before = left();
    bool failed = true;
    for (size_t nth = 1; failed || nth < 1000; ++nth) {
        lan.world.FailAllocation(nth);
        const bool started = lan.Start({.domainName = "lan", .linkLocal = true});
        failed = !lan.world.AllocationFailurePending();
        lan.world.FailAllocation(0);
        ASSERT_TRUE(started || failed) << nth;
        if (started) {  // a failure may have met the request's own copy of an optional key
            ASSERT_TRUE(lan.daemon.LeaseAction("eth0", "init"));
            ASSERT_EQ(guest.Request("192.168.1.100")->Type(), kAck);
            lan.world.RunFor(nth % 10 * 1s);
            ASSERT_GE(lan.daemon.system.interfaceList->linkLocal->numAnnounces, nth % 10 > 7 ? 2 : 0) << nth;
            ASSERT_TRUE(lan.daemon.Finalize("eth0"));
        }
        ASSERT_EQ(left(), before) << nth;
    }
    EXPECT_TRUE(lan.world.Logged("server->domainName"));
    EXPECT_TRUE(lan.world.Logged("server->leases"));
}

}  // namespace
