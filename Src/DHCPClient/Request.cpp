// Every message the client sends.
//
//                 destination   IPv4 source   IPv4 destination  ciaddr   option 50       option 54
//     DISCOVER    broadcast     0.0.0.0       255.255.255.255   0        -               -
//     REQUEST
//      REQUESTING broadcast     0.0.0.0       255.255.255.255   0        offered address offering server
//      REBOOTING  broadcast     0.0.0.0       255.255.255.255   0        former address  -
//      RENEWING   server's MAC  lease address the ACK's source  0        lease address   -
//        table 5  server's MAC  lease address option 54         lease    -               -
//      REBINDING  broadcast     0.0.0.0       255.255.255.255   0        lease address   -
//        table 5  broadcast     lease address 255.255.255.255   lease    -               -
//     DECLINE     server's MAC  lease address the ACK's source  lease    -               -
//        table 5  broadcast     0.0.0.0       255.255.255.255   0        lease address   its server
//     RELEASE     server's MAC  lease address option 54         lease    -               its server
//
// Each has its row below, which says what is not broadcast, zero or left out; "table 5" is of RFC 2131, for the rules
// that follow it. This file builds and sends them; nothing is retried here.
#include <algorithm>
#include <endian.h>

#include "Ostrel/Check.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"
#include "wpabuf.h"

namespace {

constexpr size_t kLargestMessage = 1472;  // bytes: what a frame of 1500 holds beside the headers

// A DECLINE or RELEASE asks for nothing (RFC 2131 table 5).
bool Asks(const Ostrel_ClientMessage& message) {
    return message.type != kDHCPDecline && message.type != kDHCPRelease;
}

// Seconds since the transaction began. The REQUEST for an offer says what its DISCOVER did, so that a relay hands both
// to the same server (RFC 2131 section 3.1).
uint16_t SecsOf(const Ostrel_ClientObj* client, const Ostrel_ClientMessage& message) {
    if (!client->rules->messagesFollowTable5 || !Asks(message)) return 0;
    if (client->state == kClientStateRequesting) return client->secs;
    const uint64_t seconds = (os_monotonic_milliseconds() - client->transactionStart) / 1000;
    return static_cast<uint16_t>(std::min<uint64_t>(seconds, UINT16_MAX));
}

Ostrel_BOOTPMessage Header(const Ostrel_ClientObj* client, const Ostrel_ClientMessage& message) {
    const bool wantsBroadcast = client->broadcast && Asks(message) && message.ciaddr == kAnyIPv4;
    Ostrel_BOOTPMessage header{};
    header.op = kBOOTPRequest;
    header.htype = kHardwareTypeEthernet;
    header.hlen = sizeof(Ostrel_MAC);
    header.xid = client->transactionID;
    header.secs = htobe16(SecsOf(client, message));
    header.flags = wantsBroadcast ? htobe16(kBOOTPFlagBroadcast) : 0;
    header.ciaddr = message.ciaddr;
    std::copy(client->iface->macAddr.begin(), client->iface->macAddr.end(), header.chaddr.begin());
    return header;
}

Ostrel_Status AppendAddress(wpabuf* payload, uint8_t code, Ostrel_IPv4 address) {
    if (address == kAnyIPv4) return kNoErr;
    return Ostrel_BOOTPPacketAppendOption(payload, code, Ostrel_BytesOf(address));
}

// What a caller has sent beside the usual, in the form of the wire.
Ostrel_Status AppendSentOptions(wpabuf* payload, const Ostrel_ClientObj* client) {
    return wpabuf_put_data(payload, {client->sentOptions.get(), client->sentOptionsLen}) ? kNoErr : kTooLongErr;
}

Ostrel_Status AppendOptions(wpabuf* payload, const Ostrel_ClientObj* client, const Ostrel_ClientMessage& message) {
    const bool asks = Asks(message);
    const uint16_t maxMessageSize = htobe16(client->maxMessageSize);

    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionMessageType, Ostrel_BytesOf(message.type)));
    if (asks) {
        OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(
            payload, kOptionParameterRequestList, {client->requestedOptions.get(), client->numRequestedOptions}));
        OSTREL_REQUIRE_NOERR(
            Ostrel_BOOTPPacketAppendOption(payload, kOptionMaximumMessageSize, Ostrel_BytesOf(maxMessageSize)));
    }
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionClientIdentifier,
                                                        {client->clientIdentifier.get(), client->clientIdentifierLen}));
    OSTREL_REQUIRE_NOERR(AppendAddress(payload, kOptionRequestedAddress, message.requested));
    OSTREL_REQUIRE_NOERR(AppendAddress(payload, kOptionServerIdentifier, message.server));
    if (asks) OSTREL_REQUIRE_NOERR(AppendSentOptions(payload, client));
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionEnd, {}));
    return kNoErr;
}

