// A dhcp client's messages byte for byte, and what becomes of it for want of memory. ClientModelTest.cpp has its rules.

#include "Ostrel/DHCPShared.h"
#include "Ostrel/Interface.h"

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

TEST(Client, SendsWhatItsBufferHolds) {
    const Lan lan;
    Ostrel_InterfaceObj* const iface = lan.daemon.system.interfaceList;
    for (const auto& [size, status] : {std::pair{2006U, kNoErr}, {2007U, kSendFailedErr}}) {
        const std::vector<uint8_t> payload(size);
        EXPECT_EQ(Ostrel_SendPacket(iface, &iface->arpFilter, kBroadcastMAC, 0, 68, kBroadcastIPv4, 67, payload),
                  status);
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
