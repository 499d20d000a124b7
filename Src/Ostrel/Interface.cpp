// Interfaces: the list of them, bringing one up from a configuration, taking it down.
//
// The interface owns its buffers, its ARP socket and its roles. While it is being brought up it is on no list; whatever
// goes wrong, the one tear-down releases the half-built object. The inactivity timeout follows the list: cancelled by
// every interface that joins it, armed again when the last one is taken off.
#include "Ostrel/Interface.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Check.h"
#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"
#include "Ostrel/System.h"

#include "eloop.h"
#include "os_memory.h"

namespace {

struct FinaliseUnlisted {
    void operator()(Ostrel_InterfaceObj* iface) const { Ostrel_InterfaceFinalize(nullptr, iface); }
};
using HalfBuiltInterface = std::unique_ptr<Ostrel_InterfaceObj, FinaliseUnlisted>;

// The sockets and the roles, as far as they start; the caller reports what fails.
Ostrel_Status StartRoles(Ostrel_InterfaceObj* iface, const Ostrel_InterfaceConfig* config) {
    const auto runs = [iface](uint32_t role) { return (iface->mode & role) != 0; };
    Ostrel_Status status = Ostrel_ARPPacketFilterInitialize(iface, &iface->arpFilter);
    if (status == kNoErr && runs(kOstrelModeDHCPClient)) status = Ostrel_DHCPClientInitialize(iface, config);
    if (status == kNoErr && runs(kOstrelModeLinkLocal)) status = Ostrel_LinkLocalInitialize(iface, config);
    if (status == kNoErr && runs(kOstrelModeDHCPServer)) status = Ostrel_DHCPServerInitialize(iface, config);
    return status;
}

Ostrel_Status KeepValueKeys(const Ostrel_InterfaceConfig& config, Ostrel_InterfaceObj* iface) {
    if (config.valueKeys == nullptr) return kNoErr;
    iface->valueKeys = os_copy_array<char>(std::string_view(config.valueKeys.get()), 1);
    return iface->valueKeys == nullptr ? kOutOfMemoryErr : kNoErr;
}

}  // namespace

Ostrel_Status Ostrel_InterfaceFindByName(std::string_view name, Ostrel_InterfaceObj* const* listHead,
                                         Ostrel_InterfaceObj** found) {
    *found = nullptr;
    for (Ostrel_InterfaceObj* iface = *listHead; iface != nullptr; iface = iface->next) {
        DebugPrintF(kDebugLevelChatty, "Find interface <%s>; compare to <%s>\n", name, iface->ifname.data());
        if (name != iface->ifname.data()) continue;
        *found = iface;
        return kNoErr;
    }
    return kNoSuchItemErr;
}

Ostrel_InterfaceObj* Ostrel_InterfaceRemoveFromList(Ostrel_InterfaceObj* list, const char* name) {
    for (Ostrel_InterfaceObj** link = &list;; link = &(*link)->next) {
        Ostrel_InterfaceObj* const iface = *link;
        DebugPrintF(kDebugLevelChatty, "### Remove Interface From List element <%p>; looking for <%s>\n", iface, name);
        if (iface == nullptr) return list;
        if (std::strcmp(iface->ifname.data(), name) != 0) continue;
        *link = iface->next;
        iface->next = nullptr;
        return list;
    }
}

Ostrel_Status Ostrel_InterfaceInitialize(Ostrel_SystemObj* sysObj, const Ostrel_InterfaceConfig* config) {
    DebugPrintF(kDebugLevelNotice, "%s: ifinit for %s\n", __func__, config->ifname.data());
    std::array<char, kInterfaceNameSize> ifname{};
    std::copy_n(config->ifname.begin(), kInterfaceNameSize - 1, ifname.begin());

    Ostrel_InterfaceObj** tail = &sysObj->interfaceList;
    for (; *tail != nullptr; tail = &(*tail)->next) {
        OSTREL_REQUIRE(std::strcmp((*tail)->ifname.data(), ifname.data()) != 0,
                       "( strcmp( ifaceRef->ifname, ifname ) != 0 )", kAlreadyExistsErr);
    }

    HalfBuiltInterface iface(os_new<Ostrel_InterfaceObj>());
    OSTREL_REQUIRE(iface != nullptr, "ifaceRef", kOutOfMemoryErr);
    iface->sysObj = sysObj;
    iface->ifname = ifname;
    iface->txFrame = wpabuf_alloc(kTransmitBufferSize);
    OSTREL_REQUIRE(iface->txFrame != nullptr, "ifaceRef->txFrame", kOutOfMemoryErr);
    iface->txPayload = wpabuf_alloc(kTransmitBufferSize);
    OSTREL_REQUIRE(iface->txPayload != nullptr, "ifaceRef->txPayload", kOutOfMemoryErr);
    iface->mode = config->mode;
    iface->rules = Ostrel_RulesOf(*config);
    iface->link.isThere = true;
    iface->link.isRunning = true;
    OSTREL_REQUIRE_NOERR(KeepValueKeys(*config, iface.get()));

    OSTREL_REQUIRE_NOERR(StartRoles(iface.get(), config));
    DebugPrintF(kDebugLevelNotice, "Adding %p to the interface list, for interface %s <%.6a>\n", iface.get(),
                iface->ifname.data(), iface->macAddr);
    *tail = iface.release();
    Ostrel_InterfaceWatchLink(*tail);
    Ostrel_InterfacePictureChanged(*tail);
    eloop_cancel_timeout(Ostrel_InactivityTimeout, nullptr, nullptr);
    DebugPrintF(kDebugLevelNotice, "%s() Cancel Inactivity Timer\n", __func__);
    return kNoErr;
}

void Ostrel_InterfaceFinalize(Ostrel_InterfaceObj** listHead, Ostrel_InterfaceObj* iface) {
    const char* ifname = iface->ifname.data();
    DebugPrintF(kDebugLevelNotice, "Remove %p from the interface list, for interface %s\n", iface, ifname);
    if (listHead == nullptr) Ostrel_InterfacePictureForget(iface);
    if (listHead != nullptr) {
        Ostrel_InterfacePictureTurns(iface);
        DebugPrintF(kDebugLevelChatty, "### Must Remove Interface From List <%s>; current head <%p>\n", ifname,
                    *listHead);
        *listHead = Ostrel_InterfaceRemoveFromList(*listHead, ifname);
        DebugPrintF(kDebugLevelChatty, "### After Remove Interface From List <%s>; new head <%p>\n", ifname, *listHead);
    }

    Ostrel_InterfaceUnwatchLink(iface);
    wpabuf_free(iface->txFrame);
    wpabuf_free(iface->txPayload);
    Ostrel_DHCPServerFinalize(iface->dhcpServer);
    Ostrel_LinkLocalFinalize(iface->linkLocal);
    Ostrel_DHCPClientFinalize(iface->dhcpClient);
    Ostrel_PacketFilterFinalize(&iface->arpFilter);
    if (listHead != nullptr) Ostrel_VoroServicePublishInterfaceState(iface->sysObj, ifname);
    os_delete(iface);

    if (listHead != nullptr && *listHead == nullptr) Ostrel_SetInactivityTimeout(__func__);
}

void Ostrel_InterfaceLeaseChanged(Ostrel_InterfaceObj* iface, bool isHeld) {
    if (iface->leaseIsHeld == isHeld) return;
    iface->leaseIsHeld = isHeld;
    Ostrel_InterfacePictureChanged(iface);
    if (iface->linkLocal != nullptr) Ostrel_LinkLocalLeaseChanged(iface->linkLocal, isHeld);
}
