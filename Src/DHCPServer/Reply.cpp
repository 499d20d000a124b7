// Replies of the server (RFC 2131 section 4.3, table 3).
//
//                 ciaddr        yiaddr     options
//     DHCPOFFER   0             the slot   53, 54, 51, then what the client asked for
//     DHCPACK     the request's the slot   53, 54, 51, then what the client asked for
//     DHCPNAK     0             0          53, 54, then what the client asked for
//
// xid, flags, giaddr and chaddr come back as they were sent. A client's parameter request list is answered code by
// code, in its order and with its repeats, as far as the reply fits a frame: an option that does not fit whole is left
// out, and later, shorter ones still have their chance.
#include "DHCPServer/Reply.h"

#include <algorithm>
#include <endian.h>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "wpabuf.h"

namespace {

constexpr size_t kEndOptionSize = 1;

// The payload that still fits a frame: of the interface's MTU, and of txFrame.
size_t PayloadLimit(const Ostrel_ServerObj* server) {
    constexpr size_t kPacketHeaders = sizeof(Ostrel_IPv4Header) + sizeof(Ostrel_UDPHeader);
    const size_t mtu = l2_packet_get_mtu(server->packetFilter.l2.get());
    return std::min(mtu - std::min(mtu, kPacketHeaders), kTransmitBufferSize - kFrameHeaderSize);
}

// The codes that the client asks for; none without the option. A list of options without an end is a failure.
Ostrel_Status ReadRequestedCodes(const Ostrel_OptionIndex& options, std::span<const uint8_t>* codes) {
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, kOptionParameterRequestList, codes);
    return status == kEndingErr ? kNoErr : status;
}

Ostrel_BOOTPMessage Header(const Ostrel_BOOTPMessage& request, uint8_t messageType,
                           const Ostrel_LeaseInformation* lease) {
    Ostrel_BOOTPMessage reply{};
    reply.op = kBOOTPReply;
    reply.htype = kHardwareTypeEthernet;
    reply.hlen = sizeof(Ostrel_MAC);
    reply.xid = request.xid;
    reply.flags = request.flags;
    if (messageType == kDHCPAck) reply.ciaddr = request.ciaddr;
    if (messageType != kDHCPNak && lease != nullptr) reply.yiaddr = lease->IPv4Address;
    reply.giaddr = request.giaddr;
    reply.chaddr = request.chaddr;
    return reply;
}

// RFC 2131 section 4.1, by the first rule that applies; a relay, too, is answered on the client's port.
Ostrel_IPv4 DestinationOf(const Ostrel_BOOTPMessage& reply, uint8_t messageType) {
    if (reply.giaddr != kAnyIPv4) return reply.giaddr;
    if (messageType == kDHCPNak) return kBroadcastIPv4;
    if (reply.ciaddr != kAnyIPv4) return reply.ciaddr;
    if ((be16toh(reply.flags) & kBOOTPFlagBroadcast) != 0) return kBroadcastIPv4;
    return reply.yiaddr;
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

// What the server knows under a code that a client asks for; false when that is nothing.
bool FindParameter(const Ostrel_ServerObj* server, uint8_t code, std::span<const uint8_t>* data) {
    switch (code) {
        case kOptionSubnetMask:
            *data = Ostrel_BytesOf(server->IPv4SubnetMask);
            return true;
        case kOptionRouter:
            *data = Ostrel_BytesOf(server->IPv4Router);
            return true;
        case kOptionDomainNameServer:
            *data = DNSServersOf(server);
            return true;
        case kOptionDomainName:
            *data = {reinterpret_cast<const uint8_t*>(server->domainName.get()), server->domainNameLength};
            return !data->empty();
        default:
            return false;
    }
}

Ostrel_Status AppendRequested(wpabuf* payload, const Ostrel_ServerObj* server, std::span<const uint8_t> codes) {
    const size_t limit = PayloadLimit(server);
    for (const uint8_t code : codes) {
        std::span<const uint8_t> data;
        if (!FindParameter(server, code, &data)) continue;
        if (wpabuf_len(payload) + kOptionHeader + data.size() + kEndOptionSize > limit) continue;
        OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, code, data));
    }
    return kNoErr;
}

Ostrel_Status AppendOptions(wpabuf* payload, const Ostrel_ServerObj* server, uint8_t messageType,
                            std::span<const uint8_t> codes) {
    const uint32_t leaseTime = htobe32(server->leaseTime);
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionMessageType, Ostrel_BytesOf(messageType)));
    OSTREL_REQUIRE_NOERR(
        Ostrel_BOOTPPacketAppendOption(payload, kOptionServerIdentifier, Ostrel_BytesOf(server->IPv4Address)));
    if (messageType != kDHCPNak) {
        OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionLeaseTime, Ostrel_BytesOf(leaseTime)));
    }
    OSTREL_REQUIRE_NOERR(AppendRequested(payload, server, codes));
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketAppendOption(payload, kOptionEnd, {}));
    return kNoErr;
}

}  // namespace

Ostrel_Status Ostrel_DHCPServerSend_BOOTPReply(Ostrel_ServerObj* server, uint8_t messageType,
                                               const Ostrel_MAC& destinationMAC,
                                               const Ostrel_PreprocessedPacket& request,
                                               const Ostrel_LeaseInformation* lease) {
    wpabuf* const payload = server->iface->txPayload;
    wpabuf_reset(payload);
    std::span<const uint8_t> codes;
    OSTREL_REQUIRE_NOERR(ReadRequestedCodes(Ostrel_OptionsOf(request), &codes));

    const Ostrel_BOOTPMessage reply = Header(*request.dhcpPkt, messageType, lease);
    const Ostrel_IPv4 destination = DestinationOf(reply, messageType);
    LogDestination(server, reply, messageType, destination);

    const bool begun = wpabuf_put_data(payload, Ostrel_BytesOf(reply)) && wpabuf_put_data(payload, kOptionsCookie);
    OSTREL_REQUIRE(begun, "wpabuf_put_data", kTooLongErr);
    OSTREL_REQUIRE_NOERR(AppendOptions(payload, server, messageType, codes));
    OSTREL_REQUIRE_NOERR(Ostrel_SendPacket(server->iface, &server->packetFilter, destinationMAC, server->IPv4Address,
                                           kBOOTPServerPort, destination, kBOOTPClientPort, wpabuf_bytes(payload)));
    return kNoErr;
}
