// DHCP frames, taken apart and put together.

#include "Frames.h"

namespace sim::fuzz {
namespace {

constexpr size_t kIP = 14;
constexpr size_t kUDPHeader = 8;
constexpr uint8_t kPad = 0;
constexpr uint8_t kEnd = 255;

void Put(Frame& frame, size_t at, size_t number) {
    frame[at] = static_cast<uint8_t>(number >> 8);
    frame[at + 1] = static_cast<uint8_t>(number);
}

// RFC 1071, ready to be put in.
uint32_t Checksum(std::span<const uint8_t> bytes, uint32_t sum) {
    for (size_t i = 0; i < bytes.size(); ++i) sum += static_cast<uint32_t>(bytes[i]) << (i % 2 == 0 ? 8 : 0);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return ~sum & 0xFFFF;
}

}  // namespace

std::vector<Option> ReadOptions(std::span<const uint8_t> area) {
    std::vector<Option> options;
    while (!area.empty()) {
        Option& option = options.emplace_back(Option{area[0], {}, {}});
        const bool isBare = option.code == kPad || option.code == kEnd;
        const bool isWhole = !isBare && area.size() >= 2 && area[1] <= area.size() - 2;
        const size_t begin = isWhole ? 2 : 1;
        const size_t size = isBare ? 0 : isWhole ? area[1] : area.size() - 1;
        if (isWhole) option.length = area[1];
        option.data.assign(area.begin() + begin, area.begin() + begin + size);
        area = area.subspan(begin + size);
    }
    return options;
}

std::vector<uint8_t> WriteOptions(const std::vector<Option>& options) {
    std::vector<uint8_t> area;
    for (const Option& option : options) {
        area.push_back(option.code);
        if (option.length) area.push_back(*option.length);
        area.insert(area.end(), option.data.begin(), option.data.end());
    }
    return area;
}

Frame HeadOf(const DHCPMessage& message) {
    Frame frame = WriteDHCP(message);
    frame.resize(kOptionsAt);
    return frame;
}

void Repair(Frame& frame) {
    const size_t header = frame.size() > kIP ? (frame[kIP] & 0x0F) * size_t{4} : 0;
    const size_t udp = kIP + header;
    if (header < 20 || frame.size() < udp + kUDPHeader) return;
    const std::span<const uint8_t> bytes = frame;
    const size_t length = frame.size() - udp;
    Put(frame, kIP + 2, frame.size() - kIP);
    Put(frame, kIP + 10, 0);
    Put(frame, kIP + 10, Checksum(bytes.subspan(kIP, header), 0));
    Put(frame, udp + 4, length);
    Put(frame, udp + 6, 0);
    const uint32_t addresses = ~Checksum(bytes.subspan(kIP + 12, 8), 0) & 0xFFFF;
    Put(frame, udp + 6, Checksum(bytes.subspan(udp), addresses + 17 + static_cast<uint32_t>(length)));
}

}  // namespace sim::fuzz
