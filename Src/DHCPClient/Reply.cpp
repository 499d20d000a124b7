// Replies from the network.
//
// A DHCPOFFER joins the offer list, a DHCPACK becomes the lease, a DHCPNAK starts the client over. Every step first
// decides whether the message is for this client (chaddr, xid, state), then reads all it needs, and only then changes
// the client: a malformed DHCPACK leaves no half-read lease behind. Frames are valid only during the call.
//
// Which xid, state and server each message needs (RFC 2131 section 4.4.1 and 4.4.5). The server is the one of option
// 54; it was asked in REQUESTING and RENEWING, in REBINDING and REBOOTING they all were.
//
//                 xid         state                                         server
//     DHCPOFFER   current     SELECTING                                     any
//     DHCPACK     current     REQUESTING, REBOOTING, RENEWING, REBINDING    any; rfc: in REQUESTING the one asked
//     DHCPNAK
//      plain      any         any                                           any
//      rfc        current     as a DHCPACK                                  the one asked
#include <algorithm>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPClient/Machine.h"

namespace {

bool IsForUs(const Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_MAC& mac = client->iface->macAddr;
    return std::equal(mac.begin(), mac.end(), packet.dhcpPkt->chaddr.begin());
}

bool AwaitsAck(const Ostrel_ClientObj* client) {
    return client->state == kClientStateRequesting || client->state == kClientStateRebooting ||
           client->state == kClientStateRenewing || client->state == kClientStateRebinding;
}

// Whether a message comes from the server that the REQUEST under way was for.
bool IsOfServerAsked(const Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    Ostrel_IPv4 asked = kAnyIPv4;
    if (client->state == kClientStateRequesting) asked = client->leaseOffers->serverIdentifier;
    if (client->state == kClientStateRenewing) asked = client->lease.serverIdentifier;
    if (asked == kAnyIPv4) return true;
    Ostrel_IPv4 server = kAnyIPv4;
    const Ostrel_Status status =
        Ostrel_BOOTPPacketFindOptionAsIPv4(Ostrel_OptionsOf(packet), kOptionServerIdentifier, &server);
    return status == kNoErr && server == asked;
}

// Whether a DHCPACK, of the right transaction, may come from its server. A lease is extended by whoever knows of it.
bool MayGrant(const Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    if (!client->rules->answersAreMatched || client->state != kClientStateRequesting) return true;
    return IsOfServerAsked(client, packet);
}

// Whether a DHCPNAK ends what the client is doing.
bool MayRefuse(const Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    if (!client->rules->answersAreMatched) return true;
    return AwaitsAck(client) && packet.dhcpPkt->xid == client->transactionID && IsOfServerAsked(client, packet);
}

// A server that offers twice keeps its place; its later address counts.
Ostrel_Status StoreOffer(Ostrel_ClientObj* client, Ostrel_IPv4 serverIdentifier, Ostrel_IPv4 address) {
    os_owner<Ostrel_LeaseOffer>* link = &client->leaseOffers;
    while (*link != nullptr && (*link)->serverIdentifier != serverIdentifier) link = &(*link)->next;
    if (*link == nullptr) {
        link->reset(os_new<Ostrel_LeaseOffer>());
        OSTREL_REQUIRE(*link != nullptr, "leaseOffer", kOutOfMemoryErr);
        (*link)->serverIdentifier = serverIdentifier;
    }
    (*link)->address = address;
    return kNoErr;
}

void Ostrel_DHCPClientProcessOffer(Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    if (!IsForUs(client, packet)) return;
    OSTREL_REQUIRE(packet.dhcpPkt->xid == client->transactionID,
                   "( preprocessPkt->dhcpPkt->xid == client->transactionID )", );
    if (client->state != kClientStateSelecting) return;

    Ostrel_IPv4 serverIdentifier = kAnyIPv4;
    Ostrel_Status status =
        Ostrel_BOOTPPacketFindOptionAsIPv4(Ostrel_OptionsOf(packet), kOptionServerIdentifier, &serverIdentifier);
    if (status == kNoErr) status = StoreOffer(client, serverIdentifier, packet.dhcpPkt->yiaddr);
    if (status != kNoErr) {
        OSTREL_REPORT_STATUS(status);
        return;
    }
    // The selecting period ends on the next pass of the loop, after the offers that have already arrived.
    Ostrel_RearmTimeout(client->iface, client, kClientTimeouts[kClientTimeoutSelecting], 0);
}

Ostrel_Status Ostrel_DHCPClientProcessAck(Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    if (!IsForUs(client, packet) || packet.dhcpPkt->xid != client->transactionID || !AwaitsAck(client)) return kNoErr;
    if (!MayGrant(client, packet)) return kNoErr;

    Ostrel_ClientLease lease{};
    const Ostrel_Status status = Ostrel_DHCPClientReadLease(client, packet, lease);
    if (status != kNoErr) {
        OSTREL_REPORT_STATUS(status);
        // Where a lease is acquired the next retransmission may be answered better.
        const bool isExtending = client->state == kClientStateRenewing || client->state == kClientStateRebinding;
        if (isExtending && client->rules->malformedAckEndsLease) Ostrel_DHCPClientStateTransition_Init(client);
        return status;
    }
    client->lease = std::move(lease);
    return Ostrel_DHCPClientStateTransition_Bound(client);
}

void Ostrel_DHCPClientProcessNack(Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    if (!IsForUs(client, packet) || !MayRefuse(client, packet)) return;
    Ostrel_DHCPClientStateTransition_Init(client, kClientSetbackRefused);
}

}  // namespace

void Ostrel_BOOTPClientPacketFilterHandler(void* context, const uint8_t* /*sourceAddress*/,
                                           std::span<const uint8_t> frame) {
    const auto* iface = static_cast<const Ostrel_InterfaceObj*>(context);
    Ostrel_ClientObj* const client = iface->dhcpClient;
    const Ostrel_ReceivedMessage received = Ostrel_BOOTPPacketReceive(iface, "Client", "bootpc", frame);
    if (received.dissected != kNoErr) OSTREL_REPORT_STATUS(received.dissected);
    if (received.typeFound != kNoErr) {
        OSTREL_REPORT_STATUS(received.typeFound);
        return;
    }

    if (received.messageType == kDHCPOffer) Ostrel_DHCPClientProcessOffer(client, received.packet);
    if (received.messageType == kDHCPNak) Ostrel_DHCPClientProcessNack(client, received.packet);
    if (received.messageType != kDHCPAck) return;
    const Ostrel_Status status = Ostrel_DHCPClientProcessAck(client, received.packet);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}