// Pads what is shorter than the rules have it.
Ostrel_Status Pad(wpabuf* payload, const Ostrel_ClientObj* client) {
    while (wpabuf_len(payload) < client->rules->leastMessage) {
        OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionPad, {}));
    }
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientSend_BOOTPRequest(Ostrel_ClientObj* client, const Ostrel_ClientMessage& message) {
    wpabuf* const payload = client->iface->txPayload;
    wpabuf_reset(payload);
    const Ostrel_BOOTPMessage header = Header(client, message);
    client->secs = be16toh(header.secs);
    const bool begun = wpabuf_put_data(payload, Ostrel_BytesOf(header)) && wpabuf_put_data(payload, kOptionsCookie);
    OSTREL_REQUIRE(begun, "wpabuf_put_data", kTooLongErr);
    OSTREL_REQUIRE_NOERR(AppendOptions(payload, client, message));
    OSTREL_REQUIRE_NOERR(Pad(payload, client));
    OSTREL_REQUIRE_NOERR(Ostrel_SendPacket(client->iface, &client->packetFilter, message.toMAC, message.source,
                                           kBOOTPClientPort, message.destination, kBOOTPServerPort,
                                           wpabuf_bytes(payload)));
    return kNoErr;
}

// An option as it stands on the wire, in as many parts as it needs (RFC 3396 section 5).
size_t WireLength(const Ostrel_OptionValue& option) {
    const size_t parts = std::max<size_t>(1, (option.length + kOptionMaxData - 1) / kOptionMaxData);
    return parts * kOptionHeader + option.length;
}
uint8_t* Write(const Ostrel_OptionValue& option, uint8_t* to) {
    std::span<const uint8_t> rest{option.data.get(), option.length};
    do {
        const std::span<const uint8_t> part = rest.first(std::min(rest.size(), kOptionMaxData));
        *to++ = option.code;
        *to++ = static_cast<uint8_t>(part.size());
        to = std::copy(part.begin(), part.end(), to);
        rest = rest.subspan(part.size());
    } while (!rest.empty());
    return to;
}

// The longest message without a caller's options: fixed part, cookie, then options 53, 55, 57, 61, 50, 54 and the end.
size_t LongestUsualMessage(const Ostrel_ClientObj* client) {
    return sizeof(Ostrel_BOOTPMessage) + kOptionsCookie.size() + 6 * kOptionHeader + 1 + client->numRequestedOptions +
           sizeof(uint16_t) + client->clientIdentifierLen + 2 * sizeof(Ostrel_IPv4) + 1;
}

}  // namespace

