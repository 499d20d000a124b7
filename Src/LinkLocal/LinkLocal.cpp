// The link-local selector from outside: its life, the lease actions, and the conflicts that other hosts cause.
//
// A selector is created idle. An action or a conflict drops every timeout and arms the init timeout; from there on
// StateMachine.cpp runs the selection by itself. A host that uses the address is met by giving the address up, whether
// it is still probed, held, or left over from before a "halt": the address is never defended.
#include "Ostrel/LinkLocal.h"

#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "os_memory.h"

Ostrel_Status Ostrel_LinkLocalInitialize(Ostrel_InterfaceObj* iface) {
    auto* linkLocal = os_new<Ostrel_LinkLocalObj>();
    OSTREL_REQUIRE(linkLocal != nullptr, "linkLocal", kOutOfMemoryErr);
    linkLocal->iface = iface;
    iface->linkLocal = linkLocal;
    return kNoErr;
}

void Ostrel_LinkLocalFinalize(Ostrel_LinkLocalObj* linkLocal) {
    if (linkLocal == nullptr) return;
    Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
    os_delete(linkLocal);
}

Ostrel_Status Ostrel_LinkLocalAction(Ostrel_InterfaceObj* iface, const char* action) {
    Ostrel_LinkLocalObj* linkLocal = iface->linkLocal;
    OSTREL_REQUIRE(linkLocal != nullptr, "iface->linkLocal", kGenericErr);

    const std::string_view word(action);
    if (word == "init" || word == "renew" || word == "rebind") {
        Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
        Ostrel_LinkLocalArmInit(linkLocal, 0);
        return kNoErr;
    }
    if (word == "halt") {
        Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
        return kNoErr;
    }
    DebugPrintF(kDebugLevelInfo, "[%s] Link Local unknown action request <%s>.\n", iface->ifname.data(), action);
    return kBadParamErr;
}

const char* Ostrel_LinkLocalStateString(int32_t state) {
    switch (state) {
        case kLinkLocalStateInit:
            return "INIT";
        case kLinkLocalStateProbe:
            return "PROBE";
        case kLinkLocalStateAnnounce:
            return "ANNOUNCE";
        case kLinkLocalStateDefend:
            return "DEFEND";
        default:
            return "UNKNOWN";
    }
}

namespace {

// A probe of another host has the sender address 0.0.0.0 and so never concerns us: two hosts that probe for the same
// address at the same moment are told apart by the announcements that follow.
bool IsConflict(const Ostrel_LinkLocalObj* linkLocal, const Ostrel_ARPAddresses* addresses) {
    return addresses->senderMAC != linkLocal->iface->macAddr && linkLocal->IPv4Address != kAnyIPv4 &&
           addresses->senderIPv4 == linkLocal->IPv4Address;
}

void LogConflict(const Ostrel_LinkLocalObj* linkLocal, const Ostrel_MAC& conflictingMAC) {
    DebugPrintF(kDebugLevelInfo, "##### [%s] IPv4 Link Local Conflict\n", linkLocal->iface->ifname.data());
    DebugPrintF(kDebugLevelInfo, "     IPv4 Link Local Address : %.4a\n", &linkLocal->IPv4Address);
    DebugPrintF(kDebugLevelInfo, "     Conflicting MAC Address : %.6a\n", conflictingMAC);
    DebugPrintF(kDebugLevelInfo, "##### \n");
}

}  // namespace

void Ostrel_LinkLocalARPPacketHandler(Ostrel_LinkLocalObj* linkLocal, const Ostrel_EthernetHeader*,
                                      const Ostrel_ARPHeader*, const Ostrel_ARPAddresses* addresses) {
    OSTREL_REQUIRE(linkLocal != nullptr, "linkLocal", );
    if (!IsConflict(linkLocal, addresses)) return;

    LogConflict(linkLocal, addresses->senderMAC);
    ++linkLocal->numConflicts;
    Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
    Ostrel_LinkLocalCalculateProbeInterval(linkLocal);
    Ostrel_LinkLocalArmInit(linkLocal, linkLocal->probeInterval);
}
