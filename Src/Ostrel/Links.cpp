// Interfaces whose rules have their link watched: what the device tells of it goes to their roles.
//
// News only say that something has changed; what the link is now is asked for. A link that is lost is told at once, so
// that no role sends into the void. One that is back is told when it has run for a while: a plug bounces, and each
// return makes a client ask for its lease. A link that flaps has to run longer each time.
//
// A new Ethernet address is to the network a new host: the roles are told that the link was lost and is back. So they
// are when an interface was taken out of the device and another of its name was put in, whose sockets are then opened
// anew. What the device refuses for the moment, a look at the link or one of these sockets, or to watch at all, is
// asked for again until it is had: news of it may never come. An interface that gets another name keeps its roles, and
// goes by the new name on the bus as well: that is how whoever sets addresses has to call it.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/DHCPShared.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"
#include "Ostrel/System.h"
#include "Ostrel/Timeout.h"

#include "os_device.h"
#include "os_time.h"

namespace {

constexpr uint32_t kShortestSettling = 250;  // milliseconds: the bounces of a plug, and little of a second
constexpr uint32_t kLongestSettling = 8000;  // of a link that flaps
constexpr uint64_t kSteady = 10'000;         // one that ran so long does not flap
constexpr uint32_t kFirstLookAgain = 1000;   // milliseconds, doubled each time that it was of no use
constexpr uint32_t kLastLookAgain = 64'000;

void Ostrel_LinkTimeout_Settled(void* iface, void*);
void Ostrel_LinkTimeout_LookAgain(void* iface, void*);
void Ostrel_LinkTimeout_WatchAgain(void* iface, void*);

constexpr Ostrel_TimeoutKind kSettlingTimeout{Ostrel_LinkTimeout_Settled, "[Link] SETTLED ", false, kShortestSettling,
                                              kLongestSettling};
constexpr Ostrel_TimeoutKind kLookAgainTimeout{Ostrel_LinkTimeout_LookAgain, "[Link] LOOK AGAIN ", false,
                                               kFirstLookAgain, kLastLookAgain};
constexpr Ostrel_TimeoutKind kWatchAgainTimeout{Ostrel_LinkTimeout_WatchAgain, "[Link] WATCH AGAIN ", false,
                                                kFirstLookAgain, kLastLookAgain};

void TellRoles(Ostrel_InterfaceObj* iface, bool isRunning) {
    Ostrel_InterfacePictureTurns(iface);
    iface->link.isRunning = isRunning;
    DebugPrintF(kDebugLevelNotice, "[%s] The link is %s.\n", iface->ifname.data(), isRunning ? "there" : "lost");
    if (iface->dhcpClient != nullptr) Ostrel_DHCPClientLinkChanged(iface->dhcpClient, isRunning);
    if (iface->linkLocal != nullptr) Ostrel_LinkLocalLinkChanged(iface->linkLocal, isRunning);
    Ostrel_InterfacePictureChanged(iface);
}

void NoteLost(Ostrel_InterfaceObj* iface) {
    Ostrel_InterfaceLink& link = iface->link;
    if (link.isSettling) Ostrel_DisarmTimeout(iface, iface, kSettlingTimeout);
    link.isSettling = false;
    if (!link.isRunning) return;
    const bool wasSteady = os_monotonic_milliseconds() - link.runningSince >= kSteady;
    link.settlingTime = wasSteady ? kShortestSettling : std::min(2 * link.settlingTime, kLongestSettling);
    TellRoles(iface, false);
}

void NoteRunning(Ostrel_InterfaceObj* iface) {
    Ostrel_InterfaceLink& link = iface->link;
    if (link.isRunning || link.isSettling) return;
    link.isSettling = true;
    Ostrel_RearmTimeout(iface, iface, kSettlingTimeout, link.settlingTime);
}

void Ostrel_LinkTimeout_Settled(void* context, void*) {
    auto* iface = static_cast<Ostrel_InterfaceObj*>(context);
    iface->link.isSettling = false;
    iface->link.runningSince = os_monotonic_milliseconds();
    TellRoles(iface, true);
}

// Before the roles are told that the link is lost, so that they know why.
void NoteThere(Ostrel_InterfaceObj* iface, bool isThere) {
    if (iface->link.isThere == isThere) return;
    Ostrel_InterfacePictureTurns(iface);
    iface->link.isThere = isThere;
}

// All sockets of the interface, on the one that has its name now.
Ostrel_Status ReopenSockets(Ostrel_InterfaceObj* iface) {
    OSTREL_REQUIRE_NOERR(Ostrel_PacketFilterReopen(iface, &iface->arpFilter));
    if (iface->dhcpClient != nullptr)
        OSTREL_REQUIRE_NOERR(Ostrel_PacketFilterReopen(iface, &iface->dhcpClient->packetFilter));
    if (iface->dhcpServer != nullptr)
        OSTREL_REQUIRE_NOERR(Ostrel_PacketFilterReopen(iface, &iface->dhcpServer->packetFilter));
    return kNoErr;
}

void LookAgainLater(Ostrel_InterfaceObj* iface) {
    uint32_t& wait = iface->link.lookAgainTime;
    wait = std::clamp(2 * wait, kFirstLookAgain, kLastLookAgain);
    Ostrel_RearmTimeout(iface, iface, kLookAgainTimeout, wait);
}

// An interface of this name was put into the device, or is seen for the first time. Sockets that cannot be had yet are
// opened later.
bool TakeIn(Ostrel_InterfaceObj* iface, int32_t index) {
    NoteThere(iface, false);
    NoteLost(iface);
    const Ostrel_Status status = ReopenSockets(iface);
    Ostrel_InterfacePictureChanged(iface);  // its address may be another one, whatever became of the rest
    if (status != kNoErr) return false;
    if (iface->link.index != 0)
        DebugPrintF(kDebugLevelNotice, "[%s] The interface was put back, as number %d.\n", iface->ifname.data(), index);
    iface->link.index = index;
    return true;
}

void NoteAddress(Ostrel_InterfaceObj* iface, const Ostrel_MAC& address) {
    if (address == iface->macAddr) return;
    DebugPrintF(kDebugLevelNotice, "[%s] The Ethernet address was <%.6a>, and is <%.6a>.\n", iface->ifname.data(),
                iface->macAddr, address);
    NoteLost(iface);
    iface->macAddr = address;
    Ostrel_InterfacePictureChanged(iface);
}

// Whether another one may take its name: it goes by a new one itself, of which there is no news yet.
bool HasLeftItsName(const Ostrel_InterfaceObj* iface) {
    if (!iface->link.isWatched) return false;
    const os_link now = os_link_at(iface->link.index);
    return now.isThere || now.isUnknown;
}

// False when the interface cannot go by that name: another one that is managed does.
bool Rename(Ostrel_InterfaceObj* iface, const char* ifname) {
    Ostrel_InterfaceObj* namesake = nullptr;
    const bool isTaken = Ostrel_InterfaceFindByName(ifname, &iface->sysObj->interfaceList, &namesake) == kNoErr;
    if (isTaken && !HasLeftItsName(namesake)) {
        DebugPrintF(kDebugLevelWarning, "[%s] The interface is called %s now, as another one was before it.\n",
                    iface->ifname.data(), ifname);
        return false;
    }
    DebugPrintF(kDebugLevelNotice, "[%s] The interface is called %s now.\n", iface->ifname.data(), ifname);
    Ostrel_InterfacePictureTurns(iface);
    const std::array<char, kInterfaceNameSize> oldName = iface->ifname;
    iface->ifname = {};
    std::copy_n(ifname, std::min(std::strlen(ifname), kInterfaceNameSize - 1), iface->ifname.begin());
    Ostrel_VoroServicePublishInterfaceState(iface->sysObj, oldName.data());
    Ostrel_InterfacePictureChanged(iface);
    return true;
}

// The interface that has its name, unless that is managed under another one.
os_link Namesake(const Ostrel_InterfaceObj* iface) {
    const os_link link = os_link_of(iface->ifname.data());
    if (!link.isThere) return link;
    for (const auto* other = iface->sysObj->interfaceList; other != nullptr; other = other->next)
        if (other != iface && other->link.isWatched && other->link.index == link.index) return {};
    return link;
}

// The interface by its number, whatever it is called now; where that is gone, another one that has its name.
os_link FindLink(Ostrel_InterfaceObj* iface, bool* wasRenamed) {
    const os_link link = os_link_at(iface->link.index);
    if (link.isUnknown) return link;
    if (!link.isThere) return Namesake(iface);
    if (std::strcmp(link.name.data(), iface->ifname.data()) == 0) return link;
    *wasRenamed = Rename(iface, link.name.data());
    return *wasRenamed ? link : os_link{};
}

// False when that could not be done yet.
bool FollowLink(Ostrel_InterfaceObj* iface) {
    bool wasRenamed = false;
    const os_link now = FindLink(iface, &wasRenamed);
    if (now.isUnknown) return false;
    if (wasRenamed && iface->dhcpClient != nullptr)
        (void)Ostrel_VoroServicePublishClientLeaseInformation(iface->sysObj, iface->dhcpClient);
    if (now.isThere && now.index != iface->link.index && !TakeIn(iface, now.index)) return false;
    NoteThere(iface, now.isThere);
    if (now.isThere) NoteAddress(iface, now.address);
    if (now.isRunning)
        NoteRunning(iface);
    else
        NoteLost(iface);
    return true;
}

void LookAt(Ostrel_InterfaceObj* iface) {
    const bool wasThere = iface->link.isThere;
    if (FollowLink(iface))
        iface->link.lookAgainTime = 0;
    else
        LookAgainLater(iface);
    if (iface->link.isThere != wasThere) Ostrel_InterfacePictureChanged(iface);
}

// Index 0: it may be any link. One that is gone keeps its number until another has its name.
void LinkChanged(void* context, int32_t index, const char* ifname) {
    const auto* sysObj = static_cast<const Ostrel_SystemObj*>(context);
    for (Ostrel_InterfaceObj* iface = sysObj->interfaceList; iface != nullptr; iface = iface->next) {
        if (!iface->link.isWatched) continue;
        const bool concernsIt =
            index == 0 || index == iface->link.index || std::string_view(ifname) == iface->ifname.data();
        if (concernsIt) LookAt(iface);
    }
}

void WokeUp(void* context) {
    const auto* sysObj = static_cast<const Ostrel_SystemObj*>(context);
    for (const Ostrel_InterfaceObj* iface = sysObj->interfaceList; iface != nullptr; iface = iface->next) {
        if (!iface->link.isWatched) continue;
        DebugPrintF(kDebugLevelNotice, "[%s] The device was suspended, and is awake again.\n", iface->ifname.data());
        if (iface->dhcpClient != nullptr) Ostrel_DHCPClientWokeUp(iface->dhcpClient);
        if (iface->linkLocal != nullptr) Ostrel_LinkLocalWokeUp(iface->linkLocal);
    }
}

void Ostrel_LinkTimeout_LookAgain(void* iface, void*) {
    LookAt(static_cast<Ostrel_InterfaceObj*>(iface));
}

// What cannot be watched is in the log, and the roles go on as without it.
void WatchDevice(Ostrel_InterfaceObj* iface) {
    Ostrel_SystemObj* const sysObj = iface->sysObj;
    sysObj->deviceIsWatched = os_watch_device({LinkChanged, WokeUp, sysObj}) == 0;
    const uint32_t wait = kFirstLookAgain << sysObj->failedWatches;
    if (sysObj->deviceIsWatched || wait > kLastLookAgain) return;
    ++sysObj->failedWatches;
    Ostrel_RearmTimeout(iface, iface, kWatchAgainTimeout, wait);
}

void Ostrel_LinkTimeout_WatchAgain(void* context, void*) {
    auto* iface = static_cast<Ostrel_InterfaceObj*>(context);
    WatchDevice(iface);
    LinkChanged(iface->sysObj, 0, "");
}

}  // namespace

