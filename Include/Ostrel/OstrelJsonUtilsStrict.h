// Strict readers of JSON values: one that can't be used is told in words that its caller can act on.
//
// A field is a value of a request and the way to it. A reader of a field returns kBadParamErr for what it can't use,
// leaves its output as it was, and says in the request's problem which value it was and what was wanted instead:
//
//     "fixed"[2].macAddress: an Ethernet address such as 02:00:5e:10:00:01 is wanted
//
// Those that copy return kOutOfMemoryErr when memory is out, and then say nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "Ostrel/Address.h"
#include "Ostrel/Status.h"

#include "os_memory.h"
#include "valdo.h"

// What is wrong with a request, NUL-terminated; empty: nothing so far. It may hold parts of the request.
using OstrelJsonProblem = std::array<char, 256>;

struct OstrelJsonField {
    valdo::JValue value;         // null when it is absent
    std::array<char, 96> path;   // NUL-terminated, from the key of the request on
    OstrelJsonProblem* problem;  // of the request; never null
};

// The value of a request's key; one member of a field that is an object; one element of a field that is an array.
[[nodiscard]] OstrelJsonField OstrelJsonFieldOf(const valdo::JValue& request, const char* key,
                                                OstrelJsonProblem* problem);
[[nodiscard]] OstrelJsonField OstrelJsonMember(const OstrelJsonField& field, const char* name);
[[nodiscard]] OstrelJsonField OstrelJsonElement(const OstrelJsonField& field, size_t index);

[[nodiscard]] inline bool OstrelJsonHas(const OstrelJsonField& field, const char* name) {
    return field.value.hasKey(name);
}

// Says that the field can't be used, and why. Returns kBadParamErr.
[[nodiscard]] Ostrel_Status OstrelJsonRefuse(const OstrelJsonField& field, const char* reason);

[[nodiscard]] Ostrel_Status OstrelJsonReadBoolean(const OstrelJsonField& field, bool* value);
[[nodiscard]] Ostrel_Status OstrelJsonReadNumber(const OstrelJsonField& field, int32_t min, int32_t max,
                                                 int32_t* value);

// How many bytes a text, or what hexadecimal digits stand for, may have.
struct OstrelJsonBytes {
    size_t min;
    size_t max;
};
// A text holds no zero byte.
[[nodiscard]] Ostrel_Status OstrelJsonReadText(const OstrelJsonField& field, OstrelJsonBytes bytes, std::string* text);
// Pairs of hexadecimal digits, with nothing between them.
[[nodiscard]] Ostrel_Status OstrelJsonReadHex(const OstrelJsonField& field, OstrelJsonBytes bytes,
                                              os_array<uint8_t>* data, uint32_t* length);

// A dotted quad; of a host: neither 0.0.0.0 nor what no host can have, such as a group's address.
[[nodiscard]] Ostrel_Status OstrelJsonReadIPv4(const OstrelJsonField& field, Ostrel_IPv4* address);
[[nodiscard]] Ostrel_Status OstrelJsonReadHostIPv4(const OstrelJsonField& field, Ostrel_IPv4* address);
// Six pairs of hexadecimal digits with colons between; the second: of one station.
[[nodiscard]] Ostrel_Status OstrelJsonReadAnyMAC(const OstrelJsonField& field, Ostrel_MAC* address);
[[nodiscard]] Ostrel_Status OstrelJsonReadMAC(const OstrelJsonField& field, Ostrel_MAC* address);

// An array of at most so many elements.
[[nodiscard]] Ostrel_Status OstrelJsonReadArray(const OstrelJsonField& field, size_t max, size_t* count);
// An object without members of other names.
[[nodiscard]] Ostrel_Status OstrelJsonReadObject(const OstrelJsonField& field, std::span<const char* const> names);
