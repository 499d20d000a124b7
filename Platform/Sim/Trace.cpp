// What happened, as a hash that costs little and in words that cost more.
//
// Frames are taken apart here by their bytes, on purpose without the daemon's own readers: a trace must not share a
// mistake with what it describes.

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "Internals.h"

namespace sim {
namespace {

constexpr size_t kRecentFrames = 12;

constexpr std::array<const char*, 9> kMessageNames{"BOOTP",       "DHCPDISCOVER", "DHCPOFFER",
                                                   "DHCPREQUEST", "DHCPDECLINE",  "DHCPACK",
                                                   "DHCPNAK",     "DHCPRELEASE",  "DHCPINFORM"};

template <typename... Arguments>
std::string Words(const char* format, Arguments... arguments) {
    std::array<char, 256> text;
    const int length = std::snprintf(text.data(), text.size(), format, arguments...);
    return {text.data(), std::min(static_cast<size_t>(length), text.size() - 1)};
}

std::string AddressAt(std::span<const uint8_t> frame, size_t offset) {
    return Words("%u.%u.%u.%u", frame[offset], frame[offset + 1], frame[offset + 2], frame[offset + 3]);
}

std::string MACAt(std::span<const uint8_t> frame, size_t offset) {
    return Words("%02x:%02x:%02x:%02x:%02x:%02x", frame[offset], frame[offset + 1], frame[offset + 2],
                 frame[offset + 3], frame[offset + 4], frame[offset + 5]);
}

uint32_t NumberAt(std::span<const uint8_t> frame, size_t offset, size_t size) {
    uint32_t value = 0;
    for (const uint8_t byte : frame.subspan(offset, size)) value = (value << 8) | byte;
    return value;
}

// The data of the first option of that code; empty when there is none.
std::span<const uint8_t> OptionOf(std::span<const uint8_t> options, uint8_t code) {
    while (options.size() >= 2 && options[0] != 255) {
        if (options[0] == 0) {
            options = options.subspan(1);
            continue;
        }
        const size_t length = options[1];
        if (length > options.size() - 2) return {};
        if (options[0] == code) return options.subspan(2, length);
        options = options.subspan(2 + length);
    }
    return {};
}

std::string DescribeARP(std::span<const uint8_t> frame) {
    const uint32_t operation = NumberAt(frame, 20, 2);
    const std::string name = operation == 1 ? "request" : operation == 2 ? "reply" : Words("operation %u", operation);
    return "ARP " + name + " from " + AddressAt(frame, 28) + " (" + MACAt(frame, 22) + ") for " + AddressAt(frame, 38);
}

std::string DescribeDHCP(std::span<const uint8_t> frame, size_t ip, size_t message) {
    const std::span<const uint8_t> options = frame.subspan(message + 240);
    const std::span<const uint8_t> type = OptionOf(options, 53);
    const size_t index = type.empty() ? 0 : type[0];
    std::string text = index < kMessageNames.size() ? kMessageNames[index] : Words("DHCP %zu", index);
    text += Words(" xid %08x ", NumberAt(frame, message + 4, 4)) + AddressAt(frame, ip + 12) + " -> " +
            AddressAt(frame, ip + 16) + " chaddr " + MACAt(frame, message + 28);
    const auto add = [&](const char* name, size_t offset) {
        if (NumberAt(frame, offset, 4) != 0) text += std::string(" ") + name + " " + AddressAt(frame, offset);
    };
    add("ciaddr", message + 12);
    add("yiaddr", message + 16);
    add("giaddr", message + 24);
    for (const auto& [code, name] : {std::pair{50, "requested"}, {54, "server"}}) {
        const std::span<const uint8_t> data = OptionOf(options, static_cast<uint8_t>(code));
        if (data.size() == 4) text += std::string(" ") + name + " " + AddressAt(data, 0);
    }
    const std::span<const uint8_t> lease = OptionOf(options, 51);
    if (lease.size() == 4) text += Words(" lease %u s", NumberAt(lease, 0, 4));
    return text;
}

}  // namespace

std::string DescribeFrame(std::span<const uint8_t> frame) {
    if (frame.size() < 14) return Words("%zu bytes", frame.size());
    const std::string ends = MACAt(frame, 6) + " -> " + MACAt(frame, 0) + " ";
    const uint32_t etherType = NumberAt(frame, 12, 2);
    if (etherType == 0x0806 && frame.size() >= 42) return ends + DescribeARP(frame);
    if (etherType == 0x0800 && frame.size() >= 34) {
        const size_t udp = 14 + size_t{4} * (frame[14] & 0x0F);
        const size_t message = udp + 8;
        if (frame[23] == 17 && frame.size() >= message + 240) return ends + DescribeDHCP(frame, 14, message);
    }
    return ends + Words("type %04x, %zu bytes", etherType, frame.size());
}

namespace {

std::string TimeText(Duration time) {
    const auto micro = time.count();
    return Words("%lld.%06lld", static_cast<long long>(micro / 1'000'000), static_cast<long long>(micro % 1'000'000));
}

// FNV-1a over 64-bit words.
void Mix(uint64_t& hash, uint64_t value) {
    hash = (hash ^ value) * 0x100000001B3;
}

void MixBytes(uint64_t& hash, std::span<const uint8_t> bytes) {
    uint64_t word = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        word = (word << 8) | bytes[i];
        if (i % 8 == 7) Mix(hash, std::exchange(word, 0));
    }
    Mix(hash, word);
    Mix(hash, bytes.size());
}

}  // namespace

void World::State::TraceFrame(const std::shared_ptr<const Frame>& frame, bool inWords) {
    Mix(traceHash, static_cast<uint64_t>(now.count()));
    MixBytes(traceHash, *frame);
    recentFrames.push_back({now, frame});
    if (recentFrames.size() > kRecentFrames) recentFrames.pop_front();
    if (inWords) trace += TimeText(now) + " " + DescribeFrame(*frame) + "\n";
}

void World::State::TraceText(std::string_view what, std::string_view text, bool inWords) {
    Mix(traceHash, static_cast<uint64_t>(now.count()));
    MixBytes(traceHash, std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
    if (inWords) trace.append(TimeText(now)).append(" ").append(what).append(" ").append(text).append("\n");
}

uint64_t World::TraceHash() const {
    return state->traceHash;
}

const std::string& World::Trace() const {
    return state->trace;
}

std::string World::Describe() const {
    std::string text = "seed " + std::to_string(state->seed) + ", " + TimeText(state->now) + " s\n";
    for (const TracedFrame& one : state->recentFrames) {
        text += "  " + TimeText(one.time) + " " + DescribeFrame(*one.frame) + "\n";
    }
    return text;
}

}  // namespace sim
