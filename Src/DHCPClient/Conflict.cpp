// The ARP check of the leased address, and its defence (RFC 2131 section 4.4.1, RFC 5227).
//
// While a new address is checked, and for as long as its lease lives, a frame of another host that has the address
// means that it is taken: the server is told with a DECLINE and the client starts over. By the plain rules only a reply
// counts, at any time. By the rfc rules any frame counts whose sender has the address, under the check also a probe for
// it, and an address in use is defended first.
#include <endian.h>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"

#include "DHCPClient/Machine.h"
#include "os_device.h"
#include "os_time.h"

namespace {

// Of the check's length. Probes are one or two ninths apart, at random, and four are left for the last answer: with
// 9000 ms as PROBE_MIN, PROBE_MAX and ANNOUNCE_WAIT of RFC 5227 section 1.1 have it.
constexpr uint32_t kCheckParts = 9;

// Whoever calls it reports its failure; likewise below.
Ostrel_Status Probe(Ostrel_ClientObj* client) {
    const Ostrel_Status status = Ostrel_DHCPClientAskARP(client, kAnyIPv4);
    if (status != kNoErr) return status;
    --client->probesLeft;
    const uint32_t part = client->arpCheck / kCheckParts;
    if (client->probesLeft == 0) return kNoErr;
    Ostrel_DHCPClientArm(client, kClientTimeoutProbing, Ostrel_DHCPClientDraw(client, part, 2 * part));
    return kNoErr;
}

// Whether the frame, of another, says that its sender has the address, or is about to take it.
bool Claims(const Ostrel_ClientObj* client, const Ostrel_ARPHeader* arp, const Ostrel_ARPAddresses* addresses) {
    const Ostrel_IPv4 ours = client->lease.IPv4Address;
    if (!client->rules->anyARPFrameCounts) return be16toh(arp->operation) == kARPReply && addresses->senderIPv4 == ours;

    const bool isProbe = be16toh(arp->operation) == kARPRequest && addresses->senderIPv4 == kAnyIPv4;
    if (client->isChecking && isProbe && addresses->targetIPv4 == ours) return true;
    return addresses->senderIPv4 == ours && (client->isChecking || client->iface->leaseIsHeld);
}

bool IsConflict(const Ostrel_ClientObj* client, const Ostrel_ARPHeader* arp, const Ostrel_ARPAddresses* addresses) {
    if (client->lease.IPv4Address == kAnyIPv4 || addresses->senderMAC == client->iface->macAddr) return false;
    if (!Claims(client, arp, addresses)) return false;
    return !client->rules->anyARPFrameCounts || !os_is_own_address(addresses->senderMAC);
}

// Whether an address in use is kept, which one announcement in an interval tells the other host (RFC 5227 section 2.4
// b). A static address is kept in any case, by the rules that defend at all (2.4 c).
bool Defends(Ostrel_ClientObj* client) {
    const uint32_t interval = client->rules->defendInterval;
    if (interval == 0 || client->isChecking || !client->iface->leaseIsHeld) return false;
    const uint64_t now = os_monotonic_milliseconds();
    if (client->defences != 0 && now - client->lastDefence < interval) return Ostrel_DHCPClientIsStatic(client);
    ++client->defences;
    client->lastDefence = now;
    const Ostrel_Status status = Ostrel_DHCPClientAskARP(client, client->lease.IPv4Address);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    return true;
}

// Tells the server, at once or, where there is no room among the frames of a second, a little later, and starts over.
void Decline(Ostrel_ClientObj* client, bool isHeldBack) {
    client->declinedAddress = client->lease.IPv4Address;
    client->declinedServer = client->lease.serverIdentifier;
    const uint32_t rest = Ostrel_DHCPClientFrameRest(client, 1);
    if (!isHeldBack && rest == 0) {
        const Ostrel_Status status = Ostrel_DHCPClientSend(client, Ostrel_DHCPClientDeclineOf(client));
        if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    }
    Ostrel_DHCPClientStateTransition_Init(client, Ostrel_Reason::Conflict);
    if (!isHeldBack && rest != 0) Ostrel_DHCPClientArm(client, kClientTimeoutDeclining, rest);
}

}  // namespace

Ostrel_Status Ostrel_DHCPClientBeginCheck(Ostrel_ClientObj* client, uint32_t milliseconds) {
    client->isChecking = milliseconds != 0;
    client->probesLeft = client->rules->probes;
    const Ostrel_Status status = client->isChecking ? Probe(client) : kNoErr;
    if (status != kNoErr) return status;
    Ostrel_DHCPClientArm(client, kClientTimeoutArping, milliseconds);
    return kNoErr;
}

void Ostrel_DHCPClientTimeout_Probing(void* context, void* /*iface*/) {
    const Ostrel_Status status = Probe(Ostrel_DHCPClientEnterHandler(context, kClientTimeoutProbing, __func__));
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_DHCPClientTimeout_Announcing(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutAnnouncing, __func__);
    if (Ostrel_DHCPClientHasToWait(client, kClientTimeoutAnnouncing)) return;
    const Ostrel_Status status = Ostrel_DHCPClientAskARP(client, client->lease.IPv4Address);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    if (--client->announcementsLeft == 0) return;
    Ostrel_DHCPClientArm(client, kClientTimeoutAnnouncing, kClientTimeouts[kClientTimeoutAnnouncing].longest);
}

void Ostrel_DHCPClientTimeout_Declining(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutDeclining, __func__);
    const Ostrel_ClientMessage decline = Ostrel_DHCPClientDeclineOf(client->declinedAddress, client->declinedServer);
    const Ostrel_Status status = Ostrel_DHCPClientSend(client, decline);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

Ostrel_Verdict Ostrel_DHCPClientARPPacketHandler(Ostrel_ClientObj* client, const Ostrel_EthernetHeader* /*frame*/,
                                                 const Ostrel_ARPHeader* arpHeader,
                                                 const Ostrel_ARPAddresses* addresses) {
    OSTREL_REQUIRE(client != nullptr, "client", {.kind = Ostrel_VerdictKind::NotConcerned});
    if (!IsConflict(client, arpHeader, addresses)) return {.kind = Ostrel_VerdictKind::NotConcerned};
    const bool isNews = Ostrel_DHCPClientTellConflict(client, addresses->senderMAC);
    const bool isKept = Defends(client);
    const bool isHeldBack = !isKept && Ostrel_DHCPClientStormAsk(client, client->declines, "DECLINE") != 0;
    if (isKept || (isHeldBack && client->state == kClientStateInit)) {  // the restart from the last one still waits
        if (isNews) Ostrel_InterfacePictureChanged(client->iface);
        return {};
    }
    Ostrel_DHCPClientDisarm(client, kClientTimeoutArping);
    DebugPrintF(kDebugLevelInfo, "[%s] DHCP Client RX'd ARP %s from %.6a for lease offer of %.4a.\n",
                client->iface->ifname.data(), be16toh(arpHeader->operation) == kARPReply ? "REPLY" : "REQUEST",
                addresses->senderMAC, &client->lease.IPv4Address);
    Decline(client, isHeldBack);
    return {};
}
