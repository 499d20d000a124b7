// Replies of the server (RFC 2131 section 4.3, table 3).
//
//                 ciaddr        yiaddr     options
//     DHCPOFFER   0             the slot   53, 54, 51, then what the client asked for
//     DHCPACK     the request's the slot   53, 54, 51, then what the client asked for
//     DHCPNAK     0             0          53, 54, then what the client asked for
//     with options configured              each after the others when it is asked for, or at the end when it is forced
//     with rfc                             58, 59 after 51; 61 as it came; 82 as it came, last; a DHCPNAK has nothing
//                                          of what was asked for; the DHCPACK to an INFORM has no slot and no times
//
// xid, flags, giaddr and chaddr come back as they were sent. A client's parameter request list is answered code by
// code, in its order, as far as the reply fits a frame: an option that does not fit whole is left out, and later,
// shorter ones still have their chance.
#include "DHCPServer/Reply.h"

#include <algorithm>
#include <bitset>
#include <endian.h>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPServer/Client.h"
#include "wpabuf.h"

namespace {

constexpr size_t kEndOptionSize = 1;

constexpr size_t kPacketHeaders = sizeof(Ostrel_IPv4Header) + sizeof(Ostrel_UDPHeader);
constexpr uint16_t kLeastMessageSize =
    576;  // bytes with IP and UDP headers that every client takes (RFC 2131 section 2)

// What a reply is made from.
struct Reply {
    const Ostrel_ServerObj* server;
    const Ostrel_PreprocessedPacket& request;
    const Ostrel_LeaseInformation* lease;  // null for one without an address
    uint8_t messageType;
    wpabuf* payload;
    size_t limit;              // bytes of the payload
    size_t reserved;           // of them for what comes last
    std::bitset<256> present;  // codes of the options that it has
};

// The payload that the client, and a frame, still take: of the interface's MTU, and of txFrame.
size_t PayloadLimit(const Ostrel_ServerObj* server, const Ostrel_OptionIndex& options) {
    size_t packet = l2_packet_get_mtu(server->packetFilter.l2.get());
    if (server->rules->sizeIsHeeded) {
        uint16_t accepted = kLeastMessageSize;
        (void)Ostrel_BOOTPPacketFindOptionAsUint16(options, kOptionMaximumMessageSize, &accepted);
        packet = std::min<size_t>(packet, std::max(accepted, kLeastMessageSize));
    }
    return std::min(packet - std::min(packet, kPacketHeaders), kTransmitBufferSize - kFrameHeaderSize);
}

// The codes that the client asks for; none without the option. A list of options without an end is a failure.
Ostrel_Status ReadRequestedCodes(const Ostrel_OptionIndex& options, std::span<const uint8_t>* codes) {
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, kOptionParameterRequestList, codes);
    return status == kEndingErr ? kNoErr : status;
}

Ostrel_BOOTPMessage Header(const Reply& reply) {
    const Ostrel_BOOTPMessage& request = *reply.request.dhcpPkt;
    const bool isNak = reply.messageType == kDHCPNak;
    Ostrel_BOOTPMessage header{};
    header.op = kBOOTPReply;
    header.htype = kHardwareTypeEthernet;
    header.hlen = sizeof(Ostrel_MAC);
    header.xid = request.xid;
    header.flags = request.flags;
    if (isNak && request.giaddr != kAnyIPv4 && reply.server->rules->relayIsHeeded)
        header.flags |= htobe16(kBOOTPFlagBroadcast);
    if (reply.messageType == kDHCPAck) header.ciaddr = request.ciaddr;
    if (!isNak && reply.lease != nullptr) header.yiaddr = reply.lease->IPv4Address;
    header.giaddr = request.giaddr;
    header.chaddr = request.chaddr;
    return header;
}

// What answers an INFORM has no lease, and goes straight to its host (RFC 2131 section 4.3.5).
bool GoesToRelay(const Reply& reply) {
    const bool isToInform = reply.messageType == kDHCPAck && reply.lease == nullptr;
    return reply.request.dhcpPkt->giaddr != kAnyIPv4 && !isToInform;
}

