// The daemon's two filter programs, run by the kernel over a table of frames. A socket pair with a filter needs no
// rights and no network.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "Ostrel/PacketFilter.h"

namespace {

using Frame = std::vector<uint8_t>;

bool Passes(std::span<const l2_filter_instruction> program, const Frame& frame) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data()), 0);
    sock_fprog attached{};
    attached.len = static_cast<unsigned short>(program.size());
    attached.filter = reinterpret_cast<sock_filter*>(const_cast<l2_filter_instruction*>(program.data()));
    EXPECT_EQ(setsockopt(ends[1], SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof attached), 0);
    EXPECT_EQ(send(ends[0], frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
    Frame received(frame.size() + 1);
    const ssize_t length = recv(ends[1], received.data(), received.size(), MSG_DONTWAIT);
    EXPECT_TRUE(length < 0 || length == static_cast<ssize_t>(frame.size())) << "passed in part";
    close(ends[0]);
    close(ends[1]);
    return length >= 0;
}

Frame ARP() {
    Frame frame(12, 0);
    frame.insert(frame.end(), {0x08, 0x06, 0, 1, 0x08, 0, 6, 4, 0, 1});
    frame.resize(42);
    return frame;
}

// UDP from 67 to 68 behind an IPv4 header of `words` 32-bit words.
Frame UDP(uint8_t words = 5) {
    Frame frame(14 + words * size_t{4} + 8, 0);
    frame[12] = 0x08;
    frame[14] = 0x40 | words;
    frame[23] = 17;
    frame[frame.size() - 7] = 67;
    frame[frame.size() - 5] = 68;
    return frame;
}

// One octet of a frame, and values of it that pass and that don't.
struct Octet {
    const char* what;
    size_t offset;
    std::vector<uint8_t> passing, refused;
};

void Judge(std::span<const l2_filter_instruction> program, const Frame& original, const std::vector<Octet>& octets) {
    EXPECT_TRUE(Passes(program, original));
    for (const Octet& octet : octets) {
        Frame frame = original;
        for (const uint8_t value : octet.passing)
            EXPECT_TRUE((frame[octet.offset] = value, Passes(program, frame))) << octet.what << ' ' << int{value};
        for (const uint8_t value : octet.refused)
            EXPECT_FALSE((frame[octet.offset] = value, Passes(program, frame))) << octet.what << ' ' << int{value};
    }
}

TEST(PacketFilter, ARPPassesWhatMayBeEthernetAndIPv4) {
    Judge(gBPF_ARP, ARP(),
          {{"EtherType, high", 12, {}, {0x88}},
           {"EtherType, low", 13, {}, {0x00}},
           {"hardware type", 15, {3}, {6}},
           {"protocol type", 16, {0x09}, {0x86}},
           {"hardware length", 18, {2}, {8}},
           {"protocol length", 19, {5}, {16}},
           {"operation", 21, {2}, {}}});
    for (const size_t length : {1, 13, 19}) {
        Frame frame = ARP();
        frame.resize(length);
        EXPECT_FALSE(Passes(gBPF_ARP, frame)) << "cut to " << length;
    }
}

TEST(PacketFilter, DHCPPassesUDPToThePortInWholeOrFirstFragments) {
    for (const uint8_t port : {uint8_t{67}, uint8_t{68}}) {
        auto program = gBPF_DHCP;
        program[kBPFDestinationPortInstruction].k = port;
        Frame frame = UDP();
        frame[37] = port;
        Judge(program, frame,
              {{"EtherType", 13, {}, {0x06}},
               {"flags, don't fragment or more to come", 20, {0x20, 0x40}, {}},
               {"fragment offset, high", 20, {}, {0x01, 0x10, 0x3F}},
               {"fragment offset, low", 21, {}, {1, 0x80}},
               {"protocol", 23, {}, {6}},
               {"source port", 35, {67, 68, 99}, {}},
               {"destination port", 37, {}, {static_cast<uint8_t>(67 + 68 - port)}}});
        EXPECT_EQ(Passes(program, UDP(6)), port == 68) << "behind IPv4 options";
        EXPECT_EQ(Passes(program, UDP(15)), port == 68) << "behind the longest IPv4 header";
        Frame cut = UDP(15);
        cut.resize(60);
        EXPECT_FALSE(Passes(program, cut)) << "the port is missing";
    }
}

}  // namespace
