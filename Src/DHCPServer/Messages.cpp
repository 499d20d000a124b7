// Messages from the network: what the server does with each.
//
//     DISCOVER   a slot is offered                        DHCPOFFER
//     REQUEST    the slot asked for becomes active        DHCPACK or DHCPNAK; the lease table is published
//     RELEASE    the station's slot is freed              no answer
//     INFORM     the slot asked for becomes active, if    DHCPACK or DHCPNAK
//                it is free and the station has none
//
// Everything else is dropped. A client is known by the Ethernet source of its frame, so all clients behind one relay
// are one client. Leases end here as well: each frame first prunes the table, and without frames nothing expires.
#include <span>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"

#include "DHCPServer/LeaseTable.h"
#include "DHCPServer/Reply.h"
#include "os_time.h"

namespace {

// What a REQUEST says of its client; the spans lie in the frame, null when the option is absent.
struct ClientIdentity {
    std::span<const uint8_t> clientIdentifier;
    std::span<const uint8_t> hostName;
};

Ostrel_Status Ostrel_DHCPServerProcessDiscover(Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_MAC station = packet.ethHdr->src;
    Ostrel_LeaseInformation* lease = nullptr;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPServer_LeaseFindByMACAndIPv4(server, kDHCPDiscover, station, kAnyIPv4, &lease));
    Ostrel_DHCPServer_LeaseClaim(server, lease, station);
    const uint32_t now = os_monotonic_seconds();
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPServerSend_BOOTPReply(server, kDHCPOffer, lease->srcMAC, packet, lease));
    Ostrel_DHCPServer_LeaseOffer(server, lease, now);
    return kNoErr;
}

// Option 50, or ciaddr for a client that extends a lease (RFC 2131 table 4).
Ostrel_IPv4 RequestedAddress(const Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet) {
    Ostrel_IPv4 requested = kAnyIPv4;
    const Ostrel_Status status =
        Ostrel_BOOTPPacketFindOptionAsIPv4(Ostrel_OptionsOf(packet), kOptionRequestedAddress, &requested);
    if (status == kNoErr && requested != kAnyIPv4) return requested;

    const Ostrel_IPv4 ciaddr = packet.dhcpPkt->ciaddr;
    DebugPrintF(kDebugLevelTrace, "[%s] No requested address, so use ciaddr %.4a.\n", server->iface->ifname.data(),
                &ciaddr);
    return ciaddr;
}

// An absent option leaves its span null; an empty one does not.
ClientIdentity ReadIdentity(const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_OptionIndex& options = Ostrel_OptionsOf(packet);
    ClientIdentity identity;
    (void)Ostrel_BOOTPPacketFindOptionAsString(options, kOptionClientIdentifier, &identity.clientIdentifier);
    (void)Ostrel_BOOTPPacketFindOptionAsString(options, kOptionHostName, &identity.hostName);
    return identity;
}

