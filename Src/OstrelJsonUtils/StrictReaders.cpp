// Strict readers of JSON values.
//
// Requests come from any process that may call the daemon. Here, unlike in Readers.cpp, nothing is overlooked: a value
// of another type, out of bounds or too much is refused, and the first refusal is what the caller is told.

#include <cstdio>

#include "Ostrel/OstrelJsonUtilsStrict.h"

using valdo::JValue;

OstrelJsonField OstrelJsonFieldOf(const JValue& request, const char* key, OstrelJsonProblem* problem) {
    OstrelJsonField field{request[key], {}, problem};
    (void)std::snprintf(field.path.data(), field.path.size(), "\"%s\"", key);
    return field;
}

Ostrel_Status OstrelJsonRefuse(const OstrelJsonField& field, const char* reason) {
    (void)std::snprintf(field.problem->data(), field.problem->size(), "%s: %s", field.path.data(), reason);
    return kBadParamErr;
}

Ostrel_Status OstrelJsonReadBoolean(const OstrelJsonField& field, bool* value) {
    return field.value.asBool(*value) == valdo::CONV_OK ? kNoErr : OstrelJsonRefuse(field, "true or false is wanted");
}
