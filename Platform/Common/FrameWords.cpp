// A frame in words: DHCP or ARP, as far as its bytes go.
//
// It shares nothing with the daemon's readers, so that neither hides a fault of the other. What is not whole is said to
// be so in its line; what could be read of it stands in the rest of the words nevertheless.
#include <algorithm>

#include "OptionWords.h"
#include "frame_words.h"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kMACSize = 6;
constexpr size_t kEthernet = 14;  // bytes of its header; then those of the others
constexpr size_t kIPv4 = 20;      // without options
constexpr size_t kUDP = 8;
constexpr size_t kMessage = 240;  // of DHCP, as far as its cookie
constexpr size_t kARP = 28;
constexpr uint32_t kCookie = 0x63825363;
constexpr uint8_t kUDPProtocol = 17;

constexpr uint8_t kPad = 0;
constexpr uint8_t kRequestedAddress = 50;
constexpr uint8_t kLeaseTime = 51;
constexpr uint8_t kOverload = 52;
constexpr uint8_t kMessageType = 53;
constexpr uint8_t kServerIdentifier = 54;
constexpr uint8_t kEnd = 255;

// A number of the bytes there, all of which the caller knows to be inside.
uint32_t NumberAt(Bytes bytes, size_t offset, size_t size) {
    uint32_t number = 0;
    for (const uint8_t byte : bytes.subspan(offset, size)) number = number << 8 | byte;
    return number;
}

struct Part {
    uint8_t code;
    Bytes data;
};

struct Options {
    std::vector<Part> parts;
    bool areWhole = true;

    // The first option of that code and size, as a number.
    [[nodiscard]] std::optional<uint32_t> Number(uint8_t code, size_t size) const {
        const auto found = std::ranges::find(parts, code, &Part::code);
        if (found == parts.end() || found->data.size() != size) return std::nullopt;
        return NumberAt(found->data, 0, size);
    }
};

void ReadOptions(Bytes area, Options& options) {
    while (!area.empty() && area[0] != kEnd) {
        if (area[0] == kPad) {
            area = area.subspan(1);
            continue;
        }
        if (area.size() < 2 || area.size() - 2 < area[1]) {
            options.areWhole = false;
            return;
        }
        options.parts.push_back({area[0], area.subspan(2, area[1])});
        area = area.subspan(2U + area[1]);
    }
}

// Those of the options field, and of `file` and `sname` where option 52 says so (RFC 2131 section 4.1).
Options OptionsOf(Bytes message) {
    Options options;
    ReadOptions(message.subspan(kMessage), options);
    const uint32_t overload = options.Number(kOverload, 1).value_or(0);
    if ((overload & 1) != 0) ReadOptions(message.subspan(108, 128), options);
    if ((overload & 2) != 0) ReadOptions(message.subspan(44, 64), options);
    return options;
}

// In words, each code once: what came in parts is put together (RFC 3396).
void PutOptions(const Options& options, frame_words& words) {
    for (auto part = options.parts.begin(); part != options.parts.end(); ++part) {
        const auto isSame = [part](const Part& other) { return other.code == part->code; };
        if (std::any_of(options.parts.begin(), part, isSame)) continue;
        std::vector<uint8_t> whole;
        for (const Part& other : options.parts)
            if (isSame(other)) whole.insert(whole.end(), other.data.begin(), other.data.end());
        words.options.push_back({part->code, OptionName(part->code), OptionWords(part->code, whole)});
    }
}

void PutAddress(const char* name, Bytes address, frame_words& words) {
    if (std::ranges::all_of(address, [](uint8_t byte) { return byte == 0; })) return;
    words.addresses.emplace_back(name, WordsOf(address.size() == kMACSize ? "%.6a" : "%.4a", address));
}

