// The ARP check of the leased address (RFC 2131 section 4.4.1, RFC 5227 section 2.1).
//
// A reply from another host for the leased address means that the address is taken: the server is told with a DECLINE
// and the client starts over. That holds for the two seconds before a lease is published and for as long as it lives.
#include <endian.h>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPClient/Machine.h"

namespace {

bool IsConflict(const Ostrel_ClientObj* client, const Ostrel_ARPHeader* arp, const Ostrel_ARPAddresses* addresses) {
    return be16toh(arp->operation) == kARPReply && client->lease.IPv4Address != kAnyIPv4 &&
           addresses->senderIPv4 == client->lease.IPv4Address && addresses->senderMAC != client->iface->macAddr;
}

}  // namespace

void Ostrel_DHCPClientARPPacketHandler(Ostrel_ClientObj* client, const Ostrel_EthernetHeader* /*frame*/,
                                       const Ostrel_ARPHeader* arpHeader, const Ostrel_ARPAddresses* addresses) {
    OSTREL_REQUIRE(client != nullptr, "client", );
    if (!IsConflict(client, arpHeader, addresses)) return;
    const bool isHeldBack = Ostrel_DHCPClientStormAsk(client, client->declines, "DECLINE") != 0;
    if (isHeldBack && client->state == kClientStateInit) return;  // the restart from the last one still waits

    const Ostrel_ClientLease& lease = client->lease;
    Ostrel_DisarmTimeout(client->iface, client, kClientTimeouts[kClientTimeoutArping]);
    DebugPrintF(kDebugLevelInfo, "[%s] DHCP Client RX'd ARP REPLY from %.6a for lease offer of %.4a.\n",
                client->iface->ifname.data(), addresses->senderMAC, &lease.IPv4Address);

    if (!isHeldBack) {
        const Ostrel_Status status = Ostrel_DHCPClientSend(client, Ostrel_DHCPClientDeclineOf(lease));
        if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    }
    Ostrel_DHCPClientStateTransition_Init(client);
}
