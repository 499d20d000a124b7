// The keys of a client that "interfaceInitialize" takes strictly: what it says to servers, and what it asks them for.
//
// What a client sends is told as options, whatever key it came by: the role puts them into its messages as they are. A
// message has no more room than a frame, so all that a caller gives is bounded together.

#include <algorithm>
#include <array>

#include "Ostrel/DHCPShared.h"

#include "HostNames.h"
#include "OptionCodes.h"
#include "ValueKeys.h"

namespace {

constexpr uint8_t kOptionVendorClass = 60;  // RFC 2132 section 9.13
constexpr uint8_t kOptionUserClass = 77;    // RFC 3004
constexpr uint8_t kOptionClientFQDN = 81;   // RFC 4702
constexpr size_t kMaxSent = 768;            // bytes of a caller's options; the client's own need some 400 more

// Flags of option 81 (RFC 4702 section 2.1). A client that updates no name server itself asks the server to enter its
// address (S), and writes its name as a name server does (E), the only form that is not deprecated. N and O stay 0: N
// is for who wants no entry at all, O is the server's.
constexpr uint8_t kFQDNServerUpdates = 0x01;
constexpr uint8_t kFQDNIsEncoded = 0x04;

Ostrel_Status AddSent(const OstrelJsonField& field, uint8_t code, std::span<const uint8_t> data,
                      Ostrel_InterfaceConfig* cfg) {
    const Ostrel_Status status = Ostrel_VSUtil_AddOption(field, code, data, &cfg->client.sent);
    if (status != kNoErr) return status;
    if (Ostrel_VSUtil_SizeOf(cfg->client.sent) > kMaxSent)
        return OstrelJsonRefuse(field, "the options of the client are longer than 768 bytes together");
    return kNoErr;
}

std::span<const uint8_t> BytesOf(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// The data of one option, while it is put together.
struct Data {
    std::array<uint8_t, kOptionMaxData> bytes;
    size_t size;

    // False, with nothing added, when it does not fit.
    bool Add(std::span<const uint8_t> more) {
        if (more.size() > bytes.size() - size) return false;
        std::copy(more.begin(), more.end(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
        size += more.size();
        return true;
    }
    // One byte that says how long the text is, then the text.
    bool AddCounted(std::string_view text) {
        const auto length = static_cast<uint8_t>(text.size());
        return text.size() < bytes.size() - size && Add({&length, 1}) && Add(BytesOf(text));
    }
    [[nodiscard]] std::span<const uint8_t> Filled() const { return std::span(bytes).first(size); }
};

// Flags, two bytes that are for servers, and the name: each label behind its length, the root at the end. False when
// that is too long.
bool PutFQDN(std::string_view name, Data* data) {
    constexpr std::array<uint8_t, 3> kBegin{kFQDNServerUpdates | kFQDNIsEncoded, 0, 0};
    bool fits = data->Add(kBegin);
    while (fits && !name.empty()) {
        const std::string_view label = name.substr(0, name.find('.'));
        fits = data->AddCounted(label);
        name.remove_prefix(std::min(label.size() + 1, name.size()));
    }
    return fits && data->AddCounted("");
}

// The name of a member as a code: decimal digits without a leading zero. 0 when it is none.
uint8_t CodeOf(std::string_view name) {
    uint32_t code = 0;
    if (name.empty() || name.size() > 3 || name[0] == '0') return 0;
    for (const char digit : name) {
        if (digit < '0' || digit > '9') return 0;
        code = code * 10 + static_cast<uint32_t>(digit - '0');
    }
    return code < kOptionEnd ? static_cast<uint8_t>(code) : 0;
}

Ostrel_Status ReadSentOption(const OstrelJsonField& field, uint8_t code, Ostrel_InterfaceConfig* cfg) {
    if (code == 0) return OstrelJsonRefuse(field, "the code of an option, 1 to 254, is wanted as the key");
    Ostrel_OptionValue value{};
    Ostrel_Status status = Ostrel_VSUtil_CheckCode(field, Ostrel_CodeUse::kSend, code);
    if (status == kNoErr) status = OstrelJsonReadHex(field, {1, kOptionMaxData}, &value.data, &value.length);
    if (status == kNoErr) status = AddSent(field, code, {value.data.get(), value.length}, cfg);
    return status;
}

}  // namespace

// A name without dots goes as the host name, which every server reads; one with dots is no host name (RFC 2132 section
// 3.14), and goes as option 81 alone (RFC 4702 section 3.1).
Ostrel_Status Ostrel_VSUtil_ReadClientHostName(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    std::string name;
    const Ostrel_Status status = Ostrel_VSUtil_ReadHostName(field, &name);
    if (status != kNoErr) return status;
    if (name.find('.') == std::string::npos) return AddSent(field, kOptionHostName, BytesOf(name), cfg);
    Data data{};
    if (!PutFQDN(name, &data)) return OstrelJsonRefuse(field, "a name with dots has at most 250 bytes");
    return AddSent(field, kOptionClientFQDN, data.Filled(), cfg);
}

Ostrel_Status Ostrel_VSUtil_ReadVendorClass(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    std::string text;
    const Ostrel_Status status = OstrelJsonReadText(field, {1, kOptionMaxData}, &text);
    return status == kNoErr ? AddSent(field, kOptionVendorClass, BytesOf(text), cfg) : status;
}

// A text goes as it is: that is what most clients send and most servers compare with. An array goes in the form of RFC
// 3004, in which a class stands behind its length.
Ostrel_Status Ostrel_VSUtil_ReadUserClass(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    if (field.value.isString()) {
        std::string text;
        const Ostrel_Status status = OstrelJsonReadText(field, {1, kOptionMaxData}, &text);
        return status == kNoErr ? AddSent(field, kOptionUserClass, BytesOf(text), cfg) : status;
    }
    if (!field.value.isArray() || field.value.arraySize() == 0)
        return OstrelJsonRefuse(field, "a text, or an array of texts, is wanted");
    Data data{};
    for (size_t i = 0; i < field.value.arraySize(); ++i) {
        const OstrelJsonField element = OstrelJsonElement(field, i);
        std::string text;
        const Ostrel_Status status = OstrelJsonReadText(element, {1, kOptionMaxData - 1}, &text);
        if (status != kNoErr) return status;
        if (!data.AddCounted(text)) return OstrelJsonRefuse(element, "the classes are longer than an option");
    }
    return AddSent(field, kOptionUserClass, data.Filled(), cfg);
}

// At least a type and one byte (RFC 2132 section 9.14).
Ostrel_Status Ostrel_VSUtil_ReadClientIdentifierHex(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    if (cfg->clientIdentifier != nullptr) return OstrelJsonRefuse(field, "contradicts \"clientIdentifier\"");
    return OstrelJsonReadHex(field, {2, kOptionMaxData}, &cfg->client.clientIdentifier,
                             &cfg->client.clientIdentifierLength);
}

Ostrel_Status Ostrel_VSUtil_ReadRequestOptions(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    size_t count = 0;
    Ostrel_Status status = OstrelJsonReadArray(field, kMaxOptionValues, &count);
    if (status != kNoErr) return status;
    Ostrel_ClientValues& client = cfg->client;
    client.requested = os_zalloc_array<uint8_t>(count);
    if (client.requested == nullptr) return kOutOfMemoryErr;
    for (size_t i = 0; i < count; ++i) {
        const OstrelJsonField element = OstrelJsonElement(field, i);
        uint8_t code = 0;
        status = Ostrel_VSUtil_ReadCode(element, Ostrel_CodeUse::kAsk, &code);
        if (status != kNoErr) return status;
        const std::span<const uint8_t> before{client.requested.get(), client.numRequested};
        if (std::ranges::find(before, code) != before.end())
            return OstrelJsonRefuse(element, "this code was given already");
        client.requested[client.numRequested++] = code;
    }
    return kNoErr;
}

Ostrel_Status Ostrel_VSUtil_ReadSendOptions(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    if (!field.value.isObject()) return OstrelJsonRefuse(field, "an object is wanted, such as {\"60\":\"6d6f64656d\"}");
    for (size_t i = 0; i < field.value.objectSize(); ++i) {
        const std::string_view name = field.value.memberName(i);
        const Ostrel_Status status = ReadSentOption(OstrelJsonMember(field, name.data()), CodeOf(name), cfg);
        if (status != kNoErr) return status;
    }
    return kNoErr;
}

Ostrel_Status Ostrel_VSUtil_ReadBroadcast(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    return OstrelJsonReadBoolean(field, &cfg->client.broadcast);
}

// RFC 5227 section 2.1.1 needs 9 seconds at most; a minute is room enough.
Ostrel_Status Ostrel_VSUtil_ReadARPCheck(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    int32_t milliseconds = 0;
    const Ostrel_Status status = OstrelJsonReadNumber(field, 0, 60000, &milliseconds);
    if (status == kNoErr) cfg->client.arpCheck = static_cast<uint32_t>(milliseconds);
    return status;
}

Ostrel_Status Ostrel_VSUtil_ReadLinkLocal(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    std::string word;
    if (field.value.asString(word) != valdo::CONV_OK || word != "fallback")
        return OstrelJsonRefuse(field, "\"fallback\" is wanted");
    cfg->linkLocalFallback = true;
    cfg->mode |= kOstrelModeLinkLocal;
    return kNoErr;
}
