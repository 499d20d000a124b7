// Frames in words, for people who look at them: the trace of the daemon, and that of the simulated network. Reads DHCP
// and ARP for itself, and believes nothing: whatever the bytes are, they have words.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

struct frame_option {
    uint8_t code;
    const char* name;  // "subnetMask"; "" for a code without one
    std::string text;  // its value in the form that the code has: addresses, a number, text, or hexadecimal
};

struct frame_words {
    std::string source, destination;  // Ethernet, "02:00:00:00:00:05"; empty for less than a header
    std::string type;                 // "DHCPOFFER", "ARP request", "other"
    std::optional<uint32_t> xid;      // its bytes on the wire, the first in the most significant place
    std::vector<std::pair<const char*, std::string>> addresses;  // "ciaddr", "yiaddr", "sender" and so on, where not 0
    std::vector<frame_option> options;                           // of DHCP, in their order, without pad and end
    std::string text;  // all that matters, in one line, without the Ethernet addresses
};

[[nodiscard]] frame_words frame_words_of(std::span<const uint8_t> frame);
