// What the DHCP client of an interface holds, as JSON: asked for with "/client" "leaseInformation", or posted by the
// client when a lease has been confirmed or renewed.
//
// Both roads show the same object. An interface without a lease shows its link-local address, or 0.0.0.0, and nothing
// that belongs to a lease; a configured address counts as a lease. A client that was told what to ask for shows what
// came of it as well. Nothing is kept between calls.

#include <array>
#include <bit>
#include <utility>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPClient.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/OstrelJsonUtilsOptions.h"
#include "Ostrel/Publish.h"
#include "Ostrel/System.h"

#include "LeaseFields.h"
#include "Method.h"

using valdo::JValue;

namespace {

// 255.255.0.0 (RFC 3927 section 2.8)
constexpr auto kLinkLocalMask = std::bit_cast<Ostrel_IPv4>(std::array<uint8_t, 4>{255, 255, 0, 0});

void PutAddressWithoutLease(const Ostrel_InterfaceObj* iface, JValue& object) {
    const bool selects = (iface->mode & kOstrelModeLinkLocal) != 0 && iface->linkLocal != nullptr;
    const Ostrel_IPv4 address = selects ? Ostrel_LinkLocalShownAddress(iface->linkLocal) : kAnyIPv4;
    OstrelJsonUtilsIPv4Put(object, "ipv4Address", address);
    if (address != kAnyIPv4) OstrelJsonUtilsIPv4Put(object, "ipv4Subnet", kLinkLocalMask);
}

void PutLease(Ostrel_SystemObj* sysObj, const Ostrel_ClientObj& client, JValue& object) {
    const Ostrel_ClientLease& lease = client.lease;
    OstrelJsonUtilsIPv4Put(object, "ipv4Address", lease.IPv4Address);
    OstrelJsonUtilsIPv4Put(object, "ipv4Subnet", lease.IPv4SubnetMask);
    Ostrel_VSUtil_PutNetwork(object, lease);
    Ostrel_VSUtil_PutLeaseTimes(sysObj, lease.leaseAcquired, lease.leaseTime, object);
    if (client.numWantedOptions != 0) OstrelJsonUtilsOptionsPut(object, lease.options);
}

bool WriteClients(Ostrel_SystemObj* sysObj, Ostrel_ClientObj* client, std::string* list) {
    JValue array = valdo::Array();
    Ostrel_VoroServiceCreateClientLeaseInformationArray(sysObj, client, array);
    return Ostrel_VSUtil_ToText(array, list);
}

bool WriteList(Ostrel_SystemObj* sysObj, Ostrel_InterfaceObj* selected, std::string* list) {
    return WriteClients(sysObj, selected == nullptr ? nullptr : selected->dhcpClient, list);
}

// The post of an interface's leases, as they are when it is sent.
bool WriteState(void* context, const char* ifname, std::string* text) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    const Ostrel_InterfaceObj* iface = Ostrel_VSUtil_FindInterface(sysObj, ifname);
    if (iface == nullptr || iface->dhcpClient == nullptr) return true;  // gone meanwhile
    std::string list;
    return WriteClients(sysObj, iface->dhcpClient, &list) && Ostrel_VSUtil_WritePost("interfaceList", list, text);
}

}  // namespace

Ostrel_Status Ostrel_VoroServiceCreateClientLeaseInformationObject(Ostrel_SystemObj* sysObj, Ostrel_ClientObj* client,
                                                                   JValue& object) {
    OSTREL_REQUIRE(client != nullptr, "client", kBadParamErr);
    object.put("interface", client->iface->ifname.data());
    if (client->lease.IPv4Address == kAnyIPv4)
        PutAddressWithoutLease(client->iface, object);
    else
        PutLease(sysObj, *client, object);
    return kNoErr;
}

Ostrel_Status Ostrel_VoroServiceCreateClientLeaseInformationArray(Ostrel_SystemObj* sysObj, Ostrel_ClientObj* client,
                                                                  JValue& array) {
    for (auto* iface = sysObj->interfaceList; iface != nullptr; iface = iface->next) {
        if (iface->dhcpClient == nullptr || (client != nullptr && iface->dhcpClient != client)) continue;
        JValue object = valdo::Object();
        if (Ostrel_VoroServiceCreateClientLeaseInformationObject(sysObj, iface->dhcpClient, object) == kNoErr)
            array.append(std::move(object));
    }
    return kNoErr;
}

bool Ostrel_VoroMethod_ClientLeaseInformation(VSHandle* handle, VSMessage* message, void* context) {
    Ostrel_VSUtil_AnswerWithList({__func__, kGenericErr, WriteList}, handle, message, context);
    return true;
}

Ostrel_Status Ostrel_VoroServicePublishClientLeaseInformation(Ostrel_SystemObj* sysObj, Ostrel_ClientObj* client) {
    return Ostrel_VSUtil_Post(__func__, sysObj, {"/client", kLeaseMethod}, client->iface->ifname.data(), WriteState);
}
