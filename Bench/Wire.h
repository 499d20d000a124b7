// DHCP frames and a raw socket, for the programs that measure. Written apart from the daemon, so that neither can hide
// the other's mistakes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace bench {

using MAC = std::array<uint8_t, 6>;
using IPv4 = std::array<uint8_t, 4>;

constexpr uint8_t kDiscover = 1;
constexpr uint8_t kOffer = 2;
constexpr uint8_t kRequest = 3;
constexpr uint8_t kAck = 5;
constexpr uint8_t kNak = 6;

constexpr size_t kFrameSize = 600;  // room for what these programs send

struct Frame {
    std::array<uint8_t, kFrameSize> bytes;
    size_t length;
};

// What a message says. `requested` is yiaddr in a reply, option 50 in a request; zero when absent.
struct Message {
    uint8_t type;
    MAC client;  // chaddr
    uint32_t xid;
    IPv4 address;
    IPv4 server;  // option 54; zero when absent
};

// The Ethernet address of the Nth client that these programs play, counted from 0.
MAC ClientAddress(uint32_t client);

// A whole frame from client to server or back, checksums included.
Frame MakeRequest(const Message& message);
Frame MakeRenewal(const Message& message, const MAC& serverMAC);  // of the address, unicast
Frame MakeReply(const Message& message, const MAC& serverMAC, uint32_t leaseSeconds);

// False when the frame is no DHCP message over UDP.
bool Parse(std::span<const uint8_t> frame, Message& message);

// The reply to an ARP request for `address`, which `mac` has; nothing when the frame is none.
std::optional<Frame> AnswerARP(std::span<const uint8_t> frame, const MAC& mac, const IPv4& address);

// A packet socket on the interface that receives only UDP to `port`, and ARP if asked for; -1 with errno on failure.
// `mac` is the interface's.
int OpenSocket(const char* ifname, uint16_t port, MAC& mac, bool withARP = false);

}  // namespace bench
