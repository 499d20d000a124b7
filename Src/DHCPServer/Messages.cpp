// Messages from the network: what the server does with each, by the plain rules and, where they differ, by the rfc
// ones.
//
//     DISCOVER   a slot is offered                        DHCPOFFER, after the slot was probed where that is done
//     REQUEST    the slot asked for becomes active        DHCPACK or DHCPNAK; the lease table is published
//       rfc      likewise, and its time begins anew       no answer to what is another server's business
//     RELEASE    the client's slot is freed               no answer
//     DECLINE    nothing                                  no answer
//       rfc      the client's slot is held                no answer
//     INFORM     the slot asked for becomes active, if    DHCPACK or DHCPNAK
//                it is free and the client has none
//       rfc      nothing                                  DHCPACK
//
// Everything else is dropped. Leases end here as well: each frame first prunes the table, and without frames nothing
// expires.
#include "DHCPServer/Messages.h"

#include <span>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"

#include "DHCPServer/Client.h"
#include "DHCPServer/GivenLeases.h"
#include "DHCPServer/LeaseEvents.h"
#include "DHCPServer/LeaseTable.h"
#include "DHCPServer/Probe.h"
#include "DHCPServer/Reply.h"
#include "DHCPServer/Slots.h"
#include "os_time.h"

namespace {

using enum Ostrel_VerdictKind;

// What a REQUEST says of its client; the spans lie in the frame, null when the option is absent.
struct ClientIdentity {
    std::span<const uint8_t> clientIdentifier;
    std::span<const uint8_t> hostName;
};

bool IsOfSubnet(const Ostrel_ServerObj* server, Ostrel_IPv4 address) {
    return (address & server->IPv4SubnetMask) == server->IPv4Subnet;
}

// The address of an option, or 0.
Ostrel_IPv4 AddressIn(const Ostrel_PreprocessedPacket& packet, uint8_t code) {
    Ostrel_IPv4 address = kAnyIPv4;
    (void)Ostrel_BOOTPPacketFindOptionAsIPv4(Ostrel_OptionsOf(packet), code, &address);
    return address;
}

// Whether a message is for another server than this one.
bool IsForAnother(const Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet) {
    if (!server->rules->serverIsHeeded) return false;
    const Ostrel_IPv4 chosen = AddressIn(packet, kOptionServerIdentifier);
    return chosen != kAnyIPv4 && chosen != server->IPv4Address;
}

// Option 50, or ciaddr for a client that extends a lease (RFC 2131 table 4).
Ostrel_IPv4 RequestedAddress(const Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_IPv4 requested = AddressIn(packet, kOptionRequestedAddress);
    if (requested != kAnyIPv4) return requested;

    const Ostrel_IPv4 ciaddr = packet.dhcpPkt->ciaddr;
    DebugPrintF(kDebugLevelTrace, "[%s] No requested address, so use ciaddr %.4a.\n", server->iface->ifname.data(),
                &ciaddr);
    return ciaddr;
}

// Whether a REQUEST for an address that its client can't have is refused. It is left alone when the address may be
// another server's to give (RFC 2131 section 4.3.2): Docs/rfc.md has the cases.
bool IsRefused(const Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet, Ostrel_IPv4 requested) {
    if (server->rules->refusesUnknown) return true;
    const bool isForUs =
        packet.ipHdr->dst == server->IPv4Address || AddressIn(packet, kOptionServerIdentifier) != kAnyIPv4;
    if (isForUs) return true;
    if (requested == kAnyIPv4) return false;
    return !IsOfSubnet(server, requested) || Ostrel_LeaseSlotOfAddress(server, requested) != nullptr;
}

// An absent option leaves its span null; an empty one does not.
ClientIdentity ReadIdentity(const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_OptionIndex& options = Ostrel_OptionsOf(packet);
    ClientIdentity identity;
    (void)Ostrel_BOOTPPacketFindOptionAsString(options, kOptionClientIdentifier, &identity.clientIdentifier);
    (void)Ostrel_BOOTPPacketFindOptionAsString(options, kOptionHostName, &identity.hostName);
    return identity;
}

// A message that the server leaves alone, for a reason that is no failure.
Ostrel_Status Drop(const Ostrel_ServerMessage& message, Ostrel_VerdictKind kind, const char* what = nullptr) {
    *message.verdict = Ostrel_Verdict{.kind = kind, .state = what};
    return kNoErr;
}

// The status of handling a message as a verdict.
Ostrel_Verdict VerdictOf(Ostrel_Status status) {
    switch (status) {
        case kNoErr:
            return {};
        case kNoSuchItemErr:
            return {.kind = NoLease};
        case kNoFreeResourceErr:
            return {.kind = NoAddress};
        case kTooShortErr:
            return {.kind = Malformed, .state = "options without an end"};
        default:
            return {.kind = Failed};
    }
}

// Of a frame without a message type; taken so far where it has one.
Ostrel_Verdict VerdictOfFault(const Ostrel_ReceivedMessage& received) {
    if (received.dissected == kBadSizeErr) return {.kind = Malformed, .state = "shorter than DHCP"};
    if (received.dissected != kNoErr) return {.kind = Malformed, .state = "not DHCP"};
    if (received.typeFound == kBadSizeErr) return {.kind = Malformed, .option = kOptionMessageType};
    if (received.typeFound != kNoErr) return {.kind = Malformed, .state = "no message type"};
    return {};
}

Ostrel_Status Ostrel_DHCPServerProcessRequest(Ostrel_ServerObj* server, const Ostrel_ServerMessage& message) {
    const auto& [packet, client, now, verdict] = message;
    if (IsForAnother(server, packet)) {
        Ostrel_DHCPServer_LeaseForgo(server, client);
        return Drop(message, Server);
    }
    const ClientIdentity identity = ReadIdentity(packet);
    const Ostrel_IPv4 requested = RequestedAddress(server, packet);
    Ostrel_LeaseInformation* lease = nullptr;
    const Ostrel_Status found =
        Ostrel_DHCPServer_LeaseFindByMACAndIPv4(server, kDHCPRequest, client, requested, &lease);
    if (found != kNoErr) {
        if (!IsRefused(server, packet, requested)) return Drop(message, requested == kAnyIPv4 ? NoLease : Server);
        OSTREL_REPORT_STATUS(found);
        OSTREL_REQUIRE_NOERR(Ostrel_DHCPServerSend_BOOTPReply(server, kDHCPNak, packet, nullptr));
        Ostrel_DHCPServerTellRefusal(server, client, requested, identity.hostName);
    } else {
        Ostrel_DHCPServer_LeaseClaim(server, lease, client.station, client.key);
        Ostrel_DHCPServer_LeaseActivate(server, lease, client.station, now, identity.hostName);
        OSTREL_REQUIRE(Ostrel_DHCPServer_LeaseKeepIdentifier(lease, identity.clientIdentifier),
                       "lease->clientIdentifier", kOutOfMemoryErr);
        OSTREL_REQUIRE(Ostrel_DHCPServer_LeaseKeepHostName(lease, identity.hostName), "lease->hostName",
                       kOutOfMemoryErr);
        OSTREL_REQUIRE_NOERR(Ostrel_DHCPServerSend_BOOTPReply(server, kDHCPAck, packet, lease));
    }
    *verdict = Ostrel_Verdict{};
    OSTREL_REQUIRE_NOERR(Ostrel_VoroServicePublishServerLeaseInformation(server->iface->sysObj, server));
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPServerProcessRelease(Ostrel_ServerObj* server, const Ostrel_ServerMessage& message) {
    if (IsForAnother(server, message.packet)) return Drop(message, Server);
    Ostrel_LeaseInformation* lease = nullptr;
    const Ostrel_Status found = Ostrel_DHCPServer_LeaseFindByMACAndIPv4(server, kDHCPRelease, message.client,
                                                                        message.packet.dhcpPkt->ciaddr, &lease);
    OSTREL_REQUIRE(found == kNoErr, "lease", kNoSuchItemErr);
    return Ostrel_DHCPServer_LeaseClean(server, lease, Ostrel_LeaseEventKind::Released);
}

// Only the client that has the address can say that somebody else has it too (RFC 2131 section 4.3.3).
Ostrel_Status Ostrel_DHCPServerProcessDecline(Ostrel_ServerObj* server, const Ostrel_ServerMessage& message) {
    const auto& [packet, client, now, verdict] = message;
    if (!server->rules->declineHolds) return Drop(message, MessageType);
    if (IsForAnother(server, packet)) return Drop(message, Server);
    const Ostrel_IPv4 declined = AddressIn(packet, kOptionRequestedAddress);
    Ostrel_LeaseInformation* lease = nullptr;
    const Ostrel_Status found = Ostrel_DHCPServer_LeaseFindByMACAndIPv4(server, kDHCPDecline, client, declined, &lease);
    OSTREL_REQUIRE(found == kNoErr, "lease", kNoSuchItemErr);
    Ostrel_DHCPServer_LeaseHold(server, lease, client.station, client.key, now,
                                {"declined", Ostrel_LeaseEventKind::Declined});
    return kNoErr;
}

// The slot that the address of an INFORM takes, or null.
Ostrel_LeaseInformation* BindInformed(Ostrel_ServerObj* server, const Ostrel_ServerMessage& message) {
    Ostrel_LeaseInformation* lease = nullptr;
    const Ostrel_Status found = Ostrel_DHCPServer_LeaseFindByMACAndIPv4(server, kDHCPInform, message.client,
                                                                        message.packet.dhcpPkt->ciaddr, &lease);
    if (found == kNoErr && !Ostrel_LeaseIsInUse(lease->state)) {
        Ostrel_DHCPServer_LeaseClaim(server, lease, message.client.station, message.client.key);
        Ostrel_DHCPServer_LeaseActivate(server, lease, message.client.station, message.now,
                                        ReadIdentity(message.packet).hostName);
    }
    return lease;
}

// By the rfc rules a host of the subnet is told what there is, whoever gave it its address.
Ostrel_Status Ostrel_DHCPServerProcessInform(Ostrel_ServerObj* server, const Ostrel_ServerMessage& message) {
    const Ostrel_IPv4 ciaddr = message.packet.dhcpPkt->ciaddr;
    if (!server->rules->informBinds && ciaddr == kAnyIPv4) return Drop(message, Malformed, "no ciaddr");
    if (!server->rules->informBinds && !IsOfSubnet(server, ciaddr)) return Drop(message, Relay);
    const Ostrel_LeaseInformation* lease = server->rules->informBinds ? BindInformed(server, message) : nullptr;
    const bool isAnswered = lease != nullptr || !server->rules->informBinds;
    OSTREL_REQUIRE_NOERR(
        Ostrel_DHCPServerSend_BOOTPReply(server, isAnswered ? kDHCPAck : kDHCPNak, message.packet, lease));
    if (!isAnswered)
        Ostrel_DHCPServerTellRefusal(server, message.client, ciaddr, ReadIdentity(message.packet).hostName);
    return kNoErr;
}

Ostrel_Status ProcessMessage(Ostrel_ServerObj* server, uint8_t messageType, const Ostrel_ServerMessage& message) {
    switch (messageType) {
        case kDHCPDiscover:
            return Ostrel_DHCPServerProcessDiscover(server, message);
        case kDHCPRequest:
            return Ostrel_DHCPServerProcessRequest(server, message);
        case kDHCPDecline:
            return Ostrel_DHCPServerProcessDecline(server, message);
        case kDHCPRelease:
            return Ostrel_DHCPServerProcessRelease(server, message);
        case kDHCPInform:
            return Ostrel_DHCPServerProcessInform(server, message);
        default:
            return Drop(message, MessageType);
    }
}

void CountReceived(Ostrel_ServerCounters& counters, uint8_t messageType) {
    if (messageType == kDHCPDiscover) ++counters.discoverReceived;
    if (messageType == kDHCPRequest) ++counters.requestReceived;
    if (messageType == kDHCPDecline) ++counters.declineReceived;
    if (messageType == kDHCPRelease) ++counters.releaseReceived;
    if (messageType == kDHCPInform) ++counters.informReceived;
}

// A client behind a relay of another subnet could do nothing with an address of this one.
bool ComesFromElsewhere(const Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet) {
    const Ostrel_IPv4 giaddr = packet.dhcpPkt->giaddr;
    return server->rules->relayIsHeeded && giaddr != kAnyIPv4 && !IsOfSubnet(server, giaddr);
}

// Where a client is its identifier, the table shows from the offer on whom a slot is for.
void Ostrel_DHCPServerMarkOffered(Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& discover,
                                  Ostrel_LeaseInformation* lease, uint32_t now) {
    Ostrel_DHCPServer_LeaseOffer(server, lease, now);
    if (!server->rules->knowsByIdentifier || lease->state != kLeaseStateOffered) return;
    if (!Ostrel_DHCPServer_LeaseKeepIdentifier(lease, ReadIdentity(discover).clientIdentifier))
        OSTREL_REPORT_STATUS(kOutOfMemoryErr);
}

Ostrel_Status Handle(Ostrel_ServerObj* server, const Ostrel_ReceivedMessage& received, uint32_t now,
                     Ostrel_Verdict* verdict) {
    CountReceived(server->counters, received.messageType);
    if (server->awaitsLeases) {
        *verdict = {.kind = State, .state = kAwaitsLeases};
        return kNoErr;
    }
    if (ComesFromElsewhere(server, received.packet)) {
        verdict->kind = Relay;
        return kNoErr;
    }
    std::optional<Ostrel_Verdict> said;
    const Ostrel_ServerMessage message{received.packet, Ostrel_DHCPServerClientOf(server, received.packet), now, &said};
    const Ostrel_Status status = ProcessMessage(server, received.messageType, message);
    *verdict = said ? *said : VerdictOf(status);
    return status;
}

}  // namespace

Ostrel_Status Ostrel_DHCPServerOffer(Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& discover,
                                     Ostrel_LeaseInformation* lease, uint32_t now) {
    const Ostrel_Status status = Ostrel_DHCPServerSend_BOOTPReply(server, kDHCPOffer, discover, lease);
    if (status == kNoErr) Ostrel_DHCPServerMarkOffered(server, discover, lease, now);
    return status;
}

Ostrel_Status Ostrel_DHCPServerProcessDiscover(Ostrel_ServerObj* server, const Ostrel_ServerMessage& message) {
    const auto& [packet, client, now, verdict] = message;
    const Ostrel_IPv4 wished = server->rules->remembersHolders ? AddressIn(packet, kOptionRequestedAddress) : kAnyIPv4;
    Ostrel_LeaseInformation* lease = nullptr;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPServer_LeaseFindByMACAndIPv4(server, kDHCPDiscover, client, wished, &lease));
    if (Ostrel_DHCPServerProbeIsUnderWay(server, lease, client, packet)) return kNoErr;
    const bool isProbed = Ostrel_DHCPServerProbeIsWanted(server, lease, client);
    Ostrel_DHCPServer_LeaseClaim(server, lease, client.station, client.key);
    if (isProbed && Ostrel_DHCPServerProbeBegin(server, lease, client, packet)) {
        Ostrel_DHCPServerMarkOffered(server, packet, lease, now);
        return kNoErr;
    }
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPServerOffer(server, packet, lease, now));
    return kNoErr;
}

void Ostrel_BOOTPServerPacketFilterHandler(void* context, const uint8_t*, std::span<const uint8_t> frame) {
    auto* const iface = static_cast<Ostrel_InterfaceObj*>(context);
    Ostrel_ServerObj* const server = iface->dhcpServer;
    Ostrel_TraceReceiving(iface, "server", frame);
    const uint32_t now = os_monotonic_seconds();
    if (!server->awaitsLeases) Ostrel_DHCPServer_LeasePrune(server, now);
    const Ostrel_ReceivedMessage received = Ostrel_BOOTPPacketReceive(iface, "Server", "bootps", frame);
    if (received.dissected != kNoErr) OSTREL_REPORT_STATUS(received.dissected);
    if (received.typeFound != kNoErr) OSTREL_REPORT_STATUS(received.typeFound);
    Ostrel_Verdict verdict = VerdictOfFault(received);
    const Ostrel_Status status = verdict.kind == Taken ? Handle(server, received, now, &verdict) : kNoErr;
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    if (verdict.kind != Taken) ++server->counters.dropped[static_cast<size_t>(verdict.kind)];
    Ostrel_TraceReceived(iface, verdict);
}
