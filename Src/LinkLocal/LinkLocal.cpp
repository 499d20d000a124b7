// The selection of a link-local address (RFC 3927), timeout by timeout, and what starts it over.
//
//   init      choose an address                    then probe, by the rfc rules after PROBE_WAIT
//   probe     three probes                         then probe likewise; after the third, announce in 2 s
//   announce  first and second announcement        then announce in 2 s; the third time the address is held
//   defend    one announcement                     then, in DEFEND_INTERVAL, as held before
//
// A selector is created idle; a lease action or a conflict drops every timeout and arms init. Each handler runs one
// step, and the step whatever it sends. A frame that is sent short ends the selection where it stands: nothing is
// armed, and the state stays until an action or a conflict starts it over.
//
// By the plain rules a host that uses the address is met by giving the address up, whether it is still probed, held, or
// left over from before a "halt". By the rfc rules a held address is defended once in ten seconds, and an idle selector
// has no address that a frame could concern.
#include "Ostrel/LinkLocal.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <endian.h>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"
#include "Ostrel/Timeout.h"

#include "LinkLocal/Shown.h"
#include "os_device.h"
#include "os_memory.h"
#include "os_time.h"

namespace {

constexpr int32_t kProbes = 3;              // RFC 3927 section 9, PROBE_NUM
constexpr int32_t kToleratedConflicts = 9;  // the tenth slows the selector down; MAX_CONFLICTS
constexpr uint32_t kSlowInterval = 60'000;  // milliseconds, then before a new address; RATE_LIMIT_INTERVAL
constexpr uint32_t kFallbackWait = 5000;    // milliseconds that the client is given first

void Ostrel_LinkLocalTimeout_Init(void* linkLocal, void* iface);
void Ostrel_LinkLocalTimeout_Probe(void* linkLocal, void* iface);
void Ostrel_LinkLocalTimeout_Announce(void* linkLocal, void* iface);
void Ostrel_LinkLocalTimeout_Defend(void* linkLocal, void* iface);
void Ostrel_LinkLocalTimeout_Forget(void* linkLocal, void* iface);

enum Timeout : uint8_t { kInit, kProbe, kAnnounce, kDefend, kForget };  // rows of kTimeouts

// Announcements come at ANNOUNCE_WAIT and ANNOUNCE_INTERVAL; the other delays stand in the rules.
constexpr std::array<Ostrel_TimeoutKind, 5> kTimeouts{{
    {Ostrel_LinkLocalTimeout_Init, "[Link Local] INIT ", false, 0, 0},
    {Ostrel_LinkLocalTimeout_Probe, "[Link Local] PROBE ", false, 0, 0},
    {Ostrel_LinkLocalTimeout_Announce, "[Link Local] ANNOUNCE ", false, 2000, 2000},
    {Ostrel_LinkLocalTimeout_Defend, "[Link Local] DEFEND ", false, 0, 0},
    {Ostrel_LinkLocalTimeout_Forget, "[Link Local] FORGET ", false, 0, 0},
}};

void Arm(Ostrel_LinkLocalObj* linkLocal, Timeout timeout, uint32_t milliseconds) {
    Ostrel_ArmTimeout(linkLocal->iface, linkLocal, kTimeouts[timeout], milliseconds);
}

uint32_t FrameRest(const Ostrel_LinkLocalObj* linkLocal) {
    const Ostrel_LinkLocalRules& rules = *linkLocal->rules;
    return Ostrel_FrameRest(linkLocal->frames, {rules.mostPerSecond, rules.mostPerMinute});
}

// Of a step that sends a frame.
void ArmFrame(Ostrel_LinkLocalObj* linkLocal, Timeout timeout, uint32_t milliseconds) {
    Arm(linkLocal, timeout, std::max(milliseconds, FrameRest(linkLocal)));
}

void Ostrel_LinkLocalCancelAllTimeouts(Ostrel_LinkLocalObj* linkLocal) {
    Ostrel_DisarmTimeouts(linkLocal->iface, linkLocal, kTimeouts);
}

bool IsHeld(const Ostrel_LinkLocalObj* linkLocal) {
    return linkLocal->state == kLinkLocalStateAnnounce || linkLocal->state == kLinkLocalStateDefend;
}

// A client with a lease shows that, and publishes it itself.
void Publish(const Ostrel_LinkLocalObj* linkLocal) {
    Ostrel_InterfaceObj* iface = linkLocal->iface;
    if (iface->dhcpClient == nullptr || iface->leaseIsHeld) return;
    const Ostrel_Status status = Ostrel_VoroServicePublishClientLeaseInformation(iface->sysObj, iface->dhcpClient);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void EnterState(Ostrel_LinkLocalObj* linkLocal, Ostrel_LinkLocalState state, Ostrel_Reason reason) {
    DebugPrintF(kDebugLevelInfo, "[%s (%d)] Link Local state transition %s -> %s.\n", linkLocal->iface->ifname.data(),
                os_monotonic_seconds(), Ostrel_LinkLocalStateString(linkLocal->state),
                Ostrel_LinkLocalStateString(state));
    const bool wasHeld = IsHeld(linkLocal);
    linkLocal->state = state;
    Ostrel_LinkLocalShow(linkLocal, state, reason);
    if (linkLocal->rules->onlyHeldIsShown && IsHeld(linkLocal) != wasHeld) Publish(linkLocal);
}

// 169.254.a.b with a and b from 1 to 254; byte values 254 and 255 fold onto 1 and 2.
Ostrel_IPv4 AddressFor(uint32_t mix) {
    const auto fold = [](uint32_t byte) { return static_cast<uint8_t>((byte % 256) % 254 + 1); };
    return std::bit_cast<Ostrel_IPv4>(std::array<uint8_t, 4>{169, 254, fold(mix / 256), fold(mix)});
}

// The same for the same MAC and the same number of choices; those of another MAC, or the next, have nothing to do with
// it (FNV-1a).
uint32_t MixOf(const Ostrel_MAC& mac, uint32_t numChoices) {
    uint32_t mix = 2166136261;
    const auto stir = [&mix](uint8_t byte) { mix = (mix ^ byte) * 16777619; };
    std::for_each(mac.begin(), mac.end(), stir);
    for (const uint8_t byte : std::bit_cast<std::array<uint8_t, 4>>(numChoices)) stir(byte);
    return mix ^ mix >> 16;
}

// By the plain rules the MAC tells apart hosts that start together, the clock and the generator the selections of one
// host.
void ChooseAddress(Ostrel_LinkLocalObj* linkLocal) {
    const Ostrel_InterfaceObj* iface = linkLocal->iface;
    const Ostrel_MAC& mac = iface->macAddr;
    const uint32_t seed = mac[3] * 65536u + mac[4] * 256u + mac[5];
    linkLocal->IPv4Address = AddressFor(linkLocal->rules->addressFollowsMAC
                                            ? MixOf(mac, linkLocal->numChoices)
                                            : seed ^ os_monotonic_seconds() ^ static_cast<uint32_t>(std::rand()));
    DebugPrintF(kDebugLevelInfo, "[%s] Link Local MAC <%.6a>, generated IPv4 <%.4a>\n", iface->ifname.data(), mac,
                &linkLocal->IPv4Address);
}

Ostrel_Status Ostrel_LinkLocalProbeAddress(Ostrel_LinkLocalObj* linkLocal) {
    Ostrel_InterfaceObj* iface = linkLocal->iface;
    Ostrel_FrameNote(linkLocal->frames);
    OSTREL_REQUIRE_NOERR(Ostrel_ARPAsk(iface, kAnyIPv4, linkLocal->IPv4Address));
    ++linkLocal->numProbes;
    DebugPrintF(kDebugLevelTrace, "[%s] IPv4 Link Local; TX'd %d PROBEs\n", iface->ifname.data(), linkLocal->numProbes);
    return kNoErr;
}

bool IsSlow(const Ostrel_LinkLocalObj* linkLocal) {
    return linkLocal->numConflicts > kToleratedConflicts;
}

void DrawInterval(Ostrel_LinkLocalObj* linkLocal, uint32_t minimum, uint32_t maximum) {
    linkLocal->probeInterval = Ostrel_DrawTimeout(linkLocal->rules->randomIsSecret, minimum, maximum);
}

void Ostrel_LinkLocalCalculateProbeInterval(Ostrel_LinkLocalObj* linkLocal) {
    const Ostrel_LinkLocalRules& rules = *linkLocal->rules;
    if (rules.slowProbes && IsSlow(linkLocal))
        linkLocal->probeInterval = kSlowInterval;
    else
        DrawInterval(linkLocal, rules.probeMin, rules.probeMax);
}

Ostrel_Status ProbeAndRearm(Ostrel_LinkLocalObj* linkLocal) {
    const Ostrel_Status status = Ostrel_LinkLocalProbeAddress(linkLocal);
    if (status != kNoErr) return status;
    if (linkLocal->numProbes >= kProbes && !linkLocal->rules->announceWaitIsLonger) {
        ArmFrame(linkLocal, kAnnounce, kTimeouts[kAnnounce].longest);
        return kNoErr;
    }
    Ostrel_LinkLocalCalculateProbeInterval(linkLocal);
    ArmFrame(linkLocal, kProbe, linkLocal->probeInterval);
    return kNoErr;
}

Ostrel_Status Ostrel_LinkLocalStateTransition_Init(Ostrel_LinkLocalObj* linkLocal) {
    EnterState(linkLocal, kLinkLocalStateInit, Ostrel_Reason::Timeout);
    linkLocal->numProbes = 0;
    linkLocal->numAnnounces = 0;
    ChooseAddress(linkLocal);
    if (linkLocal->rules->probeWait != 0) {
        DrawInterval(linkLocal, 0, linkLocal->rules->probeWait);
        ArmFrame(linkLocal, kProbe, linkLocal->probeInterval);
        return kNoErr;
    }
    OSTREL_REQUIRE_NOERR(ProbeAndRearm(linkLocal));
    return kNoErr;
}

Ostrel_Status Ostrel_LinkLocalStateTransition_Probe(Ostrel_LinkLocalObj* linkLocal) {
    EnterState(linkLocal, kLinkLocalStateProbe, Ostrel_Reason::Timeout);
    if (linkLocal->numProbes >= kProbes) {
        Arm(linkLocal, kAnnounce, kTimeouts[kAnnounce].longest);
        return kNoErr;
    }
    OSTREL_REQUIRE_NOERR(ProbeAndRearm(linkLocal));
    return kNoErr;
}

Ostrel_Status Ostrel_LinkLocalAnnounceAddress(Ostrel_LinkLocalObj* linkLocal) {
    Ostrel_InterfaceObj* iface = linkLocal->iface;
    Ostrel_FrameNote(linkLocal->frames);
    OSTREL_REQUIRE_NOERR(Ostrel_ARPAsk(iface, linkLocal->IPv4Address, linkLocal->IPv4Address));
    ++linkLocal->numAnnounces;
    Ostrel_LinkLocalShowAnnounced(linkLocal);
    DebugPrintF(kDebugLevelTrace, "[%s] IPv4 Link Local; TX'd %d ANNOUNCEs\n", iface->ifname.data(),
                linkLocal->numAnnounces);
    return kNoErr;
}

Ostrel_Status Ostrel_LinkLocalStateTransition_Announce(Ostrel_LinkLocalObj* linkLocal) {
    const bool wasHeld = IsHeld(linkLocal);
    EnterState(linkLocal, kLinkLocalStateAnnounce, wasHeld ? Ostrel_Reason::Timeout : Ostrel_Reason::Checked);
    if (linkLocal->numAnnounces >= kAnnouncements) {
        DebugPrintF(kDebugLevelInfo, "##### [%s] IPv4 Link Local Address \n", linkLocal->iface->ifname.data());
        DebugPrintF(kDebugLevelInfo, "     IPv4   Address     : %.4a\n", &linkLocal->IPv4Address);
        if (linkLocal->rules->forgetConflicts != 0) Arm(linkLocal, kForget, linkLocal->rules->forgetConflicts);
        return kNoErr;
    }
    OSTREL_REQUIRE_NOERR(Ostrel_LinkLocalAnnounceAddress(linkLocal));
    ArmFrame(linkLocal, kAnnounce, kTimeouts[kAnnounce].longest);
    return kNoErr;
}

// The second conflict within the interval finds the state DEFEND.
bool CanDefend(const Ostrel_LinkLocalObj* linkLocal) {
    return linkLocal->rules->defendInterval != 0 && linkLocal->state == kLinkLocalStateAnnounce &&
           FrameRest(linkLocal) == 0;
}

// The announcement stands for those that were still to come (RFC 3927 section 2.5 b).
Ostrel_Status Ostrel_LinkLocalStateTransition_Defend(Ostrel_LinkLocalObj* linkLocal) {
    EnterState(linkLocal, kLinkLocalStateDefend, Ostrel_Reason::Conflict);
    Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
    linkLocal->numAnnounces = kAnnouncements;
    Arm(linkLocal, kDefend, linkLocal->rules->defendInterval);
    OSTREL_REQUIRE_NOERR(Ostrel_LinkLocalAnnounceAddress(linkLocal));
    return kNoErr;
}

// There is no address any more, or no candidate.
void DropAddress(Ostrel_LinkLocalObj* linkLocal, Ostrel_LinkLocalState state, Ostrel_Reason reason) {
    if (linkLocal->state != state)
        EnterState(linkLocal, state, reason);
    else
        Ostrel_LinkLocalShow(linkLocal, state, reason);
    linkLocal->IPv4Address = kAnyIPv4;
}

// By the plain rules the machine goes on from where it is, and only those are told who follow it.
void LeaveAddress(Ostrel_LinkLocalObj* linkLocal, Ostrel_LinkLocalState state, Ostrel_Reason reason) {
    if (linkLocal->rules->endsAtOnce) return DropAddress(linkLocal, state, reason);
    Ostrel_LinkLocalShow(linkLocal, state, reason);
}

// Selects from the beginning, unless nobody wants that, or a lease makes it needless; without a link when that is back.
void Restart(Ostrel_LinkLocalObj* linkLocal, Ostrel_Reason reason) {
    const bool isNeeded = linkLocal->isWanted && !(linkLocal->isFallback && linkLocal->iface->leaseIsHeld);
    Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
    if (!isNeeded) return DropAddress(linkLocal, kLinkLocalStateUnknown, reason);
    LeaveAddress(linkLocal, kLinkLocalStateInit, reason);
    if (linkLocal->iface->link.isRunning) Arm(linkLocal, kInit, linkLocal->isFallback ? kFallbackWait : 0);
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

void Ostrel_LinkLocalTimeout_Defend(void* linkLocal, void*) {
    const Ostrel_Status status = Ostrel_LinkLocalStateTransition_Announce(static_cast<Ostrel_LinkLocalObj*>(linkLocal));
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_LinkLocalTimeout_Forget(void* linkLocal, void*) {
    auto* selector = static_cast<Ostrel_LinkLocalObj*>(linkLocal);
    selector->numConflicts = 0;
    Ostrel_InterfacePictureChanged(selector->iface);
}

// A probe of another host has the sender address 0.0.0.0. By the plain rules it never concerns us: two hosts that probe
// for the same address at the same moment are told apart by the announcements that follow.
bool IsRivalProbe(const Ostrel_LinkLocalObj* linkLocal, const Ostrel_ARPHeader* arpHeader,
                  const Ostrel_ARPAddresses* addresses) {
    return linkLocal->rules->probesCount && !IsHeld(linkLocal) && be16toh(arpHeader->operation) == kARPRequest &&
           addresses->senderIPv4 == kAnyIPv4 && addresses->targetIPv4 == linkLocal->IPv4Address;
}

bool IsConflict(const Ostrel_LinkLocalObj* linkLocal, const Ostrel_ARPHeader* arpHeader,
                const Ostrel_ARPAddresses* addresses) {
    if (linkLocal->IPv4Address == kAnyIPv4 || addresses->senderMAC == linkLocal->iface->macAddr) return false;
    if (addresses->senderIPv4 != linkLocal->IPv4Address && !IsRivalProbe(linkLocal, arpHeader, addresses)) return false;
    return !linkLocal->rules->probesCount || !os_is_own_address(addresses->senderMAC);
}

void LogConflict(const Ostrel_LinkLocalObj* linkLocal, const Ostrel_MAC& conflictingMAC) {
    DebugPrintF(kDebugLevelInfo, "##### [%s] IPv4 Link Local Conflict\n", linkLocal->iface->ifname.data());
    DebugPrintF(kDebugLevelInfo, "     IPv4 Link Local Address : %.4a\n", &linkLocal->IPv4Address);
    DebugPrintF(kDebugLevelInfo, "     Conflicting MAC Address : %.6a\n", conflictingMAC);
    DebugPrintF(kDebugLevelInfo, "##### \n");
    DebugPrintF(kDebugLevelInfo, "[%s] linkLocal conflict, %.6a has %.4a\n", linkLocal->iface->ifname.data(),
                conflictingMAC, &linkLocal->IPv4Address);
}

// Another address, by the plain rules as slowly as a probe, by the rfc rules at once; after many conflicts in a minute.
void GiveAddressUp(Ostrel_LinkLocalObj* linkLocal) {
    ++linkLocal->numConflicts;
    ++linkLocal->numChoices;
    Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
    LeaveAddress(linkLocal, kLinkLocalStateInit, Ostrel_Reason::Conflict);
    if (IsSlow(linkLocal))
        linkLocal->probeInterval = kSlowInterval;
    else
        DrawInterval(linkLocal, 0, linkLocal->rules->conflictPause);
    Arm(linkLocal, kInit, linkLocal->probeInterval);
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

Ostrel_Status Ostrel_LinkLocalInitialize(Ostrel_InterfaceObj* iface, const Ostrel_InterfaceConfig* config) {
    auto* linkLocal = os_new<Ostrel_LinkLocalObj>();
    OSTREL_REQUIRE(linkLocal != nullptr, "linkLocal", kOutOfMemoryErr);
    linkLocal->iface = iface;
    linkLocal->rules = &iface->rules->linkLocal;
    linkLocal->isFallback = config->linkLocalFallback;
    linkLocal->since = os_monotonic_milliseconds();
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
        linkLocal->isWanted = true;
        Restart(linkLocal, Ostrel_Reason::Action);
        return kNoErr;
    }
    if (word == "halt") {
        linkLocal->isWanted = false;
        Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
        LeaveAddress(linkLocal, kLinkLocalStateUnknown, Ostrel_Reason::Action);
        return kNoErr;
    }
    DebugPrintF(kDebugLevelInfo, "[%s] Link Local unknown action request <%s>.\n", iface->ifname.data(), action);
    return kBadParamErr;
}

Ostrel_IPv4 Ostrel_LinkLocalShownAddress(const Ostrel_LinkLocalObj* linkLocal) {
    return linkLocal->rules->onlyHeldIsShown && !IsHeld(linkLocal) ? kAnyIPv4 : linkLocal->IPv4Address;
}

Ostrel_Verdict Ostrel_LinkLocalARPPacketHandler(Ostrel_LinkLocalObj* linkLocal, const Ostrel_EthernetHeader*,
                                                const Ostrel_ARPHeader* arpHeader,
                                                const Ostrel_ARPAddresses* addresses) {
    OSTREL_REQUIRE(linkLocal != nullptr, "linkLocal", {.kind = Ostrel_VerdictKind::NotConcerned});
    if (!IsConflict(linkLocal, arpHeader, addresses)) return {.kind = Ostrel_VerdictKind::NotConcerned};

    LogConflict(linkLocal, addresses->senderMAC);
    if (!CanDefend(linkLocal)) {
        GiveAddressUp(linkLocal);
        return {};
    }
    const Ostrel_Status status = Ostrel_LinkLocalStateTransition_Defend(linkLocal);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    return {};
}

// What is held stays until the link is back: there may be nobody to tell, and the network may be the same. Then it is
// probed anew (RFC 3927 section 2.2).
void Ostrel_LinkLocalLinkChanged(Ostrel_LinkLocalObj* linkLocal, bool isRunning) {
    Ostrel_LinkLocalCancelAllTimeouts(linkLocal);
    if (!isRunning) return Ostrel_LinkLocalDoubt(linkLocal);
    Restart(linkLocal, Ostrel_Reason::Link);
    linkLocal->isInDoubt = false;
}

void Ostrel_LinkLocalLeaseChanged(Ostrel_LinkLocalObj* linkLocal, bool /*isHeld*/) {
    if (linkLocal->isFallback) Restart(linkLocal, Ostrel_Reason::Lease);
}

void Ostrel_LinkLocalWokeUp(Ostrel_LinkLocalObj* linkLocal) {
    Restart(linkLocal, Ostrel_Reason::WakeUp);
}
