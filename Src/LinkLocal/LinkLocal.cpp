// The selection of a link-local address (RFC 3927), timeout by timeout, and what starts it over.
//
//   init      choose an address, first probe       then probe, after a random part of a second
//   probe     second and third probe               then probe likewise; after the third, announce in 2 s
//   announce  first and second announcement        then announce in 2 s; the third time the address is held
//
// A selector is created idle; a lease action or a conflict drops every timeout and arms init. Each handler runs one
// step, and the step whatever it sends. A frame that is sent short ends the selection where it stands: nothing is
// armed, and the state stays until an action or a conflict starts it over. A host that uses the address is met by
// giving the address up, whether it is still probed, held, or left over from before a "halt": it is never defended.
#include "Ostrel/LinkLocal.h"

#include <array>
#include <bit>
#include <cstdlib>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/Timeout.h"

#include "os_memory.h"
#include "os_time.h"

namespace {

constexpr int32_t kProbes = 3;              // RFC 3927 section 9, PROBE_NUM
constexpr int32_t kAnnouncements = 2;       // ANNOUNCE_NUM
constexpr int32_t kToleratedConflicts = 9;  // the tenth slows the selector down; MAX_CONFLICTS
constexpr uint32_t kSlowInterval = 60'000;  // milliseconds, then between any two steps; RATE_LIMIT_INTERVAL

void Ostrel_LinkLocalTimeout_Init(void* linkLocal, void* iface);
void Ostrel_LinkLocalTimeout_Probe(void* linkLocal, void* iface);
void Ostrel_LinkLocalTimeout_Announce(void* linkLocal, void* iface);

enum Timeout : uint8_t { kInit, kProbe, kAnnounce };  // rows of kTimeouts

// Probes are closer than PROBE_MIN and PROBE_MAX: a delay is drawn up to but excluding the longest. Announcements come
// at ANNOUNCE_WAIT and ANNOUNCE_INTERVAL.
constexpr std::array<Ostrel_TimeoutKind, 3> kTimeouts{{
    {Ostrel_LinkLocalTimeout_Init, "[Link Local] INIT ", false, 0, 0},
    {Ostrel_LinkLocalTimeout_Probe, "[Link Local] PROBE ", false, 0, 1000},
    {Ostrel_LinkLocalTimeout_Announce, "[Link Local] ANNOUNCE ", false, 2000, 2000},
}};

void Arm(Ostrel_LinkLocalObj* linkLocal, Timeout timeout, uint32_t milliseconds) {
    Ostrel_ArmTimeout(linkLocal->iface, linkLocal, kTimeouts[timeout], milliseconds);
}

void Ostrel_LinkLocalCancelAllTimeouts(Ostrel_LinkLocalObj* linkLocal) {
    Ostrel_DisarmTimeouts(linkLocal->iface, linkLocal, kTimeouts);
}

void EnterState(Ostrel_LinkLocalObj* linkLocal, Ostrel_LinkLocalState state) {
    DebugPrintF(kDebugLevelInfo, "[%s (%d)] Link Local state transition %s -> %s.\n", linkLocal->iface->ifname.data(),
                os_monotonic_seconds(), Ostrel_LinkLocalStateString(linkLocal->state),
                Ostrel_LinkLocalStateString(state));
    linkLocal->state = state;
}

// 169.254.a.b with a and b from 1 to 254; byte values 254 and 255 fold onto 1 and 2.
Ostrel_IPv4 AddressFor(uint32_t mix) {
    const auto fold = [](uint32_t byte) { return static_cast<uint8_t>((byte % 256) % 254 + 1); };
    return std::bit_cast<Ostrel_IPv4>(std::array<uint8_t, 4>{169, 254, fold(mix / 256), fold(mix)});
}

// The MAC tells apart hosts that start together, the clock and the generator the selections of one host.
void ChooseAddress(Ostrel_LinkLocalObj* linkLocal) {
    const Ostrel_InterfaceObj* iface = linkLocal->iface;
    const Ostrel_MAC& mac = iface->macAddr;
    const uint32_t seed = mac[3] * 65536u + mac[4] * 256u + mac[5];
    const uint32_t mix = seed ^ os_monotonic_seconds() ^ static_cast<uint32_t>(std::rand());
    linkLocal->IPv4Address = AddressFor(mix);
    DebugPrintF(kDebugLevelInfo, "[%s] Link Local MAC <%.6a>, generated IPv4 <%.4a>\n", iface->ifname.data(), mac,
                &linkLocal->IPv4Address);
}

Ostrel_Status Ostrel_LinkLocalProbeAddress(Ostrel_LinkLocalObj* linkLocal) {
    Ostrel_InterfaceObj* iface = linkLocal->iface;
    OSTREL_REQUIRE_NOERR(Ostrel_ARPAsk(iface, kAnyIPv4, linkLocal->IPv4Address));
    ++linkLocal->numProbes;
    DebugPrintF(kDebugLevelTrace, "[%s] IPv4 Link Local; TX'd %d PROBEs\n", iface->ifname.data(), linkLocal->numProbes);
    return kNoErr;
}

void Ostrel_LinkLocalCalculateProbeInterval(Ostrel_LinkLocalObj* linkLocal) {
    if (linkLocal->numConflicts > kToleratedConflicts) {
        linkLocal->probeInterval = kSlowInterval;
        return;
    }
    Ostrel_RandomizeTimeout(kTimeouts[kProbe].shortest, kTimeouts[kProbe].longest, &linkLocal->probeInterval);
}

Ostrel_Status ProbeAndRearm(Ostrel_LinkLocalObj* linkLocal) {
    const Ostrel_Status status = Ostrel_LinkLocalProbeAddress(linkLocal);
    if (status != kNoErr) return status;
    Ostrel_LinkLocalCalculateProbeInterval(linkLocal);
    Arm(linkLocal, kProbe, linkLocal->probeInterval);
    return kNoErr;
}

Ostrel_Status Ostrel_LinkLocalStateTransition_Init(Ostrel_LinkLocalObj* linkLocal) {
    EnterState(linkLocal, kLinkLocalStateInit);
    linkLocal->numProbes = 0;
    linkLocal->numAnnounces = 0;
    ChooseAddress(linkLocal);
    OSTREL_REQUIRE_NOERR(ProbeAndRearm(linkLocal));
    return kNoErr;
}

Ostrel_Status Ostrel_LinkLocalStateTransition_Probe(Ostrel_LinkLocalObj* linkLocal) {
    EnterState(linkLocal, kLinkLocalStateProbe);
    if (linkLocal->numProbes >= kProbes) {
        Arm(linkLocal, kAnnounce, kTimeouts[kAnnounce].longest);
        return kNoErr;
    }
    OSTREL_REQUIRE_NOERR(ProbeAndRearm(linkLocal));
    return kNoErr;
}

Ostrel_Status Ostrel_LinkLocalAnnounceAddress(Ostrel_LinkLocalObj* linkLocal) {
    Ostrel_InterfaceObj* iface = linkLocal->iface;
    OSTREL_REQUIRE_NOERR(Ostrel_ARPAsk(iface, linkLocal->IPv4Address, linkLocal->IPv4Address));
    ++linkLocal->numAnnounces;
    DebugPrintF(kDebugLevelTrace, "[%s] IPv4 Link Local; TX'd %d ANNOUNCEs\n", iface->ifname.data(),
                linkLocal->numAnnounces);
    return kNoErr;
}

Ostrel_Status Ostrel_LinkLocalStateTransition_Announce(Ostrel_LinkLocalObj* linkLocal) {
    EnterState(linkLocal, kLinkLocalStateAnnounce);
    if (linkLocal->numAnnounces >= kAnnouncements) {
        DebugPrintF(kDebugLevelInfo, "##### [%s] IPv4 Link Local Address \n", linkLocal->iface->ifname.data());
        DebugPrintF(kDebugLevelInfo, "     IPv4   Address     : %.4a\n", &linkLocal->IPv4Address);
        return kNoErr;
    }
    OSTREL_REQUIRE_NOERR(Ostrel_LinkLocalAnnounceAddress(linkLocal));
    Arm(linkLocal, kAnnounce, kTimeouts[kAnnounce].longest);
    return kNoErr;
}

void Ostrel_LinkLocalTimeout_Init(void* linkLocal, void*) {
    const Ostrel_Status status = Ostrel_LinkLocalStateTransition_Init(static_cast<Ostrel_LinkLocalObj*>(linkLocal));
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_LinkLocalTimeout_Probe(void* linkLocal, void*) {
    const Ostrel_Status status = Ostrel_LinkLocalStateTransition_Probe(static_cast<Ostrel_LinkLocalObj*>(linkLocal));
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_LinkLocalTimeout_Announce(void* linkLocal, void*) {
    const Ostrel_Status status = Ostrel_LinkLocalStateTransition_Announce(static_cast<Ostrel_LinkLocalObj*>(linkLocal));
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

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

const char* Ostrel_LinkLocalStateString(Ostrel_LinkLocalState state) {
    switch (state) {
        case kLinkLocalStateUnknown:
            break;
        case kLinkLocalStateInit:
            return "INIT";
        case kLinkLocalStateProbe:
            return "PROBE";
        case kLinkLocalStateAnnounce:
            return "ANNOUNCE";
        case kLinkLocalStateDefend:
            return "DEFEND";
    }
    return "UNKNOWN";
}

Ostrel_Status Ostrel_LinkLocalInitialize(Ostrel_InterfaceObj* iface, const Ostrel_InterfaceConfig*) {
    auto* linkLocal = os_new<Ostrel_LinkLocalObj>();
    OSTREL_REQUIRE(linkLocal != nullptr, "linkLocal", kOutOfMemoryErr);
    linkLocal->iface = iface;
    linkLocal->rules = &iface->rules->linkLocal;
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
        Arm(linkLocal, kInit, 0);
        return kNoErr;
    }
    if (word == "halt") {
        Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
        return kNoErr;
    }
    DebugPrintF(kDebugLevelInfo, "[%s] Link Local unknown action request <%s>.\n", iface->ifname.data(), action);
    return kBadParamErr;
}

void Ostrel_LinkLocalARPPacketHandler(Ostrel_LinkLocalObj* linkLocal, const Ostrel_EthernetHeader*,
                                      const Ostrel_ARPHeader*, const Ostrel_ARPAddresses* addresses) {
    OSTREL_REQUIRE(linkLocal != nullptr, "linkLocal", );
    if (!IsConflict(linkLocal, addresses)) return;

    LogConflict(linkLocal, addresses->senderMAC);
    ++linkLocal->numConflicts;
    Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
    Ostrel_LinkLocalCalculateProbeInterval(linkLocal);
    Arm(linkLocal, kInit, linkLocal->probeInterval);
}

void Ostrel_LinkLocalLinkChanged(Ostrel_LinkLocalObj*, bool) {}

void Ostrel_LinkLocalLeaseChanged(Ostrel_LinkLocalObj*, bool) {}

void Ostrel_LinkLocalWokeUp(Ostrel_LinkLocalObj*) {}
