// Received ARP frames go to the roles of their interface.
//
// The filter lets through some frames that are not ARP for IPv4 over Ethernet, and the link layer any length; the roles
// read the fixed 42-byte layout, so a shorter frame ends here.
#include "Ostrel/ARPShared.h"
#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"
#include "Ostrel/PacketFilter.h"

Ostrel_Status Ostrel_ARPPacketFilterInitialize(Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter) {
    return Ostrel_PacketFilterInitialize(iface, filter, gBPF_ARP, Ostrel_ARPPacketFilterHandler, kDebugLevelTrace);
}

void Ostrel_ARPPacketFilterHandler(void* context, const uint8_t* /*sourceAddress*/, std::span<const uint8_t> frame) {
    const auto* iface = static_cast<const Ostrel_InterfaceObj*>(context);
    DebugPrintF(kDebugLevelVerbose, "[%s] RX ARP packet\n", iface->ifname.data());
    DebugHexDump(kDebugLevelVerbose, frame);
    if (frame.size() < kARPFrameSize) return;

    const uint8_t* const arpStart = frame.data() + sizeof(Ostrel_EthernetHeader);
    const auto* ethernet = reinterpret_cast<const Ostrel_EthernetHeader*>(frame.data());
    const auto* arp = reinterpret_cast<const Ostrel_ARPHeader*>(arpStart);
    const auto* addresses = reinterpret_cast<const Ostrel_ARPAddresses*>(arpStart + sizeof(Ostrel_ARPHeader));
    if (iface->dhcpClient != nullptr)
        (void)Ostrel_DHCPClientARPPacketHandler(iface->dhcpClient, ethernet, arp, addresses);
    if (iface->dhcpServer != nullptr) Ostrel_DHCPServerARPPacketHandler(iface->dhcpServer, ethernet, arp, addresses);
    if (iface->linkLocal != nullptr) (void)Ostrel_LinkLocalARPPacketHandler(iface->linkLocal, ethernet, arp, addresses);
}
