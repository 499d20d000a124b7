// Link-layer sockets and the two programs that run on them in the kernel.
//
// A role is woken only for frames that concern it: everything else is dropped before it costs the process anything.
#include "Ostrel/PacketFilter.h"

#include <utility>

#include "Ostrel/Check.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"
#include "Ostrel/Wire.h"

namespace {

constexpr uint16_t kAllEtherTypes = 3;  // the program does the selecting
constexpr int kWithLinkLayerHeader = 1;

// Classic BPF, as linux/filter.h spells the opcodes.
constexpr uint16_t kLoadHalf = 0x28;          // A = 16 bits at k
constexpr uint16_t kLoadByte = 0x30;          // A = byte at k
constexpr uint16_t kLoadHalfIndexed = 0x48;   // A = 16 bits at X + k
constexpr uint16_t kLoadHeaderLength = 0xB1;  // X = 4 * (low four bits of the byte at k)
constexpr uint16_t kJumpEqual = 0x15;         // A == k
constexpr uint16_t kJumpAnyBit = 0x45;        // A & k
constexpr uint16_t kReturn = 0x06;
constexpr uint32_t kFragmentOffset = 0x1FFF;  // of the sixteen bits that begin with the flags
constexpr uint32_t kPass = 0xFFFFFFFF;
constexpr uint32_t kDrop = 0;

void HoldPort(const Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter, uint16_t port) {
    filter->heldPort = port;
    filter->hold.reset(os_hold_port(iface->ifname.data(), port));
}

}  // namespace

const std::array<l2_filter_instruction, 12> gBPF_ARP{{
    {kLoadHalf, 0, 0, 12},
    {kJumpEqual, 0, 9, kEtherTypeARP},
    {kLoadHalf, 0, 0, 14},  // hardware type
    {kJumpAnyBit, 0, 7, kHardwareTypeEthernet},
    {kLoadHalf, 0, 0, 16},  // protocol type
    {kJumpAnyBit, 0, 5, kEtherTypeIPv4},
    {kLoadByte, 0, 0, 18},  // hardware address length
    {kJumpAnyBit, 0, 3, sizeof(Ostrel_MAC)},
    {kLoadByte, 0, 0, 19},  // protocol address length
    {kJumpAnyBit, 0, 1, sizeof(Ostrel_IPv4)},
    {kReturn, 0, 0, kPass},
    {kReturn, 0, 0, kDrop},
}};

std::array<l2_filter_instruction, 11> gBPF_DHCP{{
    {kLoadHalf, 0, 0, 12},
    {kJumpEqual, 0, 8, kEtherTypeIPv4},
    {kLoadByte, 0, 0, 23},  // protocol
    {kJumpEqual, 0, 6, kIPProtocolUDP},
    {kLoadHalf, 0, 0, 20},  // a later fragment has no UDP header
    {kJumpAnyBit, 4, 0, kFragmentOffset},
    {kLoadHeaderLength, 0, 0, 14},
    {kLoadHalfIndexed, 0, 0, 16},  // destination port
    {kJumpEqual, 0, 1, 0},         // the port is written in before each use
    {kReturn, 0, 0, kPass},
    {kReturn, 0, 0, kDrop},
}};

Ostrel_Status Ostrel_PacketFilterInitialize(Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter,
                                            std::span<const l2_filter_instruction> program, l2_packet_callback callback,
                                            int32_t logLevel) {
    filter->callback = callback;
    filter->l2.reset(
        l2_packet_init(iface->ifname.data(), nullptr, kAllEtherTypes, callback, iface, kWithLinkLayerHeader));
    OSTREL_REQUIRE(filter->l2 != nullptr, "inPacketFilter->l2", kOutOfMemoryErr);

    filter->bpfLength = static_cast<uint32_t>(program.size_bytes());
    filter->bpf = os_copy_array<l2_filter_instruction>(program);
    OSTREL_REQUIRE(filter->bpf != nullptr, "inPacketFilter->bpf", kOutOfMemoryErr);

    const int err = l2_packet_install_filter(filter->l2.get(), {filter->bpf.get(), program.size()});
    OSTREL_REQUIRE(err >= 0, "( err >= 0 )", kBadParamErr);

    (void)l2_packet_get_own_addr(filter->l2.get(), iface->macAddr);
    DebugPrintF(logLevel, "Installed packet filter callback <%p> on interface %s <%.6a>\n", callback,
                iface->ifname.data(), iface->macAddr);
    return kNoErr;
}

Ostrel_Status Ostrel_PacketFilterReopen(Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter) {
    if (filter->l2 == nullptr) return kNoErr;
    Ostrel_PacketFilter anew{};
    const std::span program(filter->bpf.get(), filter->bpfLength / sizeof(l2_filter_instruction));
    OSTREL_REQUIRE_NOERR(Ostrel_PacketFilterInitialize(iface, &anew, program, filter->callback, kDebugLevelInfo));
    if (filter->heldPort != 0) HoldPort(iface, &anew, filter->heldPort);
    *filter = std::move(anew);
    return kNoErr;
}

void Ostrel_PacketFilterFinalize(Ostrel_PacketFilter* filter) {
    *filter = {};
}

Ostrel_Status Ostrel_BOOTPPacketFilterInitialize(Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter,
                                                 uint16_t destinationPort, l2_packet_callback callback) {
    gBPF_DHCP[kBPFDestinationPortInstruction].k = destinationPort;
    OSTREL_REQUIRE_NOERR(Ostrel_PacketFilterInitialize(iface, filter, gBPF_DHCP, callback, kDebugLevelChatty));
    if (iface->rules->interface.portsAreHeld) HoldPort(iface, filter, destinationPort);
    return kNoErr;
}

bool Ostrel_SendIsCutShort(Ostrel_InterfaceObj* iface, const Ostrel_PacketFilter* filter, const char* role) {
    const int sent = l2_packet_send(filter->l2.get(), nullptr, 0, wpabuf_bytes(iface->txFrame));
    const bool isCutShort = sent >= 0 && static_cast<size_t>(sent) < wpabuf_len(iface->txFrame);
    using enum Ostrel_VerdictKind;
    Ostrel_TraceSent(iface, role, {.kind = sent < 0 || isCutShort ? Failed : Taken});
    return isCutShort;
}
