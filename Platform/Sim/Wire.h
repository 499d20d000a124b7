// DHCP and ARP frames as a bystander reads and writes them: from the bytes, sharing nothing with the daemon.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Sim.h"

namespace sim {

using IPv4 = uint32_t;  // host order: 0xC0000201 is 192.0.2.1

constexpr MAC kEveryone{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr IPv4 kEveryoneIPv4 = 0xFFFFFFFF;

[[nodiscard]] IPv4 ToIPv4(std::string_view text);
[[nodiscard]] std::string ToText(IPv4 address);
[[nodiscard]] std::vector<uint8_t> Bytes(std::string hex);  // blanks are skipped

enum MessageType : uint8_t { kDiscover = 1, kOffer, kRequest, kDecline, kAck, kNak, kRelease, kInform };

struct DHCPMessage {
    MAC ethernetDestination{};
    MAC ethernetSource{};
    IPv4 source = 0;
    IPv4 destination = 0;
    uint16_t sourcePort = 0;
    uint16_t destinationPort = 0;
    uint8_t op = 0;
    uint8_t hops = 0;
    uint32_t xid = 0;  // its bytes on the wire, the first in the most significant place
    uint16_t flags = 0;
    IPv4 ciaddr = 0;
    IPv4 yiaddr = 0;
    IPv4 giaddr = 0;
    MAC chaddr{};
    std::vector<std::pair<uint8_t, std::vector<uint8_t>>> options = {};  // in their order, without pad and end
    Duration time{0};                                                    // when it was sent, where that is known

    [[nodiscard]] const std::vector<uint8_t>* Find(uint8_t code) const;
    [[nodiscard]] uint8_t Type() const;                                // 0: none
    [[nodiscard]] std::optional<uint32_t> Number(uint8_t code) const;  // an option of four bytes, an address too
};

// Nothing when the frame isn't a DHCP message with options.
[[nodiscard]] std::optional<DHCPMessage> ReadDHCP(std::span<const uint8_t> frame);
[[nodiscard]] Frame WriteDHCP(const DHCPMessage& message);

struct ARPFrame {
    MAC ethernetDestination{};
    uint16_t operation = 0;  // 1 request, 2 reply
    MAC senderMAC{};
    IPv4 sender = 0;
    MAC targetMAC{};
    IPv4 target = 0;
};

[[nodiscard]] std::optional<ARPFrame> ReadARP(std::span<const uint8_t> frame);
[[nodiscard]] Frame WriteARP(const ARPFrame& arp);

// What a receiver would object to in a frame's lengths and checksums (RFC 791, RFC 768); empty when nothing.
[[nodiscard]] std::string FindFault(std::span<const uint8_t> frame);

}  // namespace sim
