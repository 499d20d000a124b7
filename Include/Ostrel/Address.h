// Addresses as the records, packets and options hold them.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

using Ostrel_IPv4 = uint32_t;               // network byte order: the four bytes as they stand in a packet
using Ostrel_MAC = std::array<uint8_t, 6>;  // Ethernet address

constexpr Ostrel_MAC kBroadcastMAC{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr Ostrel_IPv4 kBroadcastIPv4 = 0xFFFFFFFF;  // 255.255.255.255
constexpr Ostrel_IPv4 kAnyIPv4 = 0;                 // 0.0.0.0: none

// Whether one host may have the address: it is not of this network, looped back, multicast or reserved (RFC 1122
// section 3.2.1.3).
[[nodiscard]] constexpr bool Ostrel_IsOfHost(Ostrel_IPv4 address) {
    const uint8_t first = std::bit_cast<std::array<uint8_t, 4>>(address)[0];
    return first != 0 && first != 127 && first < 224;
}