// The server identifier is not looked at: a REQUEST meant for another server is handled like any other.
Ostrel_Status Ostrel_DHCPServerProcessRequest(Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_MAC station = packet.ethHdr->src;
    const Ostrel_IPv4 requested = RequestedAddress(server, packet);
    Ostrel_LeaseInformation* lease = nullptr;
    const Ostrel_Status found =
        Ostrel_DHCPServer_LeaseFindByMACAndIPv4(server, kDHCPRequest, station, requested, &lease);
    if (found != kNoErr) {
        OSTREL_REPORT_STATUS(found);
        OSTREL_REQUIRE_NOERR(Ostrel_DHCPServerSend_BOOTPReply(server, kDHCPNak, station, packet, nullptr));
    } else {
        const ClientIdentity identity = ReadIdentity(packet);
        Ostrel_DHCPServer_LeaseActivate(server, lease, station, os_monotonic_seconds(), identity.hostName);
        OSTREL_REQUIRE(Ostrel_DHCPServer_LeaseKeepIdentifier(lease, identity.clientIdentifier),
                       "lease->clientIdentifier", kOutOfMemoryErr);
        OSTREL_REQUIRE(Ostrel_DHCPServer_LeaseKeepHostName(lease, identity.hostName), "lease->hostName",
                       kOutOfMemoryErr);
        OSTREL_REQUIRE_NOERR(Ostrel_DHCPServerSend_BOOTPReply(server, kDHCPAck, lease->srcMAC, packet, lease));
    }
    OSTREL_REQUIRE_NOERR(Ostrel_VoroServicePublishServerLeaseInformation(server->iface->sysObj, server));
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPServerProcessRelease(Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_MAC station = packet.ethHdr->src;
    const Ostrel_IPv4 ciaddr = packet.dhcpPkt->ciaddr;
    Ostrel_LeaseInformation* lease = nullptr;
    const Ostrel_Status found = Ostrel_DHCPServer_LeaseFindByMACAndIPv4(server, kDHCPRelease, station, ciaddr, &lease);
    OSTREL_REQUIRE(found == kNoErr, "lease", kNoSuchItemErr);
    OSTREL_REQUIRE(lease->srcMAC == station, "( memcmp( preprocessPkt->ethHdr->src, lease->srcMAC, ETH_ALEN ) == 0 )",
                   kNoSuchItemErr);
    OSTREL_REQUIRE(lease->IPv4Address == ciaddr, "( preprocessPkt->dhcpPkt->ciaddr == lease->IPv4Address )",
                   kNoSuchItemErr);
    return Ostrel_DHCPServer_LeaseClean(server, lease);
}

Ostrel_Status Ostrel_DHCPServerProcessInform(Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_MAC station = packet.ethHdr->src;
    Ostrel_LeaseInformation* lease = nullptr;
    const Ostrel_Status found =
        Ostrel_DHCPServer_LeaseFindByMACAndIPv4(server, kDHCPInform, station, packet.dhcpPkt->ciaddr, &lease);
    if (found == kNoErr && lease->state == kLeaseStateFree) {
        Ostrel_DHCPServer_LeaseActivate(server, lease, station, os_monotonic_seconds(), ReadIdentity(packet).hostName);
    }
    const uint8_t answer = found == kNoErr ? kDHCPAck : kDHCPNak;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPServerSend_BOOTPReply(server, answer, station, packet, lease));
    return kNoErr;
}

Ostrel_Status ProcessMessage(Ostrel_ServerObj* server, uint8_t messageType, const Ostrel_PreprocessedPacket& packet) {
    switch (messageType) {
        case kDHCPDiscover:
            return Ostrel_DHCPServerProcessDiscover(server, packet);
        case kDHCPRequest:
            return Ostrel_DHCPServerProcessRequest(server, packet);
        case kDHCPRelease:
            return Ostrel_DHCPServerProcessRelease(server, packet);
        case kDHCPInform:
            return Ostrel_DHCPServerProcessInform(server, packet);
        default:
            return kNoErr;
    }
}

}  // namespace

void Ostrel_BOOTPServerPacketFilterHandler(void* context, const uint8_t*, std::span<const uint8_t> frame) {
    const auto* iface = static_cast<const Ostrel_InterfaceObj*>(context);
    Ostrel_ServerObj* const server = iface->dhcpServer;
    Ostrel_DHCPServer_LeasePrune(server, os_monotonic_seconds());
    const Ostrel_ReceivedMessage received = Ostrel_BOOTPPacketReceive(iface, "Server", "bootps", frame);
    if (received.dissected != kNoErr) OSTREL_REPORT_STATUS(received.dissected);
    if (received.typeFound != kNoErr) {
        OSTREL_REPORT_STATUS(received.typeFound);
        return;
    }
    const Ostrel_Status status = ProcessMessage(server, received.messageType, received.packet);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_DHCPServerARPPacketHandler(Ostrel_ServerObj* server, const Ostrel_EthernetHeader*, const Ostrel_ARPHeader*,
                                       const Ostrel_ARPAddresses*) {
    OSTREL_REQUIRE(server != nullptr, "server", );
}
