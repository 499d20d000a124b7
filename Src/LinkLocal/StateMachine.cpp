// The selection of a link-local address (RFC 3927), timeout by timeout.
//
//   init      choose an address, first probe       then probe, after a random part of a second
//   probe     second and third probe               then probe likewise; after the third, announce in 2 s
//   announce  first and second announcement        then announce in 2 s; the third time the address is held
//
// Each handler runs one step, and the step whatever it sends. A frame that is sent short ends the selection where it
// stands: nothing is armed, and the state stays until an action or a conflict starts it over.
#include <array>
#include <bit>
#include <cstdlib>

#include "Ostrel/Check.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"
#include "Ostrel/Timeout.h"

#include "os_time.h"

namespace {

constexpr int32_t kProbes = 3;               // RFC 3927 section 9, PROBE_NUM
constexpr int32_t kAnnouncements = 2;        // ANNOUNCE_NUM
constexpr uint32_t kAnnounceSpacing = 2000;  // milliseconds; ANNOUNCE_WAIT and ANNOUNCE_INTERVAL
constexpr uint32_t kProbeSpacing = 1000;     // milliseconds, excluded; probes are closer than PROBE_MIN and PROBE_MAX
constexpr int32_t kToleratedConflicts = 9;   // the tenth slows the selector down; MAX_CONFLICTS
constexpr uint32_t kSlowProbeInterval = 60000;  // milliseconds; RATE_LIMIT_INTERVAL

constexpr char kInitLabel[] = "[Link Local] INIT ";
constexpr char kProbeLabel[] = "[Link Local] PROBE ";
constexpr char kAnnounceLabel[] = "[Link Local] ANNOUNCE ";

void Arm(Ostrel_LinkLocalObj* linkLocal, uint32_t milliseconds, eloop_timeout_handler handler, const char* label) {
    Ostrel_SetTimeout(linkLocal->iface, linkLocal, static_cast<int32_t>(milliseconds / 1000),
                      static_cast<int32_t>(milliseconds % 1000), handler, label, false);
}

void EnterState(Ostrel_LinkLocalObj* linkLocal, int32_t state) {
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

Ostrel_Status ProbeAndRearm(Ostrel_LinkLocalObj* linkLocal) {
    const Ostrel_Status status = Ostrel_LinkLocalProbeAddress(linkLocal);
    if (status != kNoErr) return status;
    Ostrel_LinkLocalCalculateProbeInterval(linkLocal);
    Arm(linkLocal, linkLocal->probeInterval, Ostrel_LinkLocalTimeout_Probe, kProbeLabel);
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
        Arm(linkLocal, kAnnounceSpacing, Ostrel_LinkLocalTimeout_Announce, kAnnounceLabel);
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
    Arm(linkLocal, kAnnounceSpacing, Ostrel_LinkLocalTimeout_Announce, kAnnounceLabel);
    return kNoErr;
}

}  // namespace

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

Ostrel_Status Ostrel_LinkLocalProbeAddress(Ostrel_LinkLocalObj* linkLocal) {
    Ostrel_InterfaceObj* iface = linkLocal->iface;
    OSTREL_REQUIRE_NOERR(Ostrel_ARPAsk(iface, kAnyIPv4, linkLocal->IPv4Address));
    ++linkLocal->numProbes;
    DebugPrintF(kDebugLevelTrace, "[%s] IPv4 Link Local; TX'd %d PROBEs\n", iface->ifname.data(), linkLocal->numProbes);
    return kNoErr;
}

void Ostrel_LinkLocalCalculateProbeInterval(Ostrel_LinkLocalObj* linkLocal) {
    if (linkLocal->numConflicts > kToleratedConflicts) {
        linkLocal->probeInterval = kSlowProbeInterval;
        return;
    }
    Ostrel_RandomizeTimeout(0, kProbeSpacing, &linkLocal->probeInterval);
}

void Ostrel_LinkLocalArmInit(Ostrel_LinkLocalObj* linkLocal, uint32_t milliseconds) {
    Arm(linkLocal, milliseconds, Ostrel_LinkLocalTimeout_Init, kInitLabel);
}

void Ostrel_LinkLocalCancelAllTimeouts(Ostrel_LinkLocalObj* linkLocal) {
    Ostrel_InterfaceObj* iface = linkLocal->iface;
    Ostrel_CancelTimeout(iface, linkLocal, Ostrel_LinkLocalTimeout_Init, kInitLabel, false);
    Ostrel_CancelTimeout(iface, linkLocal, Ostrel_LinkLocalTimeout_Probe, kProbeLabel, false);
    Ostrel_CancelTimeout(iface, linkLocal, Ostrel_LinkLocalTimeout_Announce, kAnnounceLabel, false);
}
