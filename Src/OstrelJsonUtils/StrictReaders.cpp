// Strict readers of JSON values.
//
// Requests come from any process that may call the daemon. Here, unlike in Readers.cpp, nothing is overlooked: a value
// of another type, out of bounds or of a name that nobody knows is refused, and the first refusal is what the caller is
// told. Parts of the request that get into that text are mended when it is serialised, as all foreign text is.

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <utility>

#include "Ostrel/OstrelJsonUtilsStrict.h"

using valdo::JValue;

namespace {

using Reason = std::array<char, 96>;

// The value of a hexadecimal digit, or -1.
int ValueOf(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Pairs of digits, each at `step` characters from the one before. False, with `bytes` in any state, when one is none.
bool ReadPairs(const std::string& text, size_t step, std::span<uint8_t> bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) {
        const int high = ValueOf(text[i * step]);
        const int low = ValueOf(text[i * step + 1]);
        if (high < 0 || low < 0) return false;
        bytes[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

bool IsKnown(std::string_view name, std::span<const char* const> names) {
    return std::any_of(names.begin(), names.end(), [name](const char* known) { return name == known; });
}

}  // namespace

OstrelJsonField OstrelJsonFieldOf(const JValue& request, const char* key, OstrelJsonProblem* problem) {
    OstrelJsonField field{request[key], {}, problem};
    (void)std::snprintf(field.path.data(), field.path.size(), "\"%s\"", key);
    return field;
}

OstrelJsonField OstrelJsonMember(const OstrelJsonField& field, const char* name) {
    OstrelJsonField member{field.value[std::string_view(name)], {}, field.problem};
    std::string_view way(field.path.data());
    way = way.substr(0, member.path.size() / 2);
    (void)std::snprintf(member.path.data(), member.path.size(), "%.*s.%s", static_cast<int>(way.size()), way.data(),
                        name);
    return member;
}

OstrelJsonField OstrelJsonElement(const OstrelJsonField& field, size_t index) {
    OstrelJsonField element{field.value[index], {}, field.problem};
    std::string_view way(field.path.data());
    way = way.substr(0, element.path.size() / 2);
    (void)std::snprintf(element.path.data(), element.path.size(), "%.*s[%zu]", static_cast<int>(way.size()), way.data(),
                        index);
    return element;
}

Ostrel_Status OstrelJsonRefuse(const OstrelJsonField& field, const char* reason) {
    (void)std::snprintf(field.problem->data(), field.problem->size(), "%s: %s", field.path.data(), reason);
    return kBadParamErr;
}

Ostrel_Status OstrelJsonReadBoolean(const OstrelJsonField& field, bool* value) {
    return field.value.asBool(*value) == valdo::CONV_OK ? kNoErr : OstrelJsonRefuse(field, "true or false is wanted");
}

Ostrel_Status OstrelJsonReadNumber(const OstrelJsonField& field, int32_t min, int32_t max, int32_t* value) {
    int32_t number = 0;
    if (field.value.asNumber(number) == valdo::CONV_OK && number >= min && number <= max) {
        *value = number;
        return kNoErr;
    }
    Reason reason;
    (void)std::snprintf(reason.data(), reason.size(), "a whole number from %d to %d is wanted", min, max);
    return OstrelJsonRefuse(field, reason.data());
}

Ostrel_Status OstrelJsonReadText(const OstrelJsonField& field, OstrelJsonBytes bytes, std::string* text) {
    std::string read;
    const bool isText = field.value.asString(read) == valdo::CONV_OK && read.find('\0') == std::string::npos;
    if (isText && read.size() >= bytes.min && read.size() <= bytes.max) {
        *text = std::move(read);
        return kNoErr;
    }
    Reason reason;
    (void)std::snprintf(reason.data(), reason.size(), "a text of %zu to %zu bytes is wanted", bytes.min, bytes.max);
    return OstrelJsonRefuse(field, reason.data());
}

Ostrel_Status OstrelJsonReadHex(const OstrelJsonField& field, OstrelJsonBytes bytes, os_array<uint8_t>* data,
                                uint32_t* length) {
    std::string text;
    const bool isText = field.value.asString(text) == valdo::CONV_OK && text.size() % 2 == 0;
    const size_t size = text.size() / 2;
    if (isText && size >= bytes.min && size <= bytes.max) {
        os_array<uint8_t> read = os_zalloc_array<uint8_t>(size);
        if (read == nullptr) return kOutOfMemoryErr;
        if (ReadPairs(text, 2, {read.get(), size})) {
            *data = std::move(read);
            *length = static_cast<uint32_t>(size);
            return kNoErr;
        }
    }
    Reason reason;
    (void)std::snprintf(reason.data(), reason.size(), "%zu to %zu pairs of hexadecimal digits are wanted", bytes.min,
                        bytes.max);
    return OstrelJsonRefuse(field, reason.data());
}

Ostrel_Status OstrelJsonReadIPv4(const OstrelJsonField& field, Ostrel_IPv4* address) {
    std::string text;
    const bool isText = field.value.asString(text) == valdo::CONV_OK && text.find('\0') == std::string::npos;
    if (isText && inet_pton(AF_INET, text.c_str(), address) == 1) return kNoErr;
    return OstrelJsonRefuse(field, "an IPv4 address such as 192.0.2.1 is wanted");
}

Ostrel_Status OstrelJsonReadHostIPv4(const OstrelJsonField& field, Ostrel_IPv4* address) {
    Ostrel_IPv4 read = kAnyIPv4;
    const Ostrel_Status status = OstrelJsonReadIPv4(field, &read);
    if (status != kNoErr) return status;
    if (!Ostrel_IsOfHost(read)) return OstrelJsonRefuse(field, "no host can have this address");
    *address = read;
    return kNoErr;
}

Ostrel_Status OstrelJsonReadAnyMAC(const OstrelJsonField& field, Ostrel_MAC* address) {
    std::string text;
    Ostrel_MAC read{};
    bool isAddress = field.value.asString(text) == valdo::CONV_OK && text.size() == 17;
    for (size_t colon = 2; isAddress && colon < text.size(); colon += 3) isAddress = text[colon] == ':';
    isAddress = isAddress && ReadPairs(text, 3, read);
    if (!isAddress) return OstrelJsonRefuse(field, "an Ethernet address such as 02:00:5e:10:00:01 is wanted");
    *address = read;
    return kNoErr;
}

Ostrel_Status OstrelJsonReadMAC(const OstrelJsonField& field, Ostrel_MAC* address) {
    Ostrel_MAC read{};
    const Ostrel_Status status = OstrelJsonReadAnyMAC(field, &read);
    if (status != kNoErr) return status;
    if ((read[0] & 1) != 0 || read == Ostrel_MAC{}) return OstrelJsonRefuse(field, "no station can have this address");
    *address = read;
    return kNoErr;
}

Ostrel_Status OstrelJsonReadArray(const OstrelJsonField& field, size_t max, size_t* count) {
    if (field.value.isArray() && field.value.arraySize() <= max) {
        *count = field.value.arraySize();
        return kNoErr;
    }
    Reason reason;
    (void)std::snprintf(reason.data(), reason.size(), "an array of at most %zu elements is wanted", max);
    return OstrelJsonRefuse(field, reason.data());
}

Ostrel_Status OstrelJsonReadObject(const OstrelJsonField& field, std::span<const char* const> names) {
    if (!field.value.isObject()) return OstrelJsonRefuse(field, "an object is wanted");
    for (size_t i = 0; i < field.value.objectSize(); ++i) {
        const std::string_view name = field.value.memberName(i);
        if (IsKnown(name, names)) continue;
        return OstrelJsonRefuse(OstrelJsonMember(field, name.data()), "there is no such key");
    }
    return kNoErr;
}
