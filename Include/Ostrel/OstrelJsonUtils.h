// Typed fields of JSON objects, addresses as text, and tables of values and names.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Ostrel/Address.h"
#include "Ostrel/Status.h"

#include "valdo.h"

// A row of a value/name table; the table ends with a row whose name is null. The first match wins.
struct OstrelJsonUtilsUint32StringTableEntry {
    uint32_t value;
    const char* name;
};

// Lookups: kNoSuchItemErr, with the output untouched, when no row matches. Names are compared byte for byte.
[[nodiscard]] Ostrel_Status OstrelJsonUtilsLookupTableStringByVal32(const OstrelJsonUtilsUint32StringTableEntry* table,
                                                                    uint32_t value, const char** name);
[[nodiscard]] Ostrel_Status OstrelJsonUtilsLookupTableIndexByString(const OstrelJsonUtilsUint32StringTableEntry* table,
                                                                    std::string_view name, int32_t* index);
[[nodiscard]] Ostrel_Status OstrelJsonUtilsLookupTableVal32ByString(const OstrelJsonUtilsUint32StringTableEntry* table,
                                                                    std::string_view name, uint32_t* value);

// Typed readers. True with the value stored, or, for an absent optional key, true with nothing stored; otherwise false
// with the output untouched. `found`, when given, tells whether the key was there. A present key of another type fails,
// optional or not. Outputs may be null. A number must be whole and fit 32 bits.
[[nodiscard]] bool GetJsonString(const valdo::JValue& object, const char* key, std::string* value, bool optional,
                                 bool* found);
[[nodiscard]] bool GetJsonBoolean(const valdo::JValue& object, const char* key, bool* value, bool optional,
                                  bool* found);
[[nodiscard]] bool GetJsonNumber(const valdo::JValue& object, const char* key, int32_t* value, bool optional,
                                 bool* found);
[[nodiscard]] bool GetJsonObject(const valdo::JValue& object, const char* key, valdo::JValue* value, bool optional,
                                 bool* found);
[[nodiscard]] bool GetJsonArray(const valdo::JValue& object, const char* key, valdo::JValue* value, size_t* count);

// Parses a request. True only for a JSON object; another well-formed document is stored all the same.
[[nodiscard]] bool CheckJsonRoot(const char* payload, const char* schema, valdo::JValue* root);

// Whether a reply says "returnValue": true.
[[nodiscard]] bool CheckJsonReply(const valdo::JValue& reply);

// An address as a dotted quad and its NUL. From text: as inet_aton reads it; false, with the output untouched, when it
// cannot.
using OstrelIPv4Text = std::array<char, 16>;
[[nodiscard]] bool OstrelJsonUtilsIPv4FromText(const std::string& text, Ostrel_IPv4* address);
[[nodiscard]] OstrelIPv4Text OstrelJsonUtilsIPv4ToText(Ostrel_IPv4 address);

// Addresses as dotted text. Get: kBadParamErr when the key is absent or unusable; the
// optional flag only keeps that out of the log.
[[nodiscard]] Ostrel_Status OstrelJsonUtilsIPv4Get(const valdo::JValue& object, const char* key, Ostrel_IPv4* address,
                                                   bool optional);
Ostrel_Status OstrelJsonUtilsIPv4Put(valdo::JValue& object, const char* key, Ostrel_IPv4 address);

// Element i goes to slot i; an unusable one leaves its slot as it was, one beyond the slots is ignored.
[[nodiscard]] Ostrel_Status OstrelJsonUtilsIPv4ArrayGet(const valdo::JValue& object, const char* key,
                                                        std::span<Ostrel_IPv4> addresses);
// Zero addresses are left out; no address at all writes no key.
Ostrel_Status OstrelJsonUtilsIPv4ArrayPut(valdo::JValue& object, const char* key,
                                          std::span<const Ostrel_IPv4> addresses);

// "00:1a:2b:3c:4d:5e".
Ostrel_Status OstrelJsonUtilsMACPut(valdo::JValue& object, const char* key, const Ostrel_MAC& address);

// Two lower-case hexadecimal digits for each byte. Nothing is put when memory is out.
void OstrelJsonUtilsHexPut(valdo::JValue& object, std::string_view key, std::span<const uint8_t> bytes);

// Replaces the string that *value owns (from os_zalloc, or null) by a copy of the text; the caller frees it with
// os_free. kGenericErr when the key is absent or no string, kOutOfMemoryErr with *value null.
[[nodiscard]] Ostrel_Status OstrelJsonUtilsStringDup(const valdo::JValue& object, const char* key, char** value);

// Copies the text's characters, without a NUL, into `buffer`, which must be longer; kTooLongErr otherwise.
[[nodiscard]] Ostrel_Status OstrelJsonUtilsStringCopy(const valdo::JValue& object, const char* key,
                                                      std::span<char> buffer);
