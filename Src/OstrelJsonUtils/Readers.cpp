// Typed readers of JSON fields.
//
// Requests come from any process that may call the daemon, so every field is looked for, tested for its type and
// converted here, in one place. The rule for all of them: an absent optional key is a success that stores nothing, a
// present key of the wrong type is a failure even when it is optional, and a failed read leaves the output as it was.

#include <cstring>
#include <utility>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/OstrelJsonUtils.h"

#include "os_memory.h"

using valdo::JValue;

namespace {

// What tells one typed reader from another, the conversion aside.
struct Reader {
    const char* name;
    bool (JValue::*isOfType)() const noexcept;
    const char* wrongType;         // log line: reader, key
    const char* conversionFailed;  // log line: reader, key, conversion status
};

constexpr Reader kString{"GetJsonString", &JValue::isString, "%s: %s not string\n", "%s: asString %s failed(0x%x)\n"};
constexpr Reader kBoolean{"GetJsonBoolean", &JValue::isBoolean, "%s: %s not boolean\n", "%s: asBool %s failed(0x%x)\n"};
constexpr Reader kNumber{"GetJsonNumber", &JValue::isNumber, "%s: %s not number\n", "%s: asNumber %s failed(0x%x)\n"};
constexpr Reader kObject{"GetJsonObject", &JValue::isObject, "%s: %s not objectr\n", ""};

template <typename Value, typename Convert>
bool Read(const Reader& reader, const JValue& object, const char* key, Value* value, bool optional, bool* found,
          Convert convert) {
    const bool present = object.hasKey(key);
    if (found != nullptr) *found = present;
    if (!present) {
        if (!optional && value != nullptr) Ostrel_LogPrint(kQxLogError, "%s: %s not found\n", reader.name, key);
        return optional;
    }

    const JValue member = object[key];
    if (!(member.*reader.isOfType)()) {
        Ostrel_LogPrint(kQxLogError, reader.wrongType, reader.name, key);
        return false;
    }

    Value converted{};
    const uint32_t conversion = convert(member, converted);
    if (conversion != valdo::CONV_OK) {
        Ostrel_LogPrint(kQxLogError, reader.conversionFailed, reader.name, key, conversion);
        return false;
    }
    if (value != nullptr) *value = std::move(converted);
    return true;
}

}  // namespace

bool GetJsonString(const JValue& object, const char* key, std::string* value, bool optional, bool* found) {
    return Read(kString, object, key, value, optional, found,
                [](const JValue& member, std::string& text) { return member.asString(text); });
}

bool GetJsonBoolean(const JValue& object, const char* key, bool* value, bool optional, bool* found) {
    return Read(kBoolean, object, key, value, optional, found,
                [](const JValue& member, bool& truth) { return member.asBool(truth); });
}

bool GetJsonNumber(const JValue& object, const char* key, int32_t* value, bool optional, bool* found) {
    return Read(kNumber, object, key, value, optional, found,
                [](const JValue& member, int32_t& number) { return member.asNumber(number); });
}

bool GetJsonObject(const JValue& object, const char* key, JValue* value, bool optional, bool* found) {
    return Read(kObject, object, key, value, optional, found, [](const JValue& member, JValue& handle) -> uint32_t {
        handle = member;
        return valdo::CONV_OK;
    });
}

bool GetJsonArray(const JValue& object, const char* key, JValue* value, size_t* count) {
    if (!object.hasKey(key)) return false;
    const JValue member = object[key];
    if (!member.isArray()) return false;
    if (value != nullptr) *value = member;
    if (count != nullptr) *count = member.arraySize();
    return true;
}

bool CheckJsonRoot(const char* payload, const char* schema, JValue* root) {
    valdo::JDomParser parser;
    if (!parser.parse(payload, valdo::JSchemaFragment(schema))) return false;
    *root = parser.getDom();
    return root->isObject();
}

bool CheckJsonReply(const JValue& reply) {
    const JValue returnValue = reply["returnValue"];
    bool success = false;
    return returnValue.isBoolean() && returnValue.asBool(success) == valdo::CONV_OK && success;
}

Ostrel_Status OstrelJsonUtilsStringDup(const JValue& object, const char* key, char** value) {
    char*& outString = *value;
    std::string text;
    const bool success = GetJsonString(object, key, &text, false, nullptr);
    OSTREL_REQUIRE(success, "success", kGenericErr);

    os_free(outString);
    outString = static_cast<char*>(os_zalloc(text.size() + 1));
    OSTREL_REQUIRE(outString != nullptr, "*outString", kOutOfMemoryErr);
    std::memcpy(outString, text.data(), text.size());
    return kNoErr;
}

Ostrel_Status OstrelJsonUtilsStringCopy(const JValue& object, const char* key, std::span<char> buffer) {
    std::string text;
    const bool success = GetJsonString(object, key, &text, false, nullptr);
    OSTREL_REQUIRE(success && text.size() < buffer.size(), "(success && (str.size() < inLen))", kTooLongErr);
    std::memcpy(buffer.data(), text.data(), text.size());
    return kNoErr;
}
