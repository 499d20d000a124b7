// Fields of the daemon's JSON objects, as records keep them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Ostrel/Address.h"
#include "Ostrel/DHCPShared.h"

#include "valdo.h"

namespace ostrelctl {

// What is absent or of another type reads as empty, kAnyIPv4 or false.
[[nodiscard]] std::string TextOf(const valdo::JValue& object, const char* key);
[[nodiscard]] bool TruthOf(const valdo::JValue& object, const char* key);
[[nodiscard]] Ostrel_IPv4 AddressOf(const valdo::JValue& object, const char* key);

// The addresses of an array, or the one address of a string; 0.0.0.0 is left out.
[[nodiscard]] std::vector<Ostrel_IPv4> AddressesOf(const valdo::JValue& object, const char* key);

// A number of things; 0 when it is absent or not one.
[[nodiscard]] int64_t NumberOf(const valdo::JValue& object, const char* key);

// A number of seconds; kInfiniteLease for one of 2^31 and above, 68 years, and for none.
[[nodiscard]] int64_t SecondsOf(const valdo::JValue& object, const char* key);

}  // namespace ostrelctl
