// Every message the client sends.
//
//                 destination   IPv4 source   IPv4 destination  ciaddr   option 50       option 54
//     DISCOVER    broadcast     0.0.0.0       255.255.255.255   0        -               -
//     REQUEST
//      REQUESTING broadcast     0.0.0.0       255.255.255.255   0        offered address offering server
//      RENEWING   server's MAC  lease address server            0        lease address   -
//      REBINDING  broadcast     0.0.0.0       255.255.255.255   0        lease address   -
//     DECLINE     server's MAC  lease address server            lease    -               -
//
// Each has its row below, which says what is not broadcast, zero or left out. This file builds and sends them; nothing
// is retried here.
#include <algorithm>
#include <endian.h>

#include "Ostrel/Check.h"

#include "DHCPClient/Machine.h"
#include "wpabuf.h"

namespace {

Ostrel_BOOTPMessage Header(const Ostrel_ClientObj* client, Ostrel_IPv4 clientIPv4) {
    Ostrel_BOOTPMessage message{};
    message.op = kBOOTPRequest;
    message.htype = kHardwareTypeEthernet;
    message.hlen = sizeof(Ostrel_MAC);
    message.xid = client->transactionID;
    message.ciaddr = clientIPv4;
    std::copy(client->iface->macAddr.begin(), client->iface->macAddr.end(), message.chaddr.begin());
    return message;
}

Ostrel_Status AppendOptions(wpabuf* payload, const Ostrel_ClientObj* client, uint8_t messageType,
                            Ostrel_IPv4 requestedIPv4, Ostrel_IPv4 serverIdentifier) {
    // A DECLINE or RELEASE asks for nothing (RFC 2131 table 5).
    const bool asks = messageType != kDHCPDecline && messageType != kDHCPRelease;
    const uint16_t maxMessageSize = htobe16(client->maxMessageSize);

    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionMessageType, Ostrel_BytesOf(messageType)));
    if (asks) {
        OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(
            payload, kOptionParameterRequestList, {client->requestedOptions.get(), client->numRequestedOptions}));
        OSTREL_REQUIRE_NOERR(
            Ostrel_BOOTPPacketAppendOption(payload, kOptionMaximumMessageSize, Ostrel_BytesOf(maxMessageSize)));
    }
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionClientIdentifier,
                                                        {client->clientIdentifier.get(), client->clientIdentifierLen}));
    if (requestedIPv4 != kAnyIPv4) {
        OSTREL_REQUIRE_NOERR(
            Ostrel_BOOTPPacketAppendOption(payload, kOptionRequestedAddress, Ostrel_BytesOf(requestedIPv4)));
    }
    if (serverIdentifier != kAnyIPv4) {
        OSTREL_REQUIRE_NOERR(
            Ostrel_BOOTPPacketAppendOption(payload, kOptionServerIdentifier, Ostrel_BytesOf(serverIdentifier)));
    }
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionEnd, {}));
    return kNoErr;
}

}  // namespace

Ostrel_ClientMessage Ostrel_DHCPClientDiscover() {
    return {.type = kDHCPDiscover};
}

Ostrel_ClientMessage Ostrel_DHCPClientRequestOf(const Ostrel_LeaseOffer& offer) {
    return {.type = kDHCPRequest, .requested = offer.address, .server = offer.serverIdentifier};
}

Ostrel_ClientMessage Ostrel_DHCPClientRenewalOf(const Ostrel_ClientLease& lease) {
    return {.type = kDHCPRequest,
            .toMAC = lease.serverMAC,
            .source = lease.IPv4Address,
            .destination = lease.serverIPv4Address,
            .requested = lease.IPv4Address};
}

Ostrel_ClientMessage Ostrel_DHCPClientRebindingOf(const Ostrel_ClientLease& lease) {
    return {.type = kDHCPRequest, .requested = lease.IPv4Address};
}

Ostrel_ClientMessage Ostrel_DHCPClientDeclineOf(const Ostrel_ClientLease& lease) {
    return {.type = kDHCPDecline,
            .toMAC = lease.serverMAC,
            .source = lease.IPv4Address,
            .destination = lease.serverIPv4Address,
            .ciaddr = lease.IPv4Address};
}

Ostrel_Status Ostrel_DHCPClientSend_BOOTPRequest(Ostrel_ClientObj* client, const Ostrel_MAC& destinationMAC,
                                                 Ostrel_IPv4 sourceIPv4, Ostrel_IPv4 destinationIPv4,
                                                 uint8_t messageType, Ostrel_IPv4 clientIPv4, Ostrel_IPv4 requestedIPv4,
                                                 Ostrel_IPv4 serverIdentifier) {
    wpabuf* const payload = client->iface->txPayload;
    wpabuf_reset(payload);
    const bool begun = wpabuf_put_data(payload, Ostrel_BytesOf(Header(client, clientIPv4))) &&
                       wpabuf_put_data(payload, kOptionsCookie);
    OSTREL_REQUIRE(begun, "wpabuf_put_data", kTooLongErr);
    OSTREL_REQUIRE_NOERR(AppendOptions(payload, client, messageType, requestedIPv4, serverIdentifier));
    OSTREL_REQUIRE_NOERR(Ostrel_SendPacket(client->iface, &client->packetFilter, destinationMAC, sourceIPv4,
                                           kBOOTPClientPort, destinationIPv4, kBOOTPServerPort, wpabuf_bytes(payload)));
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientSend(Ostrel_ClientObj* client, const Ostrel_ClientMessage& message) {
    return Ostrel_DHCPClientSend_BOOTPRequest(client, message.toMAC, message.source, message.destination, message.type,
                                              message.ciaddr, message.requested, message.server);
}
