// BOOTP/DHCP messages (RFC 951, RFC 2131, RFC 2132): layout, checks, options, frames.
//
// All functions work on buffers handed to them. Addresses in records are in network byte order, as on the wire.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Ostrel/Address.h"
#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/Status.h"
#include "Ostrel/Wire.h"

#include "os_memory.h"

struct Ostrel_InterfaceObj;
struct Ostrel_PacketFilter;
struct wpabuf;

// The fixed part of a BOOTP message (RFC 951 section 3, RFC 2131 section 2); multi-byte fields in network byte order.
struct [[gnu::packed]] Ostrel_BOOTPMessage {
    uint8_t op;     // kBOOTPRequest or kBOOTPReply
    uint8_t htype;  // 1: Ethernet
    uint8_t hlen;   // 6
    uint8_t hops;
    uint32_t xid;  // bytes as they stand
    uint16_t secs;
    uint16_t flags;      // kBOOTPFlagBroadcast, after conversion to host order
    Ostrel_IPv4 ciaddr;  // client's current address
    Ostrel_IPv4 yiaddr;  // address offered or assigned
    Ostrel_IPv4 siaddr;
    Ostrel_IPv4 giaddr;  // relay agent
    std::array<uint8_t, 16> chaddr;
    std::array<uint8_t, 64> sname;
    std::array<uint8_t, 128> file;
};
static_assert(sizeof(Ostrel_BOOTPMessage) == 236);
static_assert(offsetof(Ostrel_BOOTPMessage, chaddr) == 28 && offsetof(Ostrel_BOOTPMessage, sname) == 44);

constexpr uint16_t kBOOTPServerPort = 67;
constexpr uint16_t kBOOTPClientPort = 68;
constexpr uint8_t kBOOTPRequest = 1;
constexpr uint8_t kBOOTPReply = 2;
constexpr uint16_t kBOOTPFlagBroadcast = 0x8000;
constexpr std::array<uint8_t, 4> kOptionsCookie{99, 130, 83, 99};  // RFC 2131 section 3
constexpr size_t kFrameHeaderSize =
    sizeof(Ostrel_EthernetHeader) + sizeof(Ostrel_IPv4Header) + sizeof(Ostrel_UDPHeader);  // before a payload

// Option codes (RFC 2132).
constexpr uint8_t kOptionPad = 0;
constexpr uint8_t kOptionSubnetMask = 1;
constexpr uint8_t kOptionTimeOffset = 2;
constexpr uint8_t kOptionRouter = 3;
constexpr uint8_t kOptionDomainNameServer = 6;
constexpr uint8_t kOptionHostName = 12;
constexpr uint8_t kOptionDomainName = 15;
constexpr uint8_t kOptionBroadcastAddress = 28;
constexpr uint8_t kOptionRequestedAddress = 50;
constexpr uint8_t kOptionLeaseTime = 51;
constexpr uint8_t kOptionOverload = 52;
constexpr uint8_t kOptionMessageType = 53;
constexpr uint8_t kOptionServerIdentifier = 54;
constexpr uint8_t kOptionParameterRequestList = 55;
constexpr uint8_t kOptionMaximumMessageSize = 57;
constexpr uint8_t kOptionRenewalTime = 58;
constexpr uint8_t kOptionRebindingTime = 59;
constexpr uint8_t kOptionClientIdentifier = 61;
constexpr uint8_t kOptionRelayAgent = 82;  // RFC 3046
constexpr uint8_t kOptionEnd = 255;
constexpr size_t kOptionHeader = 2;     // bytes before an option's data: code and length
constexpr size_t kOptionMaxData = 255;  // bytes: what one length byte can say

// Types of a client identifier, the first byte of option 61 (RFC 2132 section 9.14): 0 is text, otherwise a hardware
// type.
constexpr uint8_t kIdentifierTypeText = 0;
constexpr uint8_t kIdentifierTypeEthernet = kHardwareTypeEthernet;
constexpr size_t kMaxIdentifierText = kOptionMaxData - 1;  // bytes of text behind the type

// Message types (option 53).
constexpr uint8_t kDHCPDiscover = 1;
constexpr uint8_t kDHCPOffer = 2;
constexpr uint8_t kDHCPRequest = 3;
constexpr uint8_t kDHCPDecline = 4;
constexpr uint8_t kDHCPAck = 5;
constexpr uint8_t kDHCPNak = 6;
constexpr uint8_t kDHCPRelease = 7;
constexpr uint8_t kDHCPInform = 8;

constexpr uint32_t kInfiniteLease = 0xFFFFFFFF;  // RFC 2131 section 3.3

// An options area and where in it each option stands, found in one walk.
struct Ostrel_OptionIndex {
    std::span<const uint8_t> area;
    std::bitset<256> present;           // by code
    std::array<uint16_t, 256> offsets;  // in `area`, of the first option of each code that is present; others unset
    Ostrel_Status ending;               // how the walk ended: kEndingErr at the end option, or kTooShortErr
};

// One received frame, dissected. Every pointer points into the frame and is valid as long as that; a header pointer is
// null when its header does not lie within the frame.
struct Ostrel_PreprocessedPacket {
    const uint8_t* frame;
    uint32_t frameLength;  // bytes as received, an Ethernet trailer included
    const Ostrel_EthernetHeader* ethHdr;
    const Ostrel_IPv4Header* ipHdr;
    const Ostrel_UDPHeader* udpHdr;
    const Ostrel_BOOTPMessage* dhcpPkt;
    const uint8_t* cookie;   // null unless the frame passed the checks
    const uint8_t* options;  // likewise
    uint32_t optionsLength;  // bytes from `options` to the end of the frame; 0 likewise
    Ostrel_OptionIndex index;
};

