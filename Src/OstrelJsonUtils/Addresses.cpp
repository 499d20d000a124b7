// Addresses in JSON, and bytes that are no address.
//
// An IPv4 address is a dotted quad, read with inet_aton and written with inet_ntop, and held in network byte order; an
// Ethernet address is six pairs of lower-case hexadecimal digits. An address of 0 means "none" in every record, so
// arrays leave it out when written; read, each element belongs to the slot of its index, and a bad one leaves a gap.

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <utility>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/OstrelJsonUtils.h"

#include "os_memory.h"

using valdo::JValue;

namespace {

// One element of an address array; what cannot be used leaves the slot alone.
void ReadElement(const JValue& element, const char* function, const char* key, size_t index, Ostrel_IPv4* slot) {
    if (!element.isString()) return;

    std::string text;
    const uint32_t conversion = element.asString(text);
    if (conversion != valdo::CONV_OK) {
        Ostrel_LogPrint(kQxLogError, "%s: conv failed(0x%x)\n", function, conversion);
        return;
    }
    if (!OstrelJsonUtilsIPv4FromText(text, slot)) {
        Ostrel_LogPrint(kQxLogError, "%s: inet_aton\n", function);
        return;
    }
    Ostrel_LogPrint(kQxLogDebug, "%s: JSON label <%s:%d>, IPv4 Address <%s> (%x)\n", function, key, index, text, *slot);
}

}  // namespace

bool OstrelJsonUtilsIPv4FromText(const std::string& text, Ostrel_IPv4* address) {
    in_addr parsed{};
    if (inet_aton(text.c_str(), &parsed) == 0) return false;
    *address = parsed.s_addr;
    return true;
}

OstrelIPv4Text OstrelJsonUtilsIPv4ToText(Ostrel_IPv4 address) {
    OstrelIPv4Text text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text;
}

Ostrel_Status OstrelJsonUtilsIPv4Get(const JValue& object, const char* key, Ostrel_IPv4* address, bool optional) {
    std::string text;
    const bool success = GetJsonString(object, key, &text, optional, nullptr);
    OSTREL_REQUIRE(success, "success", kBadParamErr);
    if (!OstrelJsonUtilsIPv4FromText(text, address)) return kBadParamErr;
    Ostrel_LogPrint(kQxLogDebug, "%s: JSON label <%s>, IPv4 Address <%s> (%x)\n", __func__, key, text, *address);
    return kNoErr;
}

Ostrel_Status OstrelJsonUtilsIPv4Put(JValue& object, const char* key, Ostrel_IPv4 address) {
    object.put(key, OstrelJsonUtilsIPv4ToText(address).data());
    return kNoErr;
}

Ostrel_Status OstrelJsonUtilsIPv4ArrayGet(const JValue& object, const char* key, std::span<Ostrel_IPv4> addresses) {
    JValue array;
    size_t count = 0;
    const bool success = GetJsonArray(object, key, &array, &count);
    OSTREL_REQUIRE(success, "success", kBadParamErr);
    const size_t slots = std::min(count, addresses.size());
    if (count > slots)
        Ostrel_LogPrint(kQxLogDebug, "%s: JSON label <%s> has %d elements, room for %d\n", __func__, key, count, slots);
    for (size_t i = 0; i < slots; ++i) ReadElement(array[i], __func__, key, i, &addresses[i]);
    return kNoErr;
}

Ostrel_Status OstrelJsonUtilsIPv4ArrayPut(JValue& object, const char* key, std::span<const Ostrel_IPv4> addresses) {
    if (addresses.empty()) return kNoErr;
    JValue array = valdo::Array();
    for (const Ostrel_IPv4 address : addresses) {
        if (address != kAnyIPv4) array.append(OstrelJsonUtilsIPv4ToText(address).data());
    }
    object.put(key, std::move(array));
    return kNoErr;
}

Ostrel_Status OstrelJsonUtilsMACPut(JValue& object, const char* key, const Ostrel_MAC& address) {
    std::array<char, 18> text;
    std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1], address[2],
                  address[3], address[4], address[5]);
    object.put(key, text.data());
    return kNoErr;
}

void OstrelJsonUtilsHexPut(JValue& object, std::string_view key, std::span<const uint8_t> bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const os_array<char> text = os_zalloc_array<char>(2 * bytes.size() + 1);
    if (text == nullptr) return;
    for (size_t i = 0; i < bytes.size(); ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 0xF];
    }
    object.put(key, text.get());
}
