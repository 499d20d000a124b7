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
#include "Ostrel/Publish.h"

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

Ostrel_Verdict OutOfState(const Ostrel_ClientObj* client) {
    return {.kind = Ostrel_VerdictKind::State, .state = Ostrel_ClientStateString(client->state)};
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

// What keeps a DHCPACK from counting. A lease is extended by whoever knows of it.
Ostrel_Verdict JudgeAck(const Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    if (!IsForUs(client, packet)) return {.kind = Ostrel_VerdictKind::NotForUs};
    if (packet.dhcpPkt->xid != client->transactionID) return {.kind = Ostrel_VerdictKind::TransactionID};
    if (!AwaitsAck(client)) return OutOfState(client);
    if (!client->rules->answersAreMatched || client->state != kClientStateRequesting) return {};
    return {.kind = IsOfServerAsked(client, packet) ? Ostrel_VerdictKind::Taken : Ostrel_VerdictKind::Server};
}

// What keeps a DHCPNAK from ending what the client is doing.
Ostrel_Verdict JudgeNack(const Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    if (!IsForUs(client, packet)) return {.kind = Ostrel_VerdictKind::NotForUs};
    if (!client->rules->answersAreMatched) return {};
    if (packet.dhcpPkt->xid != client->transactionID) return {.kind = Ostrel_VerdictKind::TransactionID};
    if (!AwaitsAck(client)) return OutOfState(client);
    return {.kind = IsOfServerAsked(client, packet) ? Ostrel_VerdictKind::Taken : Ostrel_VerdictKind::Server};
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

Ostrel_Verdict Ostrel_DHCPClientProcessOffer(Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    if (!IsForUs(client, packet)) return {.kind = Ostrel_VerdictKind::NotForUs};
    OSTREL_REQUIRE(packet.dhcpPkt->xid == client->transactionID,
                   "( preprocessPkt->dhcpPkt->xid == client->transactionID )",
                   {.kind = Ostrel_VerdictKind::TransactionID});
    if (client->state != kClientStateSelecting) return OutOfState(client);

    Ostrel_IPv4 serverIdentifier = kAnyIPv4;
    const Ostrel_OptionIndex& options = Ostrel_OptionsOf(packet);
    Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsIPv4(options, kOptionServerIdentifier, &serverIdentifier);
    if (status == kNoErr) status = StoreOffer(client, serverIdentifier, packet.dhcpPkt->yiaddr);
    if (status != kNoErr) {
        OSTREL_REPORT_STATUS(status);
        return Ostrel_DHCPClientFaultOf(options, kOptionServerIdentifier, status);
    }
    ++client->counters.offerReceived;
    client->story.server = client->leaseOffers->serverIdentifier;
    Ostrel_InterfacePictureChanged(client->iface);
    // The selecting period ends on the next pass of the loop, after the offers that have already arrived.
    Ostrel_DHCPClientRearm(client, kClientTimeoutSelecting, 0);
    return {};
}

// The lease that is held stays with its address; with another one, that has to be checked first.
void TakeLease(Ostrel_ClientObj* client, Ostrel_ClientLease& lease) {
    ++client->counters.ackReceived;
    if (lease.IPv4Address != client->lease.IPv4Address) Ostrel_DHCPClientDoubt(client, Ostrel_Reason::Ack);
    Ostrel_InterfacePictureTurns(client->iface);
    client->lease = std::move(lease);
    client->story.server = client->lease.serverIdentifier;
}

Ostrel_Status Ostrel_DHCPClientProcessAck(Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet,
                                          Ostrel_Verdict& verdict) {
    verdict = JudgeAck(client, packet);
    if (verdict.kind != Ostrel_VerdictKind::Taken) return kNoErr;

    Ostrel_ClientLease lease{};
    const Ostrel_Status status = Ostrel_DHCPClientReadLease(client, packet, lease, verdict);
    if (status != kNoErr) {
        OSTREL_REPORT_STATUS(status);
        Ostrel_TraceReceived(client->iface, verdict);
        // Where a lease is acquired the next retransmission may be answered better.
        const bool isExtending = client->state == kClientStateRenewing || client->state == kClientStateRebinding;
        if (isExtending && client->rules->malformedAckEndsLease)
            Ostrel_DHCPClientStateTransition_Init(client, Ostrel_Reason::Malformed);
        return status;
    }
    TakeLease(client, lease);
    return kNoErr;
}

Ostrel_Verdict Ostrel_DHCPClientProcessNack(Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_Verdict verdict = JudgeNack(client, packet);
    if (verdict.kind != Ostrel_VerdictKind::Taken) return verdict;
    ++client->counters.nakReceived;
    Ostrel_InterfacePictureTurns(client->iface);
    ++client->story.refusals;
    client->story.server = Ostrel_DHCPClientRefuserOf(packet);
    Ostrel_DHCPClientStateTransition_Init(client, Ostrel_Reason::Nak);
    return verdict;
}

// Counts what became of a frame, and tells those who follow them.
void Note(Ostrel_ClientObj* client, const Ostrel_Verdict& verdict) {
    if (verdict.kind != Ostrel_VerdictKind::Taken) ++client->counters.dropped[static_cast<size_t>(verdict.kind)];
    Ostrel_TraceReceived(client->iface, verdict);
}

Ostrel_Verdict WithoutType(const Ostrel_ReceivedMessage& received) {
    if (received.dissected == kBadSizeErr) return {.kind = Ostrel_VerdictKind::Malformed, .state = "too short"};
    if (received.dissected != kNoErr) return {.kind = Ostrel_VerdictKind::Malformed, .state = "no options"};
    return Ostrel_DHCPClientFaultOf(Ostrel_OptionsOf(received.packet), kOptionMessageType, received.typeFound);
}

}  // namespace

void Ostrel_BOOTPClientPacketFilterHandler(void* context, const uint8_t* /*sourceAddress*/,
                                           std::span<const uint8_t> frame) {
    auto* iface = static_cast<Ostrel_InterfaceObj*>(context);
    Ostrel_ClientObj* const client = iface->dhcpClient;
    Ostrel_TraceReceiving(iface, "client", frame);
    const Ostrel_ReceivedMessage received = Ostrel_BOOTPPacketReceive(iface, "Client", "bootpc", frame);
    if (received.dissected != kNoErr) OSTREL_REPORT_STATUS(received.dissected);
    if (received.typeFound != kNoErr) {
        OSTREL_REPORT_STATUS(received.typeFound);
        return Note(client, WithoutType(received));
    }

    // A link that is back has to settle first, and then the client asks anew: what comes before that would have it hold
    // an address without a link.
    if (client->linkIsLost)
        return Note(client, {.kind = Ostrel_VerdictKind::State, .state = Ostrel_ClientStateString(client->state)});

    Ostrel_Verdict verdict{.kind = Ostrel_VerdictKind::MessageType};
    Ostrel_Status status = kNoErr;
    if (received.messageType == kDHCPOffer) verdict = Ostrel_DHCPClientProcessOffer(client, received.packet);
    if (received.messageType == kDHCPNak) verdict = Ostrel_DHCPClientProcessNack(client, received.packet);
    if (received.messageType == kDHCPAck) status = Ostrel_DHCPClientProcessAck(client, received.packet, verdict);
    Note(client, verdict);
    const bool isGranted = received.messageType == kDHCPAck && verdict.kind == Ostrel_VerdictKind::Taken;
    if (isGranted) status = Ostrel_DHCPClientStateTransition_Bound(client);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}