// RFC 2131 section 4.1, by the first rule that applies.
Ostrel_IPv4 DestinationOf(const Ostrel_BOOTPMessage& header, const Reply& reply) {
    if (GoesToRelay(reply)) return header.giaddr;
    if (reply.messageType == kDHCPNak) return kBroadcastIPv4;
    if (header.ciaddr != kAnyIPv4) return header.ciaddr;
    if ((be16toh(header.flags) & kBOOTPFlagBroadcast) != 0) return kBroadcastIPv4;
    return header.yiaddr;
}

void LogDestination(const Ostrel_ServerObj* server, const Ostrel_BOOTPMessage& reply, uint8_t messageType,
                    Ostrel_IPv4 destination) {
    const Ostrel_IPv4 giaddr = reply.giaddr;
    const Ostrel_IPv4 ciaddr = reply.ciaddr;
    const Ostrel_IPv4 yiaddr = reply.yiaddr;
    DebugPrintF(kDebugLevelTrace,
                "%s(%s) DST IPv4 <%.4a> because... source packet giaddr <%.4a>, msgType <%s> ciaddr <%.4a> "
                "flags <0x%04x> yiaddr <%.4a>.\n",
                "Ostrel_DHCPServerSend_BOOTPReply", server->iface->ifname.data(), &destination, &giaddr,
                Ostrel_DHCPMsgTypeString(messageType), &ciaddr, le16toh(reply.flags), &yiaddr);
}

// The DNS servers up to the last slot that is not empty.
std::span<const uint8_t> DNSServersOf(const Ostrel_ServerObj* server) {
    const auto& slots = server->IPv4DNSServers;
    const auto last = std::find_if(slots.rbegin(), slots.rend(), [](Ostrel_IPv4 dns) { return dns != kAnyIPv4; });
    return Ostrel_BytesOf(slots).first(static_cast<size_t>(slots.rend() - last) * sizeof(Ostrel_IPv4));
}

// The host name that goes with the address which is kept for the client.
std::span<const uint8_t> HostNameOf(const Reply& reply) {
    if (reply.lease == nullptr || !reply.lease->isKept) return {};
    const Ostrel_FixedClient* const fixed =
        Ostrel_DHCPServerFixedOf(reply.server, Ostrel_DHCPServerClientOf(reply.server, reply.request));
    if (fixed == nullptr) return {};
    return {fixed->hostName.get(), fixed->hostNameLength};
}

// What was configured for a code; null when nothing was.
std::span<const uint8_t> ConfiguredOf(const Ostrel_ServerObj* server, uint8_t code) {
    const std::span<const Ostrel_OptionValue> options(server->options.values.get(), server->options.count);
    const auto place = std::ranges::find(options, code, &Ostrel_OptionValue::code);
    if (place == options.end()) return {};
    return {place->data.get(), place->length};
}

// What the server knows by itself under a code.
std::span<const uint8_t> OwnOf(const Reply& reply, uint8_t code) {
    const Ostrel_ServerObj* const server = reply.server;
    switch (code) {
        case kOptionSubnetMask:
            return Ostrel_BytesOf(server->IPv4SubnetMask);
        case kOptionRouter:
            if (server->IPv4Router == kAnyIPv4 && server->rules->routerMayBeAbsent) return {};
            return Ostrel_BytesOf(server->IPv4Router);
        case kOptionDomainNameServer:
            return DNSServersOf(server);
        case kOptionHostName:
            return HostNameOf(reply);
        case kOptionDomainName:
            return {reinterpret_cast<const uint8_t*>(server->domainName.get()), server->domainNameLength};
        default:
            return {};
    }
}

// What there is under a code that a client asks for; false when that is nothing. By the plain rules there always are
// DNS servers, if only none.
bool FindParameter(const Reply& reply, uint8_t code, std::span<const uint8_t>* data) {
    *data = OwnOf(reply, code);
    if (data->empty()) *data = ConfiguredOf(reply.server, code);
    return !data->empty() || (code == kOptionDomainNameServer && reply.server->rules->emptyIsSent);
}