Ostrel_Status Ostrel_DHCPClientKeepSentOptions(Ostrel_ClientObj* client, const Ostrel_OptionList& options) {
    const std::span<const Ostrel_OptionValue> values{options.values.get(), options.count};
    size_t length = 0;
    for (const Ostrel_OptionValue& option : values) length += WireLength(option);
    if (length == 0) return kNoErr;
    OSTREL_REQUIRE(LongestUsualMessage(client) + length <= kLargestMessage, "( length <= kLargestMessage )",
                   kTooLongErr);
    client->sentOptions = os_zalloc_array<uint8_t>(length);
    OSTREL_REQUIRE(client->sentOptions != nullptr, "client->sentOptions", kOutOfMemoryErr);
    uint8_t* to = client->sentOptions.get();
    for (const Ostrel_OptionValue& option : values) to = Write(option, to);
    client->sentOptionsLen = static_cast<uint32_t>(length);
    return kNoErr;
}

Ostrel_ClientMessage Ostrel_DHCPClientDiscover() {
    return {.type = kDHCPDiscover};
}

Ostrel_ClientMessage Ostrel_DHCPClientRequestOf(const Ostrel_LeaseOffer& offer) {
    return {.type = kDHCPRequest, .requested = offer.address, .server = offer.serverIdentifier};
}

Ostrel_ClientMessage Ostrel_DHCPClientRebootOf(Ostrel_IPv4 address) {
    return {.type = kDHCPRequest, .requested = address};
}

Ostrel_ClientMessage Ostrel_DHCPClientRenewalOf(const Ostrel_ClientObj* client) {
    const Ostrel_ClientLease& lease = client->lease;
    const bool isTable5 = client->rules->messagesFollowTable5;
    return {.type = kDHCPRequest,
            .toMAC = lease.serverMAC,
            .source = lease.IPv4Address,
            .destination = isTable5 ? lease.serverIdentifier : lease.serverIPv4Address,
            .ciaddr = isTable5 ? lease.IPv4Address : kAnyIPv4,
            .requested = isTable5 ? kAnyIPv4 : lease.IPv4Address};
}

Ostrel_ClientMessage Ostrel_DHCPClientRebindingOf(const Ostrel_ClientObj* client) {
    const Ostrel_IPv4 address = client->lease.IPv4Address;
    if (!client->rules->messagesFollowTable5) return {.type = kDHCPRequest, .requested = address};
    return {.type = kDHCPRequest, .source = address, .ciaddr = address};
}

Ostrel_ClientMessage Ostrel_DHCPClientDeclineOf(const Ostrel_ClientObj* client) {
    const Ostrel_ClientLease& lease = client->lease;
    if (client->rules->messagesFollowTable5) {
        return Ostrel_DHCPClientDeclineOf(lease.IPv4Address, lease.serverIdentifier);
    }
    return {.type = kDHCPDecline,
            .toMAC = lease.serverMAC,
            .source = lease.IPv4Address,
            .destination = lease.serverIPv4Address,
            .ciaddr = lease.IPv4Address};
}

Ostrel_ClientMessage Ostrel_DHCPClientDeclineOf(Ostrel_IPv4 address, Ostrel_IPv4 server) {
    return {.type = kDHCPDecline, .requested = address, .server = server};
}

Ostrel_ClientMessage Ostrel_DHCPClientReleaseOf(const Ostrel_ClientLease& lease) {
    return {.type = kDHCPRelease,
            .toMAC = lease.serverMAC,
            .source = lease.IPv4Address,
            .destination = lease.serverIdentifier,
            .ciaddr = lease.IPv4Address,
            .server = lease.serverIdentifier};
}

Ostrel_Status Ostrel_DHCPClientSend(Ostrel_ClientObj* client, const Ostrel_ClientMessage& message) {
    if (message.type != kDHCPRelease && !Ostrel_DHCPClientTakeFrame(client)) return kNoErr;
    const Ostrel_Status status = Ostrel_DHCPClientSend_BOOTPRequest(client, message);
    if (status == kNoErr)
        Ostrel_DHCPClientTellSent(client, message.type);
    else
        Ostrel_DHCPClientTellTimes(client);  // the step ends, with nothing armed for it
    return status;
}
