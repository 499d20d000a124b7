// Frames by their bytes: a second, independent implementation, so that the daemon's own cannot be wrong unnoticed,
// in a trace or in a test.

#include "Wire.h"

#include <algorithm>
#include <arpa/inet.h>

namespace sim {
namespace {

constexpr size_t kIP = 14;
constexpr size_t kUDP = 34;
constexpr size_t kBOOTP = 42;
constexpr size_t kOptions = kBOOTP + 240;

uint32_t Get(std::span<const uint8_t> bytes, size_t offset, size_t size) {
    uint32_t value = 0;
    for (const uint8_t byte : bytes.subspan(offset, size)) value = (value << 8) | byte;
    return value;
}

void Put(std::span<uint8_t> bytes, size_t offset, size_t size, uint32_t value) {
    for (size_t i = size; i-- > 0; value >>= 8) bytes[offset + i] = static_cast<uint8_t>(value);
}

// Visitors of the fields of a frame.
struct Reader {
    std::span<const uint8_t> frame;
    void operator()(size_t offset, MAC& mac) const { std::copy_n(&frame[offset], mac.size(), mac.begin()); }
    template <typename Number>
    void operator()(size_t offset, Number& number) const {
        number = static_cast<Number>(Get(frame, offset, sizeof number));
    }
};

struct Writer {
    std::span<uint8_t> frame;
    void operator()(size_t offset, const MAC& mac) const { std::copy(mac.begin(), mac.end(), &frame[offset]); }
    template <typename Number>
    void operator()(size_t offset, const Number& number) const {
        Put(frame, offset, sizeof number, number);
    }
};

template <typename Message, typename Visitor>
void VisitDHCP(Message& message, const Visitor& visit) {
    visit(0, message.ethernetDestination);
    visit(6, message.ethernetSource);
    visit(kIP + 12, message.source);
    visit(kIP + 16, message.destination);
    visit(kUDP, message.sourcePort);
    visit(kUDP + 2, message.destinationPort);
    visit(kBOOTP, message.op);
    visit(kBOOTP + 3, message.hops);
    visit(kBOOTP + 4, message.xid);
    visit(kBOOTP + 10, message.flags);
    visit(kBOOTP + 12, message.ciaddr);
    visit(kBOOTP + 16, message.yiaddr);
    visit(kBOOTP + 24, message.giaddr);
    visit(kBOOTP + 28, message.chaddr);
}

template <typename Message, typename Visitor>
void VisitARP(Message& arp, const Visitor& visit) {
    visit(0, arp.ethernetDestination);
    visit(20, arp.operation);
    visit(22, arp.senderMAC);
    visit(28, arp.sender);
    visit(32, arp.targetMAC);
    visit(38, arp.target);
}

// Ones' complement sum of 16-bit words (RFC 1071); 0xFFFF for a range whose checksum is right.
uint32_t Sum(std::span<const uint8_t> bytes, uint32_t sum = 0) {
    for (size_t i = 0; i < bytes.size(); ++i) sum += static_cast<uint32_t>(bytes[i]) << (i % 2 == 0 ? 8 : 0);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return sum;
}

// Over addresses, protocol and length, then the UDP header and its payload.
uint32_t SumUDP(std::span<const uint8_t> frame) {
    const std::span<const uint8_t> udp = frame.subspan(kUDP);
    return Sum(udp, Sum(frame.subspan(kIP + 12, 8)) + 17 + static_cast<uint32_t>(udp.size()));
}

}  // namespace

IPv4 ToIPv4(std::string_view text) {
    return ntohl(inet_addr(std::string(text).c_str()));
}

std::string ToText(IPv4 address) {
    return inet_ntoa({htonl(address)});
}

std::vector<uint8_t> Bytes(std::string hex) {
    std::erase(hex, ' ');
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < hex.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

const std::vector<uint8_t>* DHCPMessage::Find(uint8_t code) const {
    const auto found =
        std::find_if(options.begin(), options.end(), [code](const auto& option) { return option.first == code; });
    return found == options.end() ? nullptr : &found->second;
}

uint8_t DHCPMessage::Type() const {
    const std::vector<uint8_t>* const type = Find(53);
    return type == nullptr || type->size() != 1 ? 0 : type->front();
}

std::optional<uint32_t> DHCPMessage::Number(uint8_t code) const {
    const std::vector<uint8_t>* const data = Find(code);
    if (data == nullptr || data->size() != 4) return std::nullopt;
    return Get(*data, 0, 4);
}

std::optional<DHCPMessage> ReadDHCP(std::span<const uint8_t> frame) {
    if (frame.size() < kOptions || Get(frame, 12, 2) != 0x0800 || frame[kIP] != 0x45 || frame[kIP + 9] != 17 ||
        Get(frame, kBOOTP + 236, 4) != 0x63825363) {
        return std::nullopt;
    }
    DHCPMessage message;
    VisitDHCP(message, Reader{frame});
    for (size_t at = kOptions; at < frame.size() && frame[at] != 255;) {
        if (frame[at] == 0) {
            ++at;
            continue;
        }
        if (at + 2 > frame.size() || at + 2 + frame[at + 1] > frame.size()) return std::nullopt;
        const std::span<const uint8_t> data = frame.subspan(at + 2, frame[at + 1]);
        message.options.emplace_back(frame[at], std::vector<uint8_t>(data.begin(), data.end()));
        at += 2 + data.size();
    }
    return message;
}

Frame WriteDHCP(const DHCPMessage& message) {
    Frame frame(kOptions);
    for (const auto& [code, data] : message.options) {
        frame.push_back(code);
        frame.push_back(static_cast<uint8_t>(data.size()));
        frame.insert(frame.end(), data.begin(), data.end());
    }
    frame.push_back(255);

    Put(frame, 12, 2, 0x0800);
    Put(frame, kIP, 4, 0x45000000 | static_cast<uint32_t>(frame.size() - kIP));
    Put(frame, kIP + 8, 2, 0x4011);  // time to live 64, UDP
    Put(frame, kUDP + 4, 2, static_cast<uint32_t>(frame.size() - kUDP));
    Put(frame, kBOOTP, 4, 0x010600);
    Put(frame, kBOOTP + 236, 4, 0x63825363);
    VisitDHCP(message, Writer{frame});
    Put(frame, kIP + 10, 2, ~Sum(std::span(frame).subspan(kIP, 20)));
    Put(frame, kUDP + 6, 2, ~SumUDP(frame));
    return frame;
}

std::optional<ARPFrame> ReadARP(std::span<const uint8_t> frame) {
    if (frame.size() < 42 || Get(frame, 12, 4) != 0x08060001 || Get(frame, 16, 4) != 0x08000604) return std::nullopt;
    ARPFrame arp;
    VisitARP(arp, Reader{frame});
    return arp;
}

Frame WriteARP(const ARPFrame& arp) {
    Frame frame(60);  // the least that Ethernet carries
    VisitARP(arp, Writer{frame});
    std::copy(arp.senderMAC.begin(), arp.senderMAC.end(), frame.begin() + 6);
    Put(frame, 12, 4, 0x08060001);
    Put(frame, 16, 4, 0x08000604);
    return frame;
}

std::string FindFault(std::span<const uint8_t> frame) {
    if (frame.size() < 42) return "shorter than any frame of ours";
    if (Get(frame, 12, 2) == 0x0806) return ReadARP(frame) ? "" : "not ARP for IPv4 over Ethernet";
    if (Get(frame, 12, 2) != 0x0800) return "neither ARP nor IPv4";
    if (frame[kIP] != 0x45) return "not a plain IPv4 header";
    if (Get(frame, kIP + 2, 2) != frame.size() - kIP) return "total length";
    if (Sum(frame.subspan(kIP, 20)) != 0xFFFF) return "header checksum";
    if (Get(frame, kUDP + 4, 2) != frame.size() - kUDP) return "UDP length";
    if (Get(frame, kUDP + 6, 2) != 0 && SumUDP(frame) != 0xFFFF) return "UDP checksum";
    return ReadDHCP(frame) ? "" : "not DHCP";
}

}  // namespace sim
