// DHCP options of a lease as JSON.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "valdo.h"

struct Ostrel_OptionList;

// Bytes from the network as text: what comes before the first zero byte.
[[nodiscard]] std::string_view OstrelJsonUtilsTextOf(std::span<const uint8_t> bytes);

// An option that a lease shows in words beside its bytes.
struct OstrelJsonOption {
    uint8_t code;
    const char* key;
    // The value of whole option data; null when the data is not what the option should hold.
    valdo::JValue (*decode)(std::span<const uint8_t> data);
};

// All of them, ended by a row without a key. Of two with the same key the first counts.
extern const OstrelJsonOption gOstrelJsonOptions[];

// Puts "options", each one's bytes in hexadecimal under its code, and behind it the known ones that are well-formed.
void OstrelJsonUtilsOptionsPut(valdo::JValue& object, const Ostrel_OptionList& options);

// Whether the list has classless static routes that are well-formed. A router is then to be ignored (RFC 3442).
[[nodiscard]] bool OstrelJsonUtilsHaveRoutes(const Ostrel_OptionList& options);
