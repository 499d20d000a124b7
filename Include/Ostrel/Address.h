// Addresses as the records, packets and options hold them.
#pragma once

#include <array>
#include <cstdint>

using Ostrel_IPv4 = uint32_t;               // network byte order: the four bytes as they stand in a packet
using Ostrel_MAC = std::array<uint8_t, 6>;  // Ethernet address

constexpr Ostrel_MAC kBroadcastMAC{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr Ostrel_IPv4 kBroadcastIPv4 = 0xFFFFFFFF;  // 255.255.255.255
constexpr Ostrel_IPv4 kAnyIPv4 = 0;                 // 0.0.0.0: none
