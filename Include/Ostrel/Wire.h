// What every frame on the wire begins with: Ethernet, IPv4 and UDP headers, and their numbers.
//
// The records lie over the bytes as they are; multi-byte fields are in network byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

#include "Ostrel/Address.h"

struct [[gnu::packed]] Ostrel_EthernetHeader {
    Ostrel_MAC dst;
    Ostrel_MAC src;
    uint16_t etherType;
};
static_assert(sizeof(Ostrel_EthernetHeader) == 14);

struct [[gnu::packed]] Ostrel_IPv4Header {
    uint8_t versionAndLength;  // length: low four bits, in 32-bit words
    uint8_t typeOfService;
    uint16_t totalLength;
    uint16_t identification;
    uint16_t flagsAndOffset;
    uint8_t timeToLive;
    uint8_t protocol;
    uint16_t checksum;
    Ostrel_IPv4 src;
    Ostrel_IPv4 dst;
};
static_assert(sizeof(Ostrel_IPv4Header) == 20);

struct [[gnu::packed]] Ostrel_UDPHeader {
    uint16_t srcPort;
    uint16_t dstPort;
    uint16_t length;
    uint16_t checksum;
};
static_assert(sizeof(Ostrel_UDPHeader) == 8);

constexpr uint16_t kEtherTypeIPv4 = 0x0800;
constexpr uint16_t kEtherTypeARP = 0x0806;
constexpr uint8_t kIPProtocolUDP = 17;
constexpr uint8_t kHardwareTypeEthernet = 1;  // in ARP, in BOOTP, in a client identifier

// The bytes of a header or a number, as they lie in memory.
template <typename Value>
[[nodiscard]] std::span<const uint8_t> Ostrel_BytesOf(const Value& value) {
    static_assert(std::is_trivially_copyable_v<Value>);
    return {reinterpret_cast<const uint8_t*>(&value), sizeof value};
}
