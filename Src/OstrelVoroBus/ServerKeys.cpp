// The keys of a server that "interfaceInitialize" takes strictly, but for the leases that it is given back
// (KeptLeases.cpp): addresses that are kept for clients, options, the ARP probe.
//
// What can't be right in itself is told here, in words: two clients with one address, one outside the subnet. Whether
// the configuration holds together as a whole is for the server to say.

#include <arpa/inet.h>
#include <cstring>

#include "Ostrel/DHCPShared.h"

#include "ClientIdentity.h"
#include "HostNames.h"
#include "OptionCodes.h"
#include "ValueKeys.h"

namespace {

constexpr size_t kMaxFixed = 1024;
constexpr size_t kMaxOptionData = 1020;  // bytes of one option: four parts
constexpr const char* kFixedKeys[] = {"macAddress", "clientIdentifier", "clientIdentifierHex", "ipv4Address",
                                      "hostName"};
constexpr const char* kOptionKeys[] = {"code", "ipv4", "text", "hex", "forced"};

Ostrel_Status ReadFixedAddress(const OstrelJsonField& field, const Ostrel_InterfaceConfig& cfg, Ostrel_IPv4* address) {
    const Ostrel_Status status = OstrelJsonReadHostIPv4(field, address);
    if (status != kNoErr) return status;
    const Ostrel_IPv4 mask = cfg.IPv4SubnetMask;
    if ((*address & mask) != (cfg.IPv4Address & mask)) return OstrelJsonRefuse(field, "is not in the server's subnet");
    if (*address == cfg.IPv4Address) return OstrelJsonRefuse(field, "is the server's own");
    if ((*address & ~mask) == 0 || (*address | mask) == kBroadcastIPv4)
        return OstrelJsonRefuse(field, "no host can have this address");
    return kNoErr;
}

// Against those that were read before it.
Ostrel_Status CheckFixedOnce(const OstrelJsonField& field, const Ostrel_ServerValues& server,
                             const Ostrel_FixedLease& fixed) {
    for (uint32_t i = 0; i < server.numFixed; ++i) {
        const Ostrel_FixedLease& other = server.fixed[i];
        if (other.IPv4Address == fixed.IPv4Address)
            return OstrelJsonRefuse(OstrelJsonMember(field, "ipv4Address"), "was given already");
        if (Ostrel_VSUtil_IsSameClient(other.client, fixed.client))
            return OstrelJsonRefuse(field, "its client was given already");
    }
    return kNoErr;
}

Ostrel_Status ReadFixedLease(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    Ostrel_FixedLease& fixed = cfg->server.fixed[cfg->server.numFixed];
    Ostrel_Status status = OstrelJsonReadObject(field, kFixedKeys);
    if (status == kNoErr) status = Ostrel_VSUtil_ReadOneClient(field, &fixed.client);
    if (status == kNoErr) status = ReadFixedAddress(OstrelJsonMember(field, "ipv4Address"), *cfg, &fixed.IPv4Address);
    if (status == kNoErr) status = CheckFixedOnce(field, cfg->server, fixed);
    if (status != kNoErr || !OstrelJsonHas(field, "hostName")) return status;
    std::string name;
    status = Ostrel_VSUtil_ReadHostName(OstrelJsonMember(field, "hostName"), &name);
    if (status != kNoErr) return status;
    fixed.hostName = os_copy_array<char>(name, 1);
    return fixed.hostName == nullptr ? kOutOfMemoryErr : kNoErr;
}

Ostrel_Status ReadAddresses(const OstrelJsonField& field, Ostrel_OptionValue* value) {
    size_t count = 0;
    Ostrel_Status status = OstrelJsonReadArray(field, kMaxOptionData / sizeof(Ostrel_IPv4), &count);
    if (status != kNoErr) return status;
    if (count == 0) return OstrelJsonRefuse(field, "at least one address is wanted");
    value->data = os_zalloc_array<uint8_t>(count * sizeof(Ostrel_IPv4));
    if (value->data == nullptr) return kOutOfMemoryErr;
    for (size_t i = 0; i < count; ++i) {
        Ostrel_IPv4 address = kAnyIPv4;
        status = OstrelJsonReadIPv4(OstrelJsonElement(field, i), &address);
        if (status != kNoErr) return status;
        std::memcpy(value->data.get() + value->length, &address, sizeof address);
        value->length += sizeof address;
    }
    return kNoErr;
}

Ostrel_Status ReadOptionText(const OstrelJsonField& field, Ostrel_OptionValue* value) {
    std::string text;
    const Ostrel_Status status = OstrelJsonReadText(field, {1, kMaxOptionData}, &text);
    if (status != kNoErr) return status;
    value->data = os_copy_array<uint8_t>({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    value->length = static_cast<uint32_t>(text.size());
    return value->data == nullptr ? kOutOfMemoryErr : kNoErr;
}

// An option says what it holds in exactly one of three ways.
Ostrel_Status ReadOptionData(const OstrelJsonField& field, Ostrel_OptionValue* value) {
    const int ways = OstrelJsonHas(field, "ipv4") + OstrelJsonHas(field, "text") + OstrelJsonHas(field, "hex");
    if (ways != 1) return OstrelJsonRefuse(field, "one of \"ipv4\", \"text\" and \"hex\" is wanted");
    if (OstrelJsonHas(field, "ipv4")) return ReadAddresses(OstrelJsonMember(field, "ipv4"), value);
    if (OstrelJsonHas(field, "text")) return ReadOptionText(OstrelJsonMember(field, "text"), value);
    return OstrelJsonReadHex(OstrelJsonMember(field, "hex"), {1, kMaxOptionData}, &value->data, &value->length);
}

Ostrel_Status ReadOption(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    Ostrel_Status status = OstrelJsonReadObject(field, kOptionKeys);
    if (status != kNoErr) return status;
    const OstrelJsonField code = OstrelJsonMember(field, "code");
    Ostrel_OptionValue value{};
    status = Ostrel_VSUtil_ReadCode(code, Ostrel_CodeUse::kServe, &value.code);
    if (status == kNoErr) status = ReadOptionData(field, &value);
    if (status == kNoErr && OstrelJsonHas(field, "forced"))
        status = OstrelJsonReadBoolean(OstrelJsonMember(field, "forced"), &value.forced);
    return status == kNoErr ? Ostrel_VSUtil_AddOption(code, std::move(value), &cfg->server.options) : status;
}

}  // namespace

Ostrel_Status Ostrel_VSUtil_ReadFixed(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    size_t count = 0;
    Ostrel_Status status = OstrelJsonReadArray(field, kMaxFixed, &count);
    if (status != kNoErr) return status;
    cfg->server.fixed = os_new_records<Ostrel_FixedLease>(count);
    if (cfg->server.fixed == nullptr) return kOutOfMemoryErr;
    for (; cfg->server.numFixed < count; ++cfg->server.numFixed) {
        status = ReadFixedLease(OstrelJsonElement(field, cfg->server.numFixed), cfg);
        if (status != kNoErr) return status;
    }
    return kNoErr;
}

Ostrel_Status Ostrel_VSUtil_ReadServerOptions(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    size_t count = 0;
    Ostrel_Status status = OstrelJsonReadArray(field, kMaxOptionValues, &count);
    for (size_t i = 0; status == kNoErr && i < count; ++i) status = ReadOption(OstrelJsonElement(field, i), cfg);
    return status;
}

Ostrel_Status Ostrel_VSUtil_ReadProbe(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    int32_t milliseconds = 0;
    const Ostrel_Status status = OstrelJsonReadNumber(field, 0, 10000, &milliseconds);
    if (status == kNoErr) cfg->server.probe = static_cast<uint32_t>(milliseconds);
    return status;
}
