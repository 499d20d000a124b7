// "/" "interfaceConfigDump": how each managed interface is configured, close to the words of the request that did it.
//
// The values come from the live roles, not from a stored request, so two differ from it in name or meaning: a server's
// "ipv4Subnet" is its network address rather than the mask, and its lease time is called "leaseExpiry". An interface
// that runs both DHCP roles shows its client; one that runs neither is not listed.

#include <utility>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/System.h"

#include "ConfigWords.h"
#include "LeaseFields.h"
#include "Method.h"
#include "ValueKeys.h"

using valdo::JValue;

namespace {

void PutStaticAddresses(const Ostrel_ClientObj* client, JValue& object) {
    const bool isStatic = (client->configMode & kOstrelConfigStatic) != 0;
    const bool isManual = (client->configMode & kOstrelConfigDHCPManualAddress) != 0;
    if (isStatic || isManual) OstrelJsonUtilsIPv4Put(object, "ipv4Address", client->lease.IPv4Address);
    if (!isStatic) return;
    OstrelJsonUtilsIPv4Put(object, "ipv4Subnet", client->lease.IPv4SubnetMask);
    Ostrel_VSUtil_PutNetwork(object, client->lease);
}

// An identifier that is the interface's own Ethernet address is not text, and is shown as an address.
void PutIdentifier(const Ostrel_ClientObj* client, JValue& object) {
    if (client->clientIdentifierLen == 0) return;
    const std::span<const uint8_t> identifier{client->clientIdentifier.get(), client->clientIdentifierLen};
    const auto address = Ostrel_VSUtil_IdentifierAddress(identifier);
    if (address)
        OstrelJsonUtilsMACPut(object, "clientIdentifier", *address);
    else
        object.put("clientIdentifier", Ostrel_VSUtil_IdentifierText(identifier));
}

void DumpServer(const Ostrel_ServerObj* server, JValue& object) {
    object.put("interface", server->iface->ifname.data());
    object.put("mode", "server");
    OstrelJsonUtilsIPv4Put(object, "ipv4Address", server->IPv4Address);
    OstrelJsonUtilsIPv4Put(object, "ipv4Subnet", server->IPv4Subnet);
    OstrelJsonUtilsIPv4Put(object, "ipv4Router", server->IPv4Router);
    OstrelJsonUtilsIPv4ArrayPut(object, "dnsServers", server->IPv4DNSServers);
    object.put("leaseExpiry", server->leaseTime);
    if (server->domainNameLength != 0) object.put("domainName", server->domainName.get());
    OstrelJsonUtilsIPv4Put(object, "ipv4RangeStart", server->IPv4RangeStart);
    object.put("maxLeases", server->maxLeases);
}

void DumpInterface(Ostrel_SystemObj* sysObj, Ostrel_InterfaceObj* iface, JValue& list) {
    JValue object = valdo::Object();
    if ((iface->mode & kOstrelModeDHCPClient) != 0) {
        if (OstrelVsConfigDumpClient(sysObj, iface->dhcpClient, object) != kNoErr) return;
    } else if ((iface->mode & kOstrelModeDHCPServer) != 0) {
        DumpServer(iface->dhcpServer, object);
    } else {
        return;
    }
    Ostrel_VSUtil_PutValueKeys(iface->valueKeys.get(), object);
    list.append(std::move(object));
}

bool WriteList(Ostrel_SystemObj* sysObj, Ostrel_InterfaceObj* selected, std::string* list) {
    JValue array = valdo::Array();
    for (auto* iface = sysObj->interfaceList; iface != nullptr; iface = iface->next)
        if (selected == nullptr || iface == selected) DumpInterface(sysObj, iface, array);
    return Ostrel_VSUtil_ToText(array, list);
}

}  // namespace

Ostrel_Status OstrelVsConfigDumpClient(Ostrel_SystemObj* /*sysObj*/, Ostrel_ClientObj* client, JValue& object) {
    OSTREL_REQUIRE(client != nullptr, "client", kBadParamErr);
    object.put("interface", client->iface->ifname.data());
    object.put("mode", "client");
    object.put("ipv4LinkLocal", (client->iface->mode & kOstrelModeLinkLocal) != 0);
    const char* configMode = nullptr;
    if (OstrelJsonUtilsLookupTableStringByVal32(gTblConfigMode, client->configMode, &configMode) == kNoErr)
        object.put("ipv4Config", configMode);
    PutStaticAddresses(client, object);
    PutIdentifier(client, object);
    return kNoErr;
}

bool Ostrel_VoroMethod_InterfaceConfigDump(VSHandle* handle, VSMessage* message, void* context) {
    Ostrel_VSUtil_AnswerWithList({__func__, kNoErr, WriteList}, handle, message, context);
    return true;
}
