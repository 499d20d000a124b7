// Which options a caller may name, and the options that it gave.
//
// What the protocol itself says with options is the roles' business: a caller that could send a message type or an
// address of its own would be another client. The codes are few, so they stand here in one table, with who may not
// name them.

#include "OptionCodes.h"

#include <utility>

#include "Ostrel/DHCPShared.h"

namespace {

constexpr uint8_t kOptionRapidCommit = 80;   // RFC 4039
constexpr uint8_t kOptionRelayAgent = 82;    // RFC 3046
constexpr uint8_t kOptionErrorMessage = 56;  // RFC 2132 section 9.9
constexpr uint8_t kAsk = 1 << static_cast<int>(Ostrel_CodeUse::kAsk);
constexpr uint8_t kSend = 1 << static_cast<int>(Ostrel_CodeUse::kSend);
constexpr uint8_t kServe = 1 << static_cast<int>(Ostrel_CodeUse::kServe);

struct Own {
    uint8_t code;
    uint8_t uses;  // for which a caller may not name it
    const char* why;
};

// T1 and T2 may be asked for: some servers send them only then.
constexpr char kProtocol[] = "this code is the protocol's own";
constexpr char kServer[] = "the server takes this option from its other keys";
constexpr Own kOwn[] = {
    {kOptionSubnetMask, kServe, kServer},
    {kOptionRouter, kServe, kServer},
    {kOptionDomainNameServer, kServe, kServer},
    {kOptionDomainName, kServe, kServer},
    {kOptionRequestedAddress, kAsk | kSend | kServe, kProtocol},
    {kOptionLeaseTime, kAsk | kSend | kServe, kProtocol},
    {kOptionOverload, kAsk | kSend | kServe, kProtocol},
    {kOptionMessageType, kAsk | kSend | kServe, kProtocol},
    {kOptionServerIdentifier, kAsk | kSend | kServe, kProtocol},
    {kOptionParameterRequestList, kAsk | kSend | kServe, kProtocol},
    {kOptionErrorMessage, kAsk | kSend | kServe, kProtocol},
    {kOptionMaximumMessageSize, kAsk | kSend | kServe, kProtocol},
    {kOptionRenewalTime, kSend | kServe, kProtocol},
    {kOptionRebindingTime, kSend | kServe, kProtocol},
    {kOptionClientIdentifier, kAsk | kSend | kServe, kProtocol},
    {kOptionRapidCommit, kAsk | kSend | kServe, kProtocol},
    {kOptionRelayAgent, kAsk | kSend | kServe, kProtocol},
};

}  // namespace

Ostrel_Status Ostrel_VSUtil_CheckCode(const OstrelJsonField& field, Ostrel_CodeUse use, uint8_t code) {
    for (const Own& own : kOwn)
        if (own.code == code && (own.uses >> static_cast<int>(use) & 1) != 0) return OstrelJsonRefuse(field, own.why);
    return kNoErr;
}

Ostrel_Status Ostrel_VSUtil_ReadCode(const OstrelJsonField& field, Ostrel_CodeUse use, uint8_t* code) {
    int32_t number = 0;
    Ostrel_Status status = OstrelJsonReadNumber(field, 1, kOptionEnd - 1, &number);
    if (status == kNoErr) status = Ostrel_VSUtil_CheckCode(field, use, static_cast<uint8_t>(number));
    if (status == kNoErr) *code = static_cast<uint8_t>(number);
    return status;
}

size_t Ostrel_VSUtil_SizeOf(const Ostrel_OptionList& list) {
    size_t size = 0;
    for (uint32_t i = 0; i < list.count; ++i) {
        const size_t parts = (list.values[i].length + kOptionMaxData - 1) / kOptionMaxData;
        size += parts * kOptionHeader + list.values[i].length;
    }
    return size;
}

Ostrel_Status Ostrel_VSUtil_AddOption(const OstrelJsonField& field, Ostrel_OptionValue&& value,
                                      Ostrel_OptionList* list) {
    if (Ostrel_FindOptionValue(*list, value.code) != nullptr)
        return OstrelJsonRefuse(field, "this option was given already");
    if (list->count == kMaxOptionValues) return OstrelJsonRefuse(field, "these are more than 64 options");
    if (list->values == nullptr) list->values = os_new_records<Ostrel_OptionValue>(kMaxOptionValues);
    if (list->values == nullptr) return kOutOfMemoryErr;
    list->values[list->count++] = std::move(value);
    return kNoErr;
}

Ostrel_Status Ostrel_VSUtil_AddOption(const OstrelJsonField& field, uint8_t code, std::span<const uint8_t> data,
                                      Ostrel_OptionList* list) {
    Ostrel_OptionValue value{};
    value.code = code;
    value.data = os_copy_array<uint8_t>(data);
    value.length = static_cast<uint32_t>(data.size());
    if (value.data == nullptr) return kOutOfMemoryErr;
    return Ostrel_VSUtil_AddOption(field, std::move(value), list);
}