Ostrel_Status Append(Reply& reply, uint8_t code, std::span<const uint8_t> data) {
    reply.present.set(code);
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(reply.payload, code, data));
    return kNoErr;
}

// Leaves an option out that doesn't fit whole. One that is longer than an option may be goes in parts (RFC 3396).
Ostrel_Status AppendIfItFits(Reply& reply, uint8_t code, std::span<const uint8_t> data) {
    const size_t parts = data.empty() ? 1 : (data.size() + kOptionMaxData - 1) / kOptionMaxData;
    const size_t size = parts * kOptionHeader + data.size();
    if (wpabuf_len(reply.payload) + size + reply.reserved > reply.limit) return kNoErr;
    for (size_t part = 0; part < parts; ++part) {
        const std::span<const uint8_t> rest = data.subspan(part * kOptionMaxData);
        OSTREL_REQUIRE_NOERR(Append(reply, code, rest.first(std::min(rest.size(), kOptionMaxData))));
    }
    return kNoErr;
}

Ostrel_Status AppendNumber(Reply& reply, uint8_t code, uint32_t value) {
    const uint32_t number = htobe32(value);
    return Append(reply, code, Ostrel_BytesOf(number));
}

// RFC 2131 section 4.4.5: T1 is half of the lease, T2 seven eighths.
Ostrel_Status AppendTimes(Reply& reply) {
    const uint32_t leaseTime = reply.server->leaseTime;
    OSTREL_REQUIRE_NOERR(AppendNumber(reply, kOptionLeaseTime, leaseTime));
    if (!reply.server->rules->timersAreSent) return kNoErr;
    OSTREL_REQUIRE_NOERR(AppendNumber(reply, kOptionRenewalTime, leaseTime / 2));
    return AppendNumber(reply, kOptionRebindingTime, static_cast<uint32_t>(uint64_t{leaseTime} * 7 / 8));
}

Ostrel_Status AppendRequested(Reply& reply, std::span<const uint8_t> codes) {
    const Ostrel_ServerRules& rules = *reply.server->rules;
    for (const uint8_t code : codes) {
        std::span<const uint8_t> data;
        if (!FindParameter(reply, code, &data)) continue;
        if (reply.present[code] && !rules.repeatsAreAnswered) continue;
        OSTREL_REQUIRE_NOERR(AppendIfItFits(reply, code, data));
    }
    return kNoErr;
}

// What was configured to be sent to everybody.
Ostrel_Status AppendForced(Reply& reply) {
    for (const Ostrel_OptionValue& option :
         std::span(reply.server->options.values.get(), reply.server->options.count)) {
        if (!option.forced || reply.present[option.code]) continue;
        OSTREL_REQUIRE_NOERR(AppendIfItFits(reply, option.code, {option.data.get(), option.length}));
    }
    return kNoErr;
}

// An option of the request, which comes back as it is; null when the rules don't have it, or the request hasn't.
std::span<const uint8_t> Echoed(const Reply& reply, bool isEchoed, uint8_t code) {
    std::span<const uint8_t> data;
    if (isEchoed) (void)Ostrel_BOOTPPacketFindOptionAsString(Ostrel_OptionsOf(reply.request), code, &data);
    return data;
}

Ostrel_Status AppendOptions(Reply& reply, std::span<const uint8_t> codes) {
    const Ostrel_ServerRules& rules = *reply.server->rules;
    const bool hasTimes = reply.messageType != kDHCPNak && reply.lease != nullptr;
    OSTREL_REQUIRE_NOERR(Append(reply, kOptionMessageType, Ostrel_BytesOf(reply.messageType)));
    OSTREL_REQUIRE_NOERR(Append(reply, kOptionServerIdentifier, Ostrel_BytesOf(reply.server->IPv4Address)));
    if (hasTimes) OSTREL_REQUIRE_NOERR(AppendTimes(reply));
    const auto identifier = Echoed(reply, rules.identifierIsEchoed, kOptionClientIdentifier);
    if (!identifier.empty()) OSTREL_REQUIRE_NOERR(AppendIfItFits(reply, kOptionClientIdentifier, identifier));
    if (reply.messageType == kDHCPNak && !rules.refusalHasOptions) return kNoErr;
    OSTREL_REQUIRE_NOERR(AppendRequested(reply, codes));
    return reply.messageType == kDHCPNak ? kNoErr : AppendForced(reply);
}

