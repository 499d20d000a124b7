// The lease table of a DHCP server, as JSON: asked for with "/server" "leaseInformation", or posted by the server after
// each REQUEST that it has answered.
//
// Every slot that is not free is listed, one that was merely offered included. A reply holds its entries under
// "interfaceList", a post under "leases". A client that identifies itself by an Ethernet address is listed under that
// address, which need not be the one its frames came from. Where identifiers count, they are shown byte for byte as
// well, so that a table that is given back after a restart knows its clients. What is sent is put together in
// LeaseTexts.cpp.

#include <utility>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/OstrelJsonUtilsOptions.h"
#include "Ostrel/Publish.h"
#include "Ostrel/System.h"

#include "LeaseFields.h"
#include "LeaseTexts.h"
#include "Method.h"

using valdo::JValue;

namespace {

void PutIdentity(const Ostrel_ServerObj& server, const Ostrel_LeaseInformation& lease, JValue& object) {
    if (lease.hostName != nullptr)
        object.put("hostName", OstrelJsonUtilsTextOf({lease.hostName.get(), lease.hostNameLength}));
    if (lease.clientIdentifier == nullptr) return;

    const std::span<const uint8_t> identifier{lease.clientIdentifier.get(), lease.clientIdentifierLength};
    if (identifier.empty() || identifier[0] != kIdentifierTypeEthernet)
        object.put("clientIdentifier", Ostrel_VSUtil_IdentifierText(identifier));
    else if (const auto address = Ostrel_VSUtil_IdentifierAddress(identifier))
        OstrelJsonUtilsMACPut(object, "mac", *address);
    if (server.rules->knowsByIdentifier && identifier.size() > 1)
        OstrelJsonUtilsHexPut(object, "clientIdentifierHex", identifier);
}

JValue LeasesOf(Ostrel_SystemObj* sysObj, Ostrel_ServerObj* server) {
    JValue leases = valdo::Array();
    for (auto* slot = Ostrel_DHCPServer_LeaseNextUsed(server, nullptr); slot != nullptr;
         slot = Ostrel_DHCPServer_LeaseNextUsed(server, slot)) {
        JValue lease = valdo::Object();
        if (Ostrel_VoroServiceCreateServerLeaseInformationObject(sysObj, server, slot, lease) == kNoErr)
            leases.append(std::move(lease));
    }
    return leases;
}

bool WriteList(Ostrel_SystemObj* sysObj, Ostrel_InterfaceObj* selected, std::string* list) {
    return Ostrel_LeaseTextsWrite(sysObj, selected == nullptr ? nullptr : selected->dhcpServer, list);
}

// The post of an interface's leases, as they are when it is sent.
bool WriteState(void* context, const char* ifname, std::string* text) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    const Ostrel_InterfaceObj* iface = Ostrel_VSUtil_FindInterface(sysObj, ifname);
    if (iface == nullptr || iface->dhcpServer == nullptr) return true;  // gone meanwhile
    std::string list;
    return Ostrel_LeaseTextsWrite(sysObj, iface->dhcpServer, &list) && Ostrel_VSUtil_WritePost("leases", list, text);
}

}  // namespace

Ostrel_Status Ostrel_VoroServiceCreateServerLeaseInformationObject(Ostrel_SystemObj* sysObj, Ostrel_ServerObj* server,
                                                                   Ostrel_LeaseInformation* lease, JValue& object) {
    OSTREL_REQUIRE(server != nullptr, "server", kBadParamErr);
    OstrelJsonUtilsIPv4Put(object, "ipv4Address", lease->IPv4Address);
    OstrelJsonUtilsMACPut(object, "mac", lease->srcMAC);
    Ostrel_VSUtil_LogServerTime(server->leaseTime);
    Ostrel_VSUtil_PutLeaseTimes(sysObj, lease->offerTime, server->leaseTime, object);
    PutIdentity(*server, *lease, object);
    return kNoErr;
}

Ostrel_Status Ostrel_VoroServiceCreateServerLeaseInformationArray(Ostrel_SystemObj* sysObj, Ostrel_ServerObj* server,
                                                                  JValue& array) {
    for (auto* iface = sysObj->interfaceList; iface != nullptr; iface = iface->next) {
        if (iface->dhcpServer == nullptr || (server != nullptr && iface->dhcpServer != server)) continue;
        JValue entry = valdo::Object();
        entry.put("interface", iface->ifname.data());
        entry.put("leases", LeasesOf(sysObj, iface->dhcpServer));
        array.append(std::move(entry));
    }
    return kNoErr;
}

bool Ostrel_VoroMethod_ServerLeaseInformation(VSHandle* handle, VSMessage* message, void* context) {
    Ostrel_VSUtil_AnswerWithList({__func__, kGenericErr, WriteList}, handle, message, context);
    return true;
}

Ostrel_Status Ostrel_VoroServicePublishServerLeaseInformation(Ostrel_SystemObj* sysObj, Ostrel_ServerObj* server) {
    return Ostrel_VSUtil_Post(__func__, sysObj, {"/server", kLeaseMethod}, server->iface->ifname.data(), WriteState);
}
