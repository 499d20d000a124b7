// DHCP frames as the fuzz targets make them, and as their mutators take them apart.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "Wire.h"

namespace sim::fuzz {

constexpr size_t kOptionsAt = 282;  // bytes of a frame before its options, with a plain IPv4 header

// An option as it stands in an options area. Pad and end are the code alone; `length` is what is written for it,
// whatever the data is.
struct Option {
    uint8_t code;
    std::optional<uint8_t> length;
    std::vector<uint8_t> data;
};

// What cannot be taken for an option any more is the data of the last one, which then has no length.
[[nodiscard]] std::vector<Option> ReadOptions(std::span<const uint8_t> area);
[[nodiscard]] std::vector<uint8_t> WriteOptions(const std::vector<Option>& options);

// What a message has before its options.
[[nodiscard]] Frame HeadOf(const DHCPMessage& message);

// Puts lengths and checksums of IPv4 and UDP right; a frame that has no room for them is left alone.
void Repair(Frame& frame);

}  // namespace sim::fuzz
