// What the models of the roles have in common: how they read and build messages, and how frames for them are drawn.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "Ostrel/Status.h"

#include "Harness.h"

namespace sim::model {

using Bytes = std::vector<uint8_t>;

// What befalls a role while it handles a frame.
struct Trouble {
    SendFault send = SendFault::None;
    size_t failingAllocation = 0;  // 1: the first; 0: none
    bool post = false;
};

// An option's data, or why there is none.
struct Option {
    Ostrel_Status status;
    Bytes data{};
};

[[nodiscard]] inline Option FindOption(std::span<const uint8_t> options, uint8_t code) {
    for (size_t at = 0; at < options.size();) {
        if (options[at] == 255) return {kEndingErr};
        if (options[at] == 0) {
            ++at;
            continue;
        }
        if (at + 1 == options.size() || at + 2 + options[at + 1] > options.size()) return {kTooShortErr};
        const auto data = options.subspan(at + 2, options[at + 1]);
        if (options[at] == code) return {kNoErr, {data.begin(), data.end()}};
        at += 2 + data.size();
    }
    return {kTooShortErr};
}

inline void Put(std::string& text, std::string_view part) {
    text += part;
}
template <std::integral Number>
void Put(std::string& text, Number number) {
    text += std::to_string(number);
}
template <typename... Parts>
[[nodiscard]] std::string Join(const Parts&... parts) {
    std::string text;
    (Put(text, parts), ...);
    return text;
}

// From the line on in which two texts part; empty where they are the same.
[[nodiscard]] inline std::string FirstDifference(const std::string& where, const std::string& daemons,
                                                 const std::string& models) {
    if (daemons == models) return "";
    const auto parted = std::mismatch(daemons.begin(), daemons.end(), models.begin(), models.end());
    const std::string same(daemons.begin(), parted.first);
    const size_t start = same.rfind('\n') + 1;  // npos + 1 is 0
    return where + " differ\n  daemon: " + daemons.substr(start) + "\n  model:  " + models.substr(start);
}

[[nodiscard]] inline std::string Hex(uint8_t byte) {
    return {"0123456789abcdef"[byte / 16], "0123456789abcdef"[byte % 16]};
}

[[nodiscard]] inline std::string MACText(const MAC& mac) {
    std::string text;
    for (const uint8_t byte : mac) text += (text.empty() ? "" : ":") + Hex(byte);
    return text;
}

[[nodiscard]] inline std::string TypeName(uint8_t type) {
    constexpr const char* kNames[] = {"UNKNOWN",          "DHCPDISCOVER",   "DHCPOFFER",      "DHCPREQUEST",
                                      "DHCPDECLINE",      "DHCPACK",        "DHCPNAK",        "DHCPRELEASE",
                                      "DHCPINFORM",       "DHCPFORCERENEW", "DHCPLEASEQUERY", "DHCPLEASEUNASSIGNED",
                                      "DHCPLEASEUNKNOWN", "DHCPLEASEACTIVE"};
    return type < std::size(kNames) ? kNames[type] : kNames[0];
}

// A moment of the wall clock, as leases are shown with it.
[[nodiscard]] inline std::string TimeText(int64_t wall) {
    std::array<char, 256> text{};
    tm fields{};
    const time_t moment = wall;
    gmtime_r(&moment, &fields);
    asctime_r(&fields, text.data());
    return std::string(text.data(), 24);
}

[[nodiscard]] inline IPv4 AddressOf(std::span<const uint8_t> bytes) {
    return IPv4{bytes[0]} << 24 | IPv4{bytes[1]} << 16 | IPv4{bytes[2]} << 8 | bytes[3];
}

inline void Append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

[[nodiscard]] inline Bytes OfNumber(uint32_t number, size_t size) {
    Bytes bytes;
    while (size-- > 0) bytes.push_back(static_cast<uint8_t>(uint64_t{number} >> 8 * size));
    return bytes;
}

// From eth0, with checksums of zero.
[[nodiscard]] inline Frame FramedUDP(const Bytes& payload, const MAC& to, IPv4 source, uint16_t sourcePort,
                                     IPv4 destination, uint16_t destinationPort) {
    Frame built(to.begin(), to.end());
    const auto size = static_cast<uint32_t>(payload.size());
    for (const Bytes& part : {Bytes(kClientMAC.begin(), kClientMAC.end()),
                              {8, 0, 0x45, 0},
                              OfNumber(size + 28, 2),
                              {0, 0, 0, 0},
                              {128, 17, 0, 0},
                              OfNumber(source, 4),
                              OfNumber(destination, 4),
                              OfNumber(sourcePort, 2),
                              OfNumber(destinationPort, 2),
                              OfNumber(size + 8, 2),
                              {0, 0},
                              payload})
        Append(built, part);
    return built;
}

// To everybody.
[[nodiscard]] inline Frame ARPRequest(IPv4 sender, IPv4 target) {
    Frame frame = WriteARP({kEveryone, 1, kClientMAC, sender, {}, target});
    frame.resize(42);
    return frame;
}

[[nodiscard]] inline uint32_t DrawBelow(std::mt19937_64& random, uint32_t below) {
    return static_cast<uint32_t>(random() % below);
}

// Fewer than so many of them.
[[nodiscard]] inline Bytes DrawBytes(std::mt19937_64& random, uint32_t below) {
    Bytes bytes(DrawBelow(random, below));
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    return bytes;
}

// A frame that was cut, or lies.
inline void Damage(Frame& frame, std::mt19937_64& random) {
    const auto draw = [&random](size_t below) { return DrawBelow(random, static_cast<uint32_t>(below)); };
    switch (draw(6)) {
        case 0:
            return frame.pop_back();  // no end
        case 1:
            return frame.resize(draw(frame.size()));
        case 2:  // another header length, with or without the bytes that it speaks of
            frame[14] = static_cast<uint8_t>(0x40 | draw(16));
            if (draw(2) == 0 && frame[14] > 0x45) frame.insert(frame.begin() + 34, size_t{4} * (frame[14] - 0x45U), 0);
            return;
        case 3:  // any byte but those that say who is to have it
            frame[6 + draw(frame.size() - 6)] = static_cast<uint8_t>(random());
            return;
        case 4:  // a byte of the options, or of the cookie before them
            frame[278 + draw(frame.size() - 278)] = static_cast<uint8_t>(random());
            return;
        default: {
            const Bytes more = DrawBytes(random, 60);  // behind the end
            frame.insert(draw(2) == 0 ? frame.end() : frame.begin() + 282, more.begin(), more.end());
        }
    }
}

}  // namespace sim::model
