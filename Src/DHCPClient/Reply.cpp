// Replies from the network.
//
// A DHCPOFFER joins the offer list, a DHCPACK becomes the lease, a DHCPNAK starts the client over. Every step first
// decides whether the message is for this client (chaddr, xid, state), then reads all it needs, and only then changes
// the client: a malformed DHCPACK leaves no half-read lease behind. Frames are valid only during the call.
//
// Which xid and state each message needs (RFC 2131 section 4.4.1 and 4.4.5; a DHCPNAK counts in any state):
//
//                 xid         state
//     DHCPOFFER   current     SELECTING
//     DHCPACK     current     REQUESTING, RENEWING, REBINDING
//     DHCPNAK     any         any
#include <algorithm>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"

namespace {

bool IsForUs(const Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_MAC& mac = client->iface->macAddr;
    return std::equal(mac.begin(), mac.end(), packet.dhcpPkt->chaddr.begin());
}

bool AwaitsAck(const Ostrel_ClientObj* client) {
    return client->state == kClientStateRequesting || client->state == kClientStateRenewing ||
           client->state == kClientStateRebinding;
}

// An option that may be absent; false when it is there, or the options are, in no usable shape.
bool IsReadOrAbsent(Ostrel_Status status) {
    return status == kNoErr || status == kEndingErr;
}

Ostrel_Status ReadTimes(const Ostrel_OptionIndex& options, Ostrel_ClientLease& lease) {
    Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsUint32(options, kOptionLeaseTime, &lease.leaseTime);
    if (status != kNoErr) return status;

    // Defaults of RFC 2131 section 4.4.5.
    lease.renewalTime = lease.leaseTime / 2;
    lease.rebindingTime = static_cast<uint32_t>(uint64_t{lease.leaseTime} * 7 / 8);
    status = Ostrel_BOOTPPacketFindOptionAsUint32(options, kOptionRenewalTime, &lease.renewalTime);
    OSTREL_REQUIRE(IsReadOrAbsent(status), "( ( err == kNoErr ) || ( err == kEndingErr ) )", status);
    status = Ostrel_BOOTPPacketFindOptionAsUint32(options, kOptionRebindingTime, &lease.rebindingTime);
    OSTREL_REQUIRE(IsReadOrAbsent(status), "( ( err == kNoErr ) || ( err == kEndingErr ) )", status);

    // Unsigned whatever their order: T1, T2 and the lease time are taken as given.
    lease.renewRetryTime = lease.rebindingTime - lease.renewalTime;
    lease.rebindRetryTime = lease.leaseTime - lease.rebindingTime;
    return kNoErr;
}

Ostrel_Status ReadAddresses(const Ostrel_OptionIndex& options, uint8_t code, os_array<Ostrel_IPv4>& addresses,
                            int32_t& number) {
    std::span<const uint8_t> data;
    Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, code, &data);
    if (status == kEndingErr) return kNoErr;
    if (status != kNoErr) return status;
    uint32_t count = 0;
    status = Ostrel_BOOTPPacketProcessOptionAsIPv4Array(data, &addresses, &count);
    if (status == kNoErr) number = static_cast<int32_t>(count);
    return status;
}

Ostrel_Status ReadDomainName(const Ostrel_OptionIndex& options, Ostrel_ClientLease& lease) {
    std::span<const uint8_t> name;
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, kOptionDomainName, &name);
    if (status == kEndingErr) return kNoErr;
    if (status != kNoErr) return status;
    lease.domainName = os_copy_array<char>({reinterpret_cast<const char*>(name.data()), name.size()}, 1);
    OSTREL_REQUIRE(lease.domainName != nullptr, "lease->domainName", kOutOfMemoryErr);
    lease.domainNameLen = static_cast<uint32_t>(name.size());
    return kNoErr;
}

Ostrel_Status ReadLease(const Ostrel_PreprocessedPacket& packet, Ostrel_ClientLease& lease) {
    const Ostrel_OptionIndex& options = Ostrel_OptionsOf(packet);
    lease.leaseAcquired = os_monotonic_seconds();
    lease.serverMAC = packet.ethHdr->src;
    lease.serverIPv4Address = packet.ipHdr->src;
    lease.IPv4Address = packet.dhcpPkt->yiaddr;

    Ostrel_Status status = ReadTimes(options, lease);
    if (status != kNoErr) return status;
    status = Ostrel_BOOTPPacketFindOptionAsIPv4(options, kOptionServerIdentifier, &lease.serverIdentifier);
    if (status != kNoErr) return status;
    status = Ostrel_BOOTPPacketFindOptionAsIPv4(options, kOptionSubnetMask, &lease.IPv4SubnetMask);
    if (status != kNoErr) return status;
    status = ReadAddresses(options, kOptionRouter, lease.IPv4Routers, lease.numIPv4Routers);
    if (status != kNoErr) return status;
    status = ReadAddresses(options, kOptionDomainNameServer, lease.IPv4DNSServers, lease.numIPv4DNSServers);
    if (status != kNoErr) return status;
    return ReadDomainName(options, lease);
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

    Ostrel_ClientLease lease{};
    const Ostrel_Status status = ReadLease(packet, lease);
    if (status != kNoErr) {
        OSTREL_REPORT_STATUS(status);
        // In REQUESTING the next retransmission may be answered better; a lease being extended is given up.
        if (client->state != kClientStateRequesting) Ostrel_DHCPClientStateTransition_Init(client);
        return status;
    }
    client->lease = std::move(lease);
    return Ostrel_DHCPClientStateTransition_Bound(client);
}

void Ostrel_DHCPClientProcessNack(Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    if (IsForUs(client, packet)) Ostrel_DHCPClientStateTransition_Init(client);
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
