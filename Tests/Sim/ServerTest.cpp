// The DHCP server as its clients and its subscribers see it.

#include <gtest/gtest.h>

#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"

#include "ServerScene.h"

namespace {

using namespace sim;

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

}  // namespace
