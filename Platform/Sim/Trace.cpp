// What happened, as a hash that costs little and in words that cost more.

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "Internals.h"
#include "Wire.h"

namespace sim {
namespace {

constexpr size_t kRecentFrames = 12;

constexpr std::array<const char*, 9> kMessageNames{"DHCP without a type", "DHCPDISCOVER", "DHCPOFFER", "DHCPREQUEST",
                                                   "DHCPDECLINE",         "DHCPACK",      "DHCPNAK",   "DHCPRELEASE",
                                                   "DHCPINFORM"};

template <typename... Arguments>
std::string Words(const char* format, Arguments... arguments) {
    std::array<char, 256> text;
    const int length = std::snprintf(text.data(), text.size(), format, arguments...);
    return {text.data(), std::min(static_cast<size_t>(length), text.size() - 1)};
}

std::string TextOf(const MAC& mac) {
    return Words("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

std::string DescribeARP(const ARPFrame& arp) {
    const std::string name = arp.operation == 1   ? "request"
                             : arp.operation == 2 ? "reply"
                                                  : Words("operation %u", arp.operation);
    return "ARP " + name + " from " + ToText(arp.sender) + " (" + TextOf(arp.senderMAC) + ") for " + ToText(arp.target);
}

std::string DescribeDHCP(const DHCPMessage& message) {
    const size_t type = message.Type();
    std::string text = type < kMessageNames.size() ? kMessageNames[type] : Words("DHCP %zu", type);
    text += Words(" xid %08x ", message.xid) + ToText(message.source) + " -> " + ToText(message.destination) +
            " chaddr " + TextOf(message.chaddr);
    const std::array<std::pair<const char*, IPv4>, 5> addresses{{{" ciaddr ", message.ciaddr},
                                                                 {" yiaddr ", message.yiaddr},
                                                                 {" giaddr ", message.giaddr},
                                                                 {" requested ", message.Number(50).value_or(0)},
                                                                 {" server ", message.Number(54).value_or(0)}}};
    for (const auto& [name, address] : addresses)
        if (address != 0) text += name + ToText(address);
    if (const auto lease = message.Number(51)) text += Words(" lease %u s", *lease);
    return text;
}

}  // namespace

std::string DescribeFrame(std::span<const uint8_t> frame) {
    if (frame.size() < 14) return Words("%zu bytes", frame.size());
    MAC destination, source;
    std::copy_n(&frame[0], destination.size(), destination.begin());
    std::copy_n(&frame[6], source.size(), source.begin());
    const std::string ends = TextOf(source) + " -> " + TextOf(destination) + " ";
    if (const auto arp = ReadARP(frame)) return ends + DescribeARP(*arp);
    if (const auto message = ReadDHCP(frame)) return ends + DescribeDHCP(*message);
    return ends +
           Words("type %02x%02x, %zu bytes, neither whole ARP nor whole DHCP", frame[12], frame[13], frame.size());
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
