// ARP for IPv4 over Ethernet (RFC 826, RFC 5227): layout, sending, and handing what is received to the roles.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Ostrel/Address.h"
#include "Ostrel/Status.h"
#include "Ostrel/Wire.h"

struct Ostrel_InterfaceObj;
struct Ostrel_PacketFilter;

// Follows the Ethernet header; multi-byte fields in network byte order.
struct [[gnu::packed]] Ostrel_ARPHeader {
    uint16_t hardwareType;
    uint16_t protocolType;
    uint8_t hardwareLength;
    uint8_t protocolLength;
    uint16_t operation;
};
static_assert(sizeof(Ostrel_ARPHeader) == 8);

// Follows the ARP header.
struct [[gnu::packed]] Ostrel_ARPAddresses {
    Ostrel_MAC senderMAC;
    Ostrel_IPv4 senderIPv4;
    Ostrel_MAC targetMAC;
    Ostrel_IPv4 targetIPv4;
};
static_assert(sizeof(Ostrel_ARPAddresses) == 20);

constexpr uint16_t kARPRequest = 1;
constexpr uint16_t kARPReply = 2;
constexpr size_t kARPFrameSize =
    sizeof(Ostrel_EthernetHeader) + sizeof(Ostrel_ARPHeader) + sizeof(Ostrel_ARPAddresses);  // 42

// Builds an ARP frame in the interface's txFrame and sends it. `operation` in host order. Returns as Ostrel_SendPacket.
[[nodiscard]] Ostrel_Status Ostrel_ARPPacketSend(Ostrel_InterfaceObj* iface, const Ostrel_PacketFilter* filter,
                                                 const Ostrel_MAC& destinationMAC, uint16_t operation,
                                                 Ostrel_IPv4 sender, Ostrel_IPv4 target, const Ostrel_MAC& targetMAC);

// A broadcast request that no other host may answer unless it uses `target`: with sender 0.0.0.0 a probe, with the
// target itself an announcement (RFC 5227 section 1.1). Through the interface's arpFilter.
[[nodiscard]] Ostrel_Status Ostrel_ARPAsk(Ostrel_InterfaceObj* iface, Ostrel_IPv4 sender, Ostrel_IPv4 target);

// Opens the interface's ARP filter; as Ostrel_PacketFilterInitialize.
[[nodiscard]] Ostrel_Status Ostrel_ARPPacketFilterInitialize(Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter);

// Receive callback of the ARP filter: every frame goes to every role of the interface, in the order client, server,
// link-local. A frame under 42 bytes is dropped.
void Ostrel_ARPPacketFilterHandler(void* iface, const uint8_t* sourceAddress, std::span<const uint8_t> frame);
