// Building and sending ARP frames, in the interface's txFrame.
#include <endian.h>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Check.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/PacketFilter.h"

#include "wpabuf.h"

namespace {

struct [[gnu::packed]] ARPFrame {
    Ostrel_EthernetHeader ethernet;
    Ostrel_ARPHeader arp;
    Ostrel_ARPAddresses addresses;
};
static_assert(sizeof(ARPFrame) == kARPFrameSize && kARPFrameSize == 42);

}  // namespace

Ostrel_Status Ostrel_ARPPacketSend(Ostrel_InterfaceObj* iface, const Ostrel_PacketFilter* filter,
                                   const Ostrel_MAC& destinationMAC, uint16_t operation, Ostrel_IPv4 sender,
                                   Ostrel_IPv4 target, const Ostrel_MAC& targetMAC) {
    const ARPFrame frame{
        .ethernet = {destinationMAC, iface->macAddr, htobe16(kEtherTypeARP)},
        .arp = {htobe16(kHardwareTypeEthernet), htobe16(kEtherTypeIPv4), sizeof(Ostrel_MAC), sizeof(Ostrel_IPv4),
                htobe16(operation)},
        .addresses = {iface->macAddr, sender, targetMAC, target},
    };
    wpabuf_reset(iface->txFrame);
    const bool built = wpabuf_put_data(iface->txFrame, Ostrel_BytesOf(frame));
    OSTREL_REQUIRE(built, "wpabuf_put_data", kSendFailedErr);

    DebugPrintF(kDebugLevelVerbose, "[%s] TX ARP Packet\n", iface->ifname.data());
    DebugHexDump(kDebugLevelVerbose, wpabuf_bytes(iface->txFrame));
    const bool isCutShort = Ostrel_SendIsCutShort(iface, filter, "arp");
    OSTREL_REQUIRE(!isCutShort, "( err >= wpabuf_len( iface->txFrame ) )", kSendFailedErr);
    ++iface->counters.requestSent;
    return kNoErr;
}

Ostrel_Status Ostrel_ARPAsk(Ostrel_InterfaceObj* iface, Ostrel_IPv4 sender, Ostrel_IPv4 target) {
    constexpr Ostrel_MAC kUnknownMAC{};
    return Ostrel_ARPPacketSend(iface, &iface->arpFilter, kBroadcastMAC, kARPRequest, sender, target, kUnknownMAC);
}