void Ostrel_InterfaceWatchLink(Ostrel_InterfaceObj* iface) {
    if (!iface->rules->interface.linkIsWatched) return;
    const os_link now = os_link_of(iface->ifname.data());
    iface->link = {.isWatched = true,
                   .isThere = now.isThere || now.isUnknown,
                   .isRunning = true,
                   .isSettling = false,
                   .index = now.index,
                   .settlingTime = kShortestSettling,
                   .lookAgainTime = 0,
                   .runningSince = 0};
    ++iface->sysObj->numWatchedLinks;
    if (!iface->sysObj->deviceIsWatched) WatchDevice(iface);
    if (now.isUnknown) return LookAgainLater(iface);
    // Nobody would tell them that it is back where nothing is watched.
    if (!now.isRunning && iface->sysObj->deviceIsWatched) TellRoles(iface, false);
}

void Ostrel_InterfaceUnwatchLink(Ostrel_InterfaceObj* iface) {
    if (!iface->link.isWatched) return;
    iface->link.isWatched = false;
    for (const Ostrel_TimeoutKind& kind : {kSettlingTimeout, kLookAgainTimeout, kWatchAgainTimeout})
        Ostrel_DisarmTimeout(iface, iface, kind);
    if (--iface->sysObj->numWatchedLinks != 0) return;
    os_unwatch_device();
    iface->sysObj->deviceIsWatched = false;
    iface->sysObj->failedWatches = 0;
}
