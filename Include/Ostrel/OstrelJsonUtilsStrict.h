// Strict readers of JSON values: one that can't be used is told in words that its caller can act on.
//
// A field is a value of a request and the way to it. Its readers return kBadParamErr for what they can't use, leave
// their output as it was, and say in the request's problem which value it was and what was wanted instead:
//
//     "fixed"[2].macAddress: an Ethernet address such as 02:00:5e:10:00:01 is wanted
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Ostrel/Status.h"

#include "valdo.h"

// What is wrong with a request, NUL-terminated; empty: nothing so far. It may hold parts of the request.
using OstrelJsonProblem = std::array<char, 256>;

struct OstrelJsonField {
    valdo::JValue value;         // null when it is absent
    std::array<char, 96> path;   // NUL-terminated, from the key of the request on
    OstrelJsonProblem* problem;  // of the request; never null
};

// The value of a request's key.
[[nodiscard]] OstrelJsonField OstrelJsonFieldOf(const valdo::JValue& request, const char* key,
                                                OstrelJsonProblem* problem);

// Says that the field can't be used, and why. Returns kBadParamErr.
[[nodiscard]] Ostrel_Status OstrelJsonRefuse(const OstrelJsonField& field, const char* reason);

[[nodiscard]] Ostrel_Status OstrelJsonReadBoolean(const OstrelJsonField& field, bool* value);
