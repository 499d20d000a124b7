// A received frame becomes a record of pointers into it.
//
// This is the one place where a BOOTP frame's layout is read from foreign bytes: every header pointer handed out has
// its whole header inside the frame. The check is for the options cookie only; whether the message means anything to a
// role is the role's decision.
#include <algorithm>
#include <array>

#include "Ostrel/DHCPShared.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"

namespace {

constexpr size_t kUsualIPHeaderLength = 20;  // bytes, without options

template <typename Header>
const Header* HeaderAt(std::span<const uint8_t> frame, size_t offset) {
    if (offset > frame.size() || sizeof(Header) > frame.size() - offset) return nullptr;
    return reinterpret_cast<const Header*>(frame.data() + offset);
}

// From the low four bits of the IPv4 header's first byte (RFC 791 section 3.1).
size_t IPHeaderLength(std::span<const uint8_t> frame) {
    if (frame.size() <= sizeof(Ostrel_EthernetHeader)) return kUsualIPHeaderLength;
    return size_t{4} * (frame[sizeof(Ostrel_EthernetHeader)] & 0x0FU);
}

}  // namespace

Ostrel_Status Ostrel_BOOTPPacketPreprocess(std::span<const uint8_t> frame, Ostrel_PreprocessedPacket* packet) {
    const size_t ipOffset = sizeof(Ostrel_EthernetHeader);
    const size_t udpOffset = ipOffset + IPHeaderLength(frame);
    const size_t messageOffset = udpOffset + sizeof(Ostrel_UDPHeader);
    const size_t cookieOffset = messageOffset + sizeof(Ostrel_BOOTPMessage);
    const size_t optionsOffset = cookieOffset + kOptionsCookie.size();

    packet->frame = frame.data();
    packet->frameLength = static_cast<uint32_t>(frame.size());
    packet->ethHdr = HeaderAt<Ostrel_EthernetHeader>(frame, 0);
    packet->ipHdr = HeaderAt<Ostrel_IPv4Header>(frame, ipOffset);
    packet->udpHdr = HeaderAt<Ostrel_UDPHeader>(frame, udpOffset);
    packet->dhcpPkt = HeaderAt<Ostrel_BOOTPMessage>(frame, messageOffset);
    packet->cookie = nullptr;
    packet->options = nullptr;
    packet->optionsLength = 0;
    Ostrel_BOOTPPacketIndexOptions({}, &packet->index);

    if (frame.size() < optionsOffset) {
        DebugPrintF(kDebugLevelError, "DHCP Packet too small; need %d bytes, only have %d bytes\n", optionsOffset,
                    frame.size());
        return kBadSizeErr;
    }
    const std::span<const uint8_t> cookie = frame.subspan(cookieOffset, kOptionsCookie.size());
    if (!std::equal(cookie.begin(), cookie.end(), kOptionsCookie.begin())) {
        DebugPrintF(kDebugLevelError, "Invalid options cookie; expected %.4a, got %.4a\n", kOptionsCookie, cookie);
        return kBadFormatErr;
    }
    packet->cookie = cookie.data();
    packet->options = frame.data() + optionsOffset;
    packet->optionsLength = static_cast<uint32_t>(frame.size() - optionsOffset);
    Ostrel_BOOTPPacketIndexOptions(frame.subspan(optionsOffset), &packet->index);
    return kNoErr;
}

Ostrel_ReceivedMessage Ostrel_BOOTPPacketReceive(const Ostrel_InterfaceObj* iface, const char* role,
                                                 const char* service, std::span<const uint8_t> frame) {
    const char* const name = iface->ifname.data();
    DebugPrintF(kDebugLevelVerbose, "DHCP %s RX %s packet on %s.\n", role, service, name);
    DebugHexDump(kDebugLevelVerbose, frame);
    Ostrel_ReceivedMessage received;
    received.dissected = Ostrel_BOOTPPacketPreprocess(frame, &received.packet);
    received.typeFound = Ostrel_BOOTPPacketFindMessageType(Ostrel_OptionsOf(received.packet), &received.messageType);
    if (received.typeFound == kNoErr) {
        DebugPrintF(kDebugLevelTrace, "[%s] DHCP %s RX msg type %s.\n", name, role,
                    Ostrel_DHCPMsgTypeString(received.messageType));
    }
    return received;
}

const char* Ostrel_DHCPMsgTypeString(uint8_t messageType) {
    static constexpr std::array<const char*, 14> kNames{
        "UNKNOWN",          "DHCPDISCOVER",   "DHCPOFFER",  "DHCPREQUEST",    "DHCPDECLINE",    "DHCPACK",
        "DHCPNAK",          "DHCPRELEASE",    "DHCPINFORM", "DHCPFORCERENEW", "DHCPLEASEQUERY", "DHCPLEASEUNASSIGNED",
        "DHCPLEASEUNKNOWN", "DHCPLEASEACTIVE"};
    return messageType < kNames.size() ? kNames[messageType] : kNames[0];
}