// The relay's own option, the end, and what makes the message long enough.
Ostrel_Status AppendLast(Reply& reply, std::span<const uint8_t> relayOption) {
    if (relayOption.data() != nullptr)
        OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(reply.payload, kOptionRelayAgent, relayOption));
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(reply.payload, kOptionEnd, {}));
    const size_t length = wpabuf_len(reply.payload);
    const size_t padded = std::min<size_t>(reply.server->rules->paddedTo, reply.limit);
    if (length >= padded) return kNoErr;
    const std::span<uint8_t> padding = wpabuf_put(reply.payload, padded - length);
    OSTREL_REQUIRE(!padding.empty(), "wpabuf_put", kTooLongErr);
    std::fill(padding.begin(), padding.end(), kOptionPad);
    return kNoErr;
}

// A relay listens elsewhere than a client, and a broadcast is for all hosts of the link; or else a reply goes back
// where its request came from.
Ostrel_Status Send(const Reply& reply, Ostrel_IPv4 destination) {
    const Ostrel_ServerObj* const server = reply.server;
    const bool isToAll = destination == kBroadcastIPv4 && server->rules->broadcastsOnLink;
    return Ostrel_SendPacket(
        server->iface, &server->packetFilter, isToAll ? kBroadcastMAC : Ostrel_MAC{reply.request.ethHdr->src},
        server->IPv4Address, kBOOTPServerPort, destination,
        GoesToRelay(reply) ? server->rules->relayPort : kBOOTPClientPort, wpabuf_bytes(reply.payload));
}

void CountSent(Ostrel_ServerCounters& counters, uint8_t messageType) {
    if (messageType == kDHCPOffer) ++counters.offerSent;
    if (messageType == kDHCPAck) ++counters.ackSent;
    if (messageType == kDHCPNak) ++counters.nakSent;
}

}  // namespace

Ostrel_Status Ostrel_DHCPServerSend_BOOTPReply(Ostrel_ServerObj* server, uint8_t messageType,
                                               const Ostrel_PreprocessedPacket& request,
                                               const Ostrel_LeaseInformation* lease) {
    const Ostrel_OptionIndex& options = Ostrel_OptionsOf(request);
    Reply reply{.server = server,
                .request = request,
                .lease = lease,
                .messageType = messageType,
                .payload = server->iface->txPayload,
                .limit = PayloadLimit(server, options),
                .reserved = kEndOptionSize,
                .present = {}};
    wpabuf_reset(reply.payload);
    std::span<const uint8_t> codes;
    OSTREL_REQUIRE_NOERR(ReadRequestedCodes(options, &codes));

    const Ostrel_BOOTPMessage header = Header(reply);
    const Ostrel_IPv4 destination = DestinationOf(header, reply);
    LogDestination(server, header, messageType, destination);

    const auto relayOption = Echoed(reply, server->rules->relayIsEchoed, kOptionRelayAgent);
    if (relayOption.data() != nullptr) reply.reserved += kOptionHeader + relayOption.size();
    const bool begun =
        wpabuf_put_data(reply.payload, Ostrel_BytesOf(header)) && wpabuf_put_data(reply.payload, kOptionsCookie);
    OSTREL_REQUIRE(begun, "wpabuf_put_data", kTooLongErr);
    OSTREL_REQUIRE_NOERR(AppendOptions(reply, codes));
    OSTREL_REQUIRE_NOERR(AppendLast(reply, relayOption));
    OSTREL_REQUIRE_NOERR(Send(reply, destination));
    CountSent(server->counters, messageType);
    return kNoErr;
}