// The options; none unless the frame passed the checks.
[[nodiscard]] inline const Ostrel_OptionIndex& Ostrel_OptionsOf(const Ostrel_PreprocessedPacket& packet) {
    return packet.index;
}

// Dissects a frame from its Ethernet header; the whole record is set, whatever it held. kBadSizeErr when the frame ends
// before the options cookie does, kBadFormatErr when the cookie is another. Nothing else is looked at. After kNoErr
// every pointer of the record is set.
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketPreprocess(std::span<const uint8_t> frame,
                                                         Ostrel_PreprocessedPacket* packet);

// One step of the walk over options: hands out the whole option at the start of `buffer` (code, length byte and data;
// pad and end are one byte) and what follows it. kEndingErr when it is the end option, kTooShortErr, with an empty
// option, when it runs past the buffer.
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketFindNextOption(std::span<const uint8_t> buffer,
                                                             std::span<const uint8_t>* option,
                                                             std::span<const uint8_t>* next);

// Walks the area once, to the end option or to the first option that does not lie whole within it; what follows is not
// seen. The index points into the area. Of an area longer than any frame the first 65,535 bytes count.
void Ostrel_BOOTPPacketIndexOptions(std::span<const uint8_t> area, Ostrel_OptionIndex* index);

// The first option of that code, whole. kEndingErr when the end option comes first, kTooShortErr when the list runs
// out. The output of this and of the typed readers is left alone on failure. Costs one look at the index; a search is
// written out, option by option, only while the debug output is at level chatty.
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketFindOption(const Ostrel_OptionIndex& options, uint8_t code,
                                                         std::span<const uint8_t>* option);

// Typed readers of an option's data; kBadSizeErr when its length is not that of the type. Integers come in host order,
// the address and the string as they are, the string inside the options area and without a NUL.
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketFindOptionAsString(const Ostrel_OptionIndex& options, uint8_t code,
                                                                 std::span<const uint8_t>* data);
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketFindOptionAsIPv4(const Ostrel_OptionIndex& options, uint8_t code,
                                                               Ostrel_IPv4* address);
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketFindOptionAsUint32(const Ostrel_OptionIndex& options, uint8_t code,
                                                                 uint32_t* value);
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketFindOptionAsUint16(const Ostrel_OptionIndex& options, uint8_t code,
                                                                 uint16_t* value);
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketFindOptionAsUint8(const Ostrel_OptionIndex& options, uint8_t code,
                                                                uint8_t* value);

// The message type: the first data byte of option 53; kBadSizeErr when it has none.
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketFindMessageType(const Ostrel_OptionIndex& options, uint8_t* messageType);

// A frame that a role has received, read as far as every role reads it. A frame that fails the checks has no options,
// so that the search for its message type fails as well.
struct Ostrel_ReceivedMessage {
    Ostrel_PreprocessedPacket packet;
    uint8_t messageType = 0;  // meaningless unless `typeFound` is kNoErr
    // The role reports what failed, under its own name, and drops a frame without a type.
    Ostrel_Status dissected = kNoErr;
    Ostrel_Status typeFound = kNoErr;
};

// Reads a frame and writes the lines that every role writes of one: "DHCP Server RX bootps packet on eth0." for the
// role "Server" of the service "bootps".
[[nodiscard]] Ostrel_ReceivedMessage Ostrel_BOOTPPacketReceive(const Ostrel_InterfaceObj* iface, const char* role,
                                                               const char* service, std::span<const uint8_t> frame);

// A copy of the addresses in an option's data, and their number. kBadSizeErr when the data is not a multiple of four
// bytes long; empty data is an empty array, not a failure.
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketProcessOptionAsIPv4Array(std::span<const uint8_t> data,
                                                                       os_array<Ostrel_IPv4>* addresses,
                                                                       uint32_t* count);

// Takes out of a message every option of `codes` that it has, in the order of `codes`, data alone. What was sent in
// parts is joined (RFC 3396), in the order options field, `file`, `sname`; the latter two are options only where option
// 52 says so (RFC 2131 section 4.1). The list holds no more bytes than the frame. kOutOfMemoryErr, with the list as it
// was.
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketCollectOptions(const Ostrel_PreprocessedPacket& packet,
                                                             std::span<const uint8_t> codes, Ostrel_OptionList* list);

// Appends an option: code, length byte, data; pad and end are the code alone. `data` is at most kOptionMaxData bytes.
// kTooLongErr, with nothing appended, when the buffer has no room for the whole of it.
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketAppendOption(wpabuf* buffer, uint8_t code, std::span<const uint8_t> data);

// The name for log lines; "UNKNOWN" for anything else.
[[nodiscard]] const char* Ostrel_DHCPMsgTypeString(uint8_t messageType);

// The Internet checksum (RFC 1071): adds `data` to a running sum of 16-bit words in network order, with end-around
// carry; an odd last byte counts as the high half of a word.
[[nodiscard]] uint32_t Ostrel_Checksum(std::span<const uint8_t> data, uint32_t sum);

// The checksum field, in network byte order, of a running sum.
[[nodiscard]] uint16_t Ostrel_Wrapsum(uint32_t sum);

// Frames `payload` with Ethernet, IPv4 and UDP headers in the interface's txFrame and sends it through the filter's
// socket. Ports in host order. kSendFailedErr when fewer bytes went out than the frame has; an error of the link layer
// is not a failure here: the frame is lost as it could be lost on the wire.
[[nodiscard]] Ostrel_Status Ostrel_SendPacket(Ostrel_InterfaceObj* iface, const Ostrel_PacketFilter* filter,
                                              const Ostrel_MAC& destinationMAC, Ostrel_IPv4 source, uint16_t sourcePort,
                                              Ostrel_IPv4 destination, uint16_t destinationPort,
                                              std::span<const uint8_t> payload);
