// "/" "interfaceInitialize": a controlling process hands an interface to the daemon.
//
// The request is read key by key into a configuration record, in the order of the keys in the documentation; the first
// required key that is missing or unusable ends the call before anything is touched. An optional key that is unusable
// counts as absent, unless it is one of those that are taken strictly (ValueKeys.cpp). The four addresses are required
// for every role, though a client in "dhcp" mode uses none of them. The record lives as long as the call: what it owns
// is freed here, whatever becomes of the interface.

#include <cstring>

#include "Ostrel/Check.h"
#include "Ostrel/Interface.h"
#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "ConfigWords.h"
#include "Method.h"
#include "ValueKeys.h"
#include "os_memory.h"

namespace {

// The name fits with its terminator. One with a zero byte inside would be cut, and then be the name of another
// interface.
Ostrel_Status ReadName(const Ostrel_Request& request, Ostrel_InterfaceConfig* cfg) {
    std::string name;
    const bool success = GetJsonString(request.root, "interface", &name, false, nullptr);
    const bool usable = success && name.size() < cfg->ifname.size() && name.find('\0') == std::string::npos;
    OSTREL_REQUIRE_IN(request.handler, usable, "(success && (strIfname.size() < sizeof(cfg.ifname)))", kBadParamErr);
    std::memcpy(cfg->ifname.data(), name.data(), name.size());
    return kNoErr;
}

Ostrel_Status ReadRoles(const Ostrel_Request& request, Ostrel_InterfaceConfig* cfg) {
    std::string role;
    const bool success = GetJsonString(request.root, "mode", &role, false, nullptr);
    OSTREL_REQUIRE_IN(request.handler, success, "success", kBadParamErr);
    OSTREL_REQUIRE_NOERR_IN(request.handler, OstrelJsonUtilsLookupTableVal32ByString(gTblOpMode, role, &cfg->mode));

    bool wanted = false;
    bool found = false;
    if (GetJsonBoolean(request.root, "ipv4LinkLocal", &wanted, true, &found) && found && wanted)
        cfg->mode |= kOstrelModeLinkLocal;
    return kNoErr;
}

Ostrel_Status ReadAddressingMode(const Ostrel_Request& request, Ostrel_InterfaceConfig* cfg) {
    std::string addressing;
    bool found = false;
    if (!GetJsonString(request.root, "ipv4Config", &addressing, true, &found) || !found) return kNoErr;
    OSTREL_REQUIRE_NOERR_IN(request.handler,
                            OstrelJsonUtilsLookupTableVal32ByString(gTblConfigMode, addressing, &cfg->configMode));
    Ostrel_LogPrint(kQxLogDebug, "%s IPv4 Addressing Mode 0x%08x.\n", cfg->ifname.data(), cfg->configMode);
    return kNoErr;
}

Ostrel_Status ReadAddress(const Ostrel_Request& request, const char* key, const char* label, Ostrel_IPv4* address) {
    OSTREL_REQUIRE_NOERR_IN(request.handler, OstrelJsonUtilsIPv4Get(request.root, key, address, false));
    Ostrel_LogPrint(kQxLogDebug, "%s %.4a\n", label, address);
    return kNoErr;
}

Ostrel_Status ReadOwnAddresses(const Ostrel_Request& request, Ostrel_InterfaceConfig* cfg) {
    struct Row {
        const char* key;
        const char* label;
        Ostrel_IPv4* address;
    };
    const Row rows[] = {
        {"ipv4Address", "IPv4 Address", &cfg->IPv4Address},
        {"ipv4Subnet", "IPv4 Subnet", &cfg->IPv4SubnetMask},
        {"ipv4Router", "IPv4 Router", &cfg->IPv4Router},
    };
    for (const Row& row : rows) {
        const Ostrel_Status status = ReadAddress(request, row.key, row.label, row.address);
        if (status != kNoErr) return status;
    }
    return kNoErr;
}

void ReadDNSServers(const Ostrel_Request& request, Ostrel_InterfaceConfig* cfg) {
    if (OstrelJsonUtilsIPv4ArrayGet(request.root, "dnsServers", cfg->IPv4DNSServers) != kNoErr) return;
    for (const Ostrel_IPv4& server : cfg->IPv4DNSServers)
        Ostrel_LogPrint(kQxLogDebug, "%s %.4a\n", "DNS Server", &server);
}

// Those that are absent, or unusable, or that there is no memory for, are left out; the last is told.
bool ReadTexts(const Ostrel_Request& request, Ostrel_InterfaceConfig* cfg) {
    const char* ifname = cfg->ifname.data();
    const Ostrel_Status domain = OstrelJsonUtilsStringDup(request.root, "domainName", &cfg->domainName);
    if (domain == kNoErr) Ostrel_LogPrint(kQxLogDebug, "%s Domain Name %s\n", ifname, cfg->domainName);
    const Ostrel_Status client = OstrelJsonUtilsStringDup(request.root, "clientIdentifier", &cfg->clientIdentifier);
    if (client == kNoErr) Ostrel_LogPrint(kQxLogDebug, "%s Client Identifier %s.\n", ifname, cfg->clientIdentifier);
    return domain != kOutOfMemoryErr && client != kOutOfMemoryErr;
}

void ReadLeaseLimits(const Ostrel_Request& request, Ostrel_InterfaceConfig* cfg) {
    const char* ifname = cfg->ifname.data();
    if (GetJsonNumber(request.root, "maxLeases", &cfg->maxLeases, false, nullptr))
        Ostrel_LogPrint(kQxLogDebug, "%s Max Number of Leases %d.\n", ifname, cfg->maxLeases);
    if (GetJsonNumber(request.root, "leaseTime", &cfg->leaseTime, false, nullptr))
        Ostrel_LogPrint(kQxLogDebug, "%s Lease Time %d.\n", ifname, cfg->leaseTime);
}

// Fills a zero-filled record. What it owns is the caller's to free, on failure too. The readers report their failures.
Ostrel_Status ReadConfig(const Ostrel_Request& request, Ostrel_InterfaceConfig* cfg, bool* hasTexts) {
    Ostrel_Status status = ReadName(request, cfg);
    if (status == kNoErr) status = ReadRoles(request, cfg);
    if (status == kNoErr) status = ReadAddressingMode(request, cfg);
    if (status == kNoErr) status = ReadOwnAddresses(request, cfg);
    if (status != kNoErr) return status;

    ReadDNSServers(request, cfg);
    *hasTexts = ReadTexts(request, cfg);
    status = ReadAddress(request, "ipv4RangeStart", "IPv4 Range Begin", &cfg->IPv4RangeStart);
    if (status != kNoErr) return status;
    ReadLeaseLimits(request, cfg);
    return kNoErr;
}

Ostrel_Status InitializeFrom(Ostrel_Request& request, Ostrel_SystemObj* sysObj, Ostrel_InterfaceConfig* cfg) {
    bool hasTexts = false;
    Ostrel_Status status = ReadConfig(request, cfg, &hasTexts);
    if (status == kNoErr) status = Ostrel_VSUtil_ReadValueKeys(request.root, cfg, &request.problem);
    if (status != kNoErr) return status;
    if (cfg->rfc && !hasTexts) return kOutOfMemoryErr;  // by the plain rules it goes on without them
    OSTREL_REQUIRE_NOERR_IN(request.handler, Ostrel_InterfaceInitialize(sysObj, cfg));
    return kNoErr;
}

}  // namespace

bool Ostrel_VoroMethod_InterfaceInitialize(VSHandle* handle, VSMessage* message, void* context) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    Ostrel_InterfaceConfig cfg{};
    Ostrel_Request request{__func__};
    Ostrel_Status status = Ostrel_VSUtil_ReadRequest(message, context, &request);
    if (status == kNoErr) status = InitializeFrom(request, sysObj, &cfg);
    os_free(cfg.domainName);
    os_free(cfg.clientIdentifier);
    Ostrel_VSUtil_SendStatusReply(request, handle, message, status);
    return true;
}
