// A BOOTP message becomes an Ethernet frame on the wire.
//
// The headers are written here because the kernel cannot: a client has no address yet, and a server answers hosts that
// have none. The frame is built in the interface's txFrame; the next frame of the interface overwrites it.
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <endian.h>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPShared.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/PacketFilter.h"

#include "wpabuf.h"

namespace {

constexpr uint8_t kVersion4FiveWords = 0x45;
constexpr uint8_t kTimeToLive = 128;

Ostrel_IPv4Header IPHeader(Ostrel_IPv4 source, Ostrel_IPv4 destination, size_t payloadLength) {
    Ostrel_IPv4Header header{};
    header.versionAndLength = kVersion4FiveWords;
    header.totalLength =
        htobe16(static_cast<uint16_t>(sizeof(Ostrel_IPv4Header) + sizeof(Ostrel_UDPHeader) + payloadLength));
    header.timeToLive = kTimeToLive;
    header.protocol = kIPProtocolUDP;
    header.src = source;
    header.dst = destination;
    header.checksum = Ostrel_Wrapsum(Ostrel_Checksum(Ostrel_BytesOf(header), 0));
    return header;
}

// The checksum covers a pseudo-header of addresses, protocol and length as well (RFC 768).
Ostrel_UDPHeader UDPHeader(const Ostrel_IPv4Header& ip, uint16_t sourcePort, uint16_t destinationPort,
                           std::span<const uint8_t> payload) {
    const auto length = static_cast<uint16_t>(sizeof(Ostrel_UDPHeader) + payload.size());
    Ostrel_UDPHeader header{};
    header.srcPort = htobe16(sourcePort);
    header.dstPort = htobe16(destinationPort);
    header.length = htobe16(length);

    constexpr size_t kAddresses = sizeof ip.src + sizeof ip.dst;
    uint32_t sum = static_cast<uint32_t>(kIPProtocolUDP) + length;
    sum = Ostrel_Checksum(Ostrel_BytesOf(ip).last(kAddresses), sum);
    sum = Ostrel_Checksum(payload, sum);
    sum = Ostrel_Checksum(Ostrel_BytesOf(header), sum);
    header.checksum = Ostrel_Wrapsum(sum);
    return header;
}

// Adds up the 16-bit words of a number, with end-around carry.
uint32_t Fold(uint64_t number) {
    while (number > 0xFFFF) number = (number >> 16) + (number & 0xFFFF);
    return static_cast<uint32_t>(number);
}

}  // namespace

// A sum of longer words is the same once its halves are added up, in either byte order (RFC 1071 section 2).
uint32_t Ostrel_Checksum(std::span<const uint8_t> data, uint32_t sum) {
    uint64_t words = 0;
    const auto add = [&words](uint64_t word) { words += (word & UINT32_MAX) + (word >> 32); };
    const size_t whole = data.size() & ~size_t{7};
    for (size_t i = 0; i < whole; i += sizeof(uint64_t)) {
        uint64_t word = 0;
        std::memcpy(&word, &data[i], sizeof word);
        add(word);
    }
    std::array<uint8_t, sizeof(uint64_t)> rest{};
    std::copy(data.begin() + static_cast<std::ptrdiff_t>(whole), data.end(), rest.begin());
    add(std::bit_cast<uint64_t>(rest));
    return Fold(uint64_t{sum} + be16toh(static_cast<uint16_t>(Fold(words))));
}

uint16_t Ostrel_Wrapsum(uint32_t sum) {
    return htobe16(static_cast<uint16_t>(~sum & 0xFFFFU));
}

Ostrel_Status Ostrel_SendPacket(Ostrel_InterfaceObj* iface, const Ostrel_PacketFilter* filter,
                                const Ostrel_MAC& destinationMAC, Ostrel_IPv4 source, uint16_t sourcePort,
                                Ostrel_IPv4 destination, uint16_t destinationPort, std::span<const uint8_t> payload) {
    const Ostrel_EthernetHeader ethernet{destinationMAC, iface->macAddr, htobe16(kEtherTypeIPv4)};
    const Ostrel_IPv4Header ip = IPHeader(source, destination, payload.size());
    const Ostrel_UDPHeader udp = UDPHeader(ip, sourcePort, destinationPort, payload);

    wpabuf_reset(iface->txFrame);
    const bool built = wpabuf_put_data(iface->txFrame, Ostrel_BytesOf(ethernet)) &&
                       wpabuf_put_data(iface->txFrame, Ostrel_BytesOf(ip)) &&
                       wpabuf_put_data(iface->txFrame, Ostrel_BytesOf(udp)) && wpabuf_put_data(iface->txFrame, payload);
    OSTREL_REQUIRE(built, "wpabuf_put_data", kSendFailedErr);

    DebugPrintF(kDebugLevelVerbose, "Sending DHCP Packet\n");
    DebugHexDump(kDebugLevelVerbose, wpabuf_bytes(iface->txFrame));
    const char* const role = sourcePort == kBOOTPServerPort ? "server" : "client";
    OSTREL_REQUIRE(!Ostrel_SendIsCutShort(iface, filter, role), "( err >= wpabuf_len( iface->txFrame ) )",
                   kSendFailedErr);
    return kNoErr;
}
