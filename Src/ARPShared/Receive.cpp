// Received ARP frames go to the roles of their interface.
//
// The filter lets through some frames that are not ARP for IPv4 over Ethernet, and the link layer any length; the roles
// read the fixed 42-byte layout, so a shorter frame ends here. Each role says what the frame was to it; the trace has
// one verdict for a frame.
#include "Ostrel/ARPShared.h"
#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"
#include "Ostrel/PacketFilter.h"
#include "Ostrel/Publish.h"

Ostrel_Status Ostrel_ARPPacketFilterInitialize(Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter) {
    return Ostrel_PacketFilterInitialize(iface, filter, gBPF_ARP, Ostrel_ARPPacketFilterHandler, kDebugLevelTrace);
}

namespace {

constexpr Ostrel_Verdict kTooShort{.kind = Ostrel_VerdictKind::Malformed, .state = "shorter than ARP"};

// What a frame was to the roles: to the first that took it, or else to the first that it concerned.
struct Outcome {
    const char* role = "arp";
    Ostrel_Verdict verdict{.kind = Ostrel_VerdictKind::NotConcerned};
};

// It is this role's turn: what it sends is because of the frame.
void TurnTo(Ostrel_InterfaceObj* iface, const char* role) {
    if (!iface->frameUnderWay.bytes.empty()) iface->frameUnderWay.role = role;
}

void Weigh(const char* role, const Ostrel_Verdict& verdict, Outcome* outcome) {
    using enum Ostrel_VerdictKind;
    const bool isTaken = verdict.kind == Taken;
    if (outcome->verdict.kind == Taken || (!isTaken && outcome->verdict.kind != NotConcerned)) return;
    *outcome = {isTaken ? role : outcome->role, verdict};
}

Outcome HandOver(Ostrel_InterfaceObj* iface, std::span<const uint8_t> frame) {
    const uint8_t* const arpStart = frame.data() + sizeof(Ostrel_EthernetHeader);
    const auto* ethernet = reinterpret_cast<const Ostrel_EthernetHeader*>(frame.data());
    const auto* arp = reinterpret_cast<const Ostrel_ARPHeader*>(arpStart);
    const auto* addresses = reinterpret_cast<const Ostrel_ARPAddresses*>(arpStart + sizeof(Ostrel_ARPHeader));
    Outcome outcome;
    if (iface->dhcpClient != nullptr) {
        TurnTo(iface, "client");
        Weigh("client", Ostrel_DHCPClientARPPacketHandler(iface->dhcpClient, ethernet, arp, addresses), &outcome);
    }
    if (iface->dhcpServer != nullptr) {
        TurnTo(iface, "server");
        Weigh("server", Ostrel_DHCPServerARPPacketHandler(iface->dhcpServer, ethernet, arp, addresses), &outcome);
    }
    if (iface->linkLocal != nullptr) {
        TurnTo(iface, "linkLocal");
        Weigh("linkLocal", Ostrel_LinkLocalARPPacketHandler(iface->linkLocal, ethernet, arp, addresses), &outcome);
    }
    return outcome;
}

}  // namespace

void Ostrel_ARPPacketFilterHandler(void* context, const uint8_t* /*sourceAddress*/, std::span<const uint8_t> frame) {
    auto* iface = static_cast<Ostrel_InterfaceObj*>(context);
    DebugPrintF(kDebugLevelVerbose, "[%s] RX ARP packet\n", iface->ifname.data());
    DebugHexDump(kDebugLevelVerbose, frame);
    ++iface->counters.received;
    Ostrel_TraceReceiving(iface, "arp", frame);
    const Outcome outcome = frame.size() < kARPFrameSize ? Outcome{.verdict = kTooShort} : HandOver(iface, frame);
    if (outcome.verdict.kind != Ostrel_VerdictKind::Taken)
        ++iface->counters.dropped[static_cast<size_t>(outcome.verdict.kind)];
    TurnTo(iface, outcome.role);
    Ostrel_TraceReceived(iface, outcome.verdict);
}