std::string LineOf(Bytes ip, Bytes message, const Options& options, const frame_words& words) {
    std::string text = words.type + WordsOf(" xid %08x %.4a -> %.4a chaddr %.6a", *words.xid, ip.subspan(12, 4),
                                            ip.subspan(16, 4), message.subspan(28, kMACSize));
    const std::pair<const char*, uint32_t> addresses[]{
        {" ciaddr ", NumberAt(message, 12, 4)},
        {" yiaddr ", NumberAt(message, 16, 4)},
        {" giaddr ", NumberAt(message, 24, 4)},
        {" requested ", options.Number(kRequestedAddress, 4).value_or(0)},
        {" server ", options.Number(kServerIdentifier, 4).value_or(0)}};
    for (const auto& [name, address] : addresses) {
        if (address == 0) continue;
        text +=
            WordsOf("%s%u.%u.%u.%u", name, address >> 24, address >> 16 & 0xFF, address >> 8 & 0xFF, address & 0xFF);
    }
    if (const auto lease = options.Number(kLeaseTime, 4)) text += WordsOf(" lease %u s", *lease);
    return text;
}

void PutDHCP(Bytes ip, Bytes message, frame_words& words) {
    const Options options = OptionsOf(message);
    words.type = MessageTypeWords(options.Number(kMessageType, 1).value_or(0));
    words.xid = NumberAt(message, 4, 4);
    PutAddress("ipv4Source", ip.subspan(12, 4), words);
    PutAddress("ipv4Destination", ip.subspan(16, 4), words);
    PutAddress("ciaddr", message.subspan(12, 4), words);
    PutAddress("yiaddr", message.subspan(16, 4), words);
    PutAddress("siaddr", message.subspan(20, 4), words);
    PutAddress("giaddr", message.subspan(24, 4), words);
    PutAddress("chaddr", message.subspan(28, kMACSize), words);
    PutOptions(options, words);
    if (options.areWhole) words.text = LineOf(ip, message, options, words);
}

// False for anything but DHCP in an IPv4 packet.
bool ReadDHCP(Bytes frame, frame_words& words) {
    if (frame.size() < kEthernet + kIPv4 || NumberAt(frame, 12, 2) != 0x0800) return false;
    const Bytes ip = frame.subspan(kEthernet);
    const size_t header = size_t{4} * (ip[0] & 0x0FU);  // RFC 791 section 3.1
    if (ip[0] >> 4 != 4 || header < kIPv4 || ip[9] != kUDPProtocol) return false;
    if (ip.size() < header + kUDP + kMessage) return false;
    const Bytes message = ip.subspan(header + kUDP);
    if (NumberAt(message, kMessage - 4, 4) != kCookie) return false;
    PutDHCP(ip, message, words);
    return true;
}

// False for anything but ARP for IPv4 over Ethernet.
bool ReadARP(Bytes frame, frame_words& words) {
    if (frame.size() < kEthernet + kARP || NumberAt(frame, 12, 4) != 0x08060001) return false;
    const Bytes arp = frame.subspan(kEthernet);
    if (NumberAt(arp, 2, 4) != 0x08000604) return false;
    const uint32_t operation = NumberAt(arp, 6, 2);
    const Bytes senderMAC = arp.subspan(8, kMACSize);
    const Bytes sender = arp.subspan(14, 4);
    const Bytes target = arp.subspan(24, 4);
    words.type = operation == 1 ? "ARP request" : operation == 2 ? "ARP reply" : WordsOf("ARP operation %u", operation);
    PutAddress("sender", sender, words);
    PutAddress("senderMac", senderMAC, words);
    PutAddress("target", target, words);
    PutAddress("targetMac", arp.subspan(18, kMACSize), words);
    words.text = words.type + WordsOf(" from %.4a (%.6a) for %.4a", sender, senderMAC, target);
    return true;
}

}  // namespace

frame_words frame_words_of(Bytes frame) {
    frame_words words;
    words.type = "other";
    if (frame.size() < kEthernet) {
        words.text = WordsOf("%u bytes", frame.size());
        return words;
    }
    words.destination = WordsOf("%.6a", frame.first(kMACSize));
    words.source = WordsOf("%.6a", frame.subspan(kMACSize, kMACSize));
    if (!ReadARP(frame, words)) (void)ReadDHCP(frame, words);
    if (words.text.empty())
        words.text =
            WordsOf("type %04x, %u bytes, neither whole ARP nor whole DHCP", NumberAt(frame, 12, 2), frame.size());
    return words;
}
