// What "interfaceState" tells of the selector: the state that it is shown in, since when and why, and whether its
// address may be used.
//
// By the rfc rules that is the state of the machine. By the plain rules the machine stays where it is when it is halted
// or has to give its address up, until its next step; who must not use the address any more is told at once.
#include "LinkLocal/Shown.h"

#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"

#include "os_time.h"

namespace {

bool IsChosen(const Ostrel_LinkLocalObj* linkLocal) {
    return linkLocal->shown != kLinkLocalStateUnknown && linkLocal->shown != kLinkLocalStateInit;
}

void LogState(const Ostrel_LinkLocalObj* linkLocal) {
    const char* const ifname = linkLocal->iface->ifname.data();
    const char* const state = Ostrel_LinkLocalShownState(linkLocal);
    const char* const reason = Ostrel_ReasonWord(linkLocal->reason);
    if (IsChosen(linkLocal))
        DebugPrintF(kDebugLevelInfo, "[%s] linkLocal %s, %s, %.4a\n", ifname, state, reason, &linkLocal->IPv4Address);
    else
        DebugPrintF(kDebugLevelInfo, "[%s] linkLocal %s, %s\n", ifname, state, reason);
}

void LogUse(const Ostrel_LinkLocalObj* linkLocal, bool wasHeld) {
    const bool isHeld = Ostrel_LinkLocalHolds(linkLocal);
    if (isHeld == wasHeld) return;
    const char* const ifname = linkLocal->iface->ifname.data();
    if (isHeld)
        DebugPrintF(kDebugLevelInfo, "[%s] linkLocal holds %.4a\n", ifname, &linkLocal->IPv4Address);
    else
        DebugPrintF(kDebugLevelInfo, "[%s] linkLocal gives up %.4a, %s\n", ifname, &linkLocal->IPv4Address,
                    Ostrel_ReasonWord(linkLocal->reason));
}

}  // namespace

const char* Ostrel_LinkLocalShownState(const Ostrel_LinkLocalObj* linkLocal) {
    if (linkLocal->shown == kLinkLocalStateUnknown) return "IDLE";
    const bool isSettled = linkLocal->shown == kLinkLocalStateAnnounce && linkLocal->numAnnounces >= kAnnouncements;
    return isSettled ? "HELD" : Ostrel_LinkLocalStateString(linkLocal->shown);
}

Ostrel_IPv4 Ostrel_LinkLocalChosenAddress(const Ostrel_LinkLocalObj* linkLocal) {
    return IsChosen(linkLocal) ? linkLocal->IPv4Address : kAnyIPv4;
}

bool Ostrel_LinkLocalHolds(const Ostrel_LinkLocalObj* linkLocal) {
    const bool isUsed = linkLocal->shown == kLinkLocalStateAnnounce || linkLocal->shown == kLinkLocalStateDefend;
    return isUsed && !linkLocal->isInDoubt;
}

void Ostrel_LinkLocalShow(Ostrel_LinkLocalObj* linkLocal, Ostrel_LinkLocalState state, Ostrel_Reason reason) {
    if (linkLocal->shown == state && (reason == Ostrel_Reason::Timeout || state == kLinkLocalStateUnknown)) return;
    Ostrel_InterfacePictureTurns(linkLocal->iface);
    const bool wasHeld = Ostrel_LinkLocalHolds(linkLocal);
    linkLocal->shown = state;
    linkLocal->since = os_monotonic_milliseconds();
    linkLocal->reason = reason;
    LogState(linkLocal);
    LogUse(linkLocal, wasHeld);
    Ostrel_InterfacePictureChanged(linkLocal->iface);
}

void Ostrel_LinkLocalShowAnnounced(Ostrel_LinkLocalObj* linkLocal) {
    if (linkLocal->shown != kLinkLocalStateAnnounce || linkLocal->numAnnounces != kAnnouncements) return;
    linkLocal->since = os_monotonic_milliseconds();
    LogState(linkLocal);
    Ostrel_InterfacePictureChanged(linkLocal->iface);
}

void Ostrel_LinkLocalDoubt(Ostrel_LinkLocalObj* linkLocal) {
    if (!Ostrel_LinkLocalHolds(linkLocal)) return;
    Ostrel_InterfacePictureTurns(linkLocal->iface);
    linkLocal->isInDoubt = true;
    linkLocal->reason = linkLocal->iface->link.isThere ? Ostrel_Reason::Link : Ostrel_Reason::Removed;
    LogUse(linkLocal, true);
    Ostrel_InterfacePictureChanged(linkLocal->iface);
}
