// The IPv4 link-local address selector of one interface (RFC 3927): picks an address in 169.254/16, probes for it and
// announces it, and picks another whenever some host turns out to use it.
//
// What it holds is part of the client's lease information while the client has no lease. The plain rules leave it to
// whoever asks; by the rfc rules it is posted when it is held, and when it is given up.
#pragma once

#include <cstdint>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Address.h"
#include "Ostrel/FrameBudget.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Reason.h"
#include "Ostrel/Status.h"
#include "Ostrel/Verdict.h"

enum Ostrel_LinkLocalState : int32_t {
    kLinkLocalStateUnknown = 0,  // idle: not started, or not needed
    kLinkLocalStateInit = 1,
    kLinkLocalStateProbe = 2,
    kLinkLocalStateAnnounce = 3,  // stays so once the address is held
    kLinkLocalStateDefend = 4,    // held, and defended a moment ago
};

// "INIT", "PROBE" and so on; "UNKNOWN" for any other value.
[[nodiscard]] const char* Ostrel_LinkLocalStateString(Ostrel_LinkLocalState state);

struct Ostrel_LinkLocalObj {
    Ostrel_InterfaceObj* iface;          // not owned
    const Ostrel_LinkLocalRules* rules;  // never null
    Ostrel_IPv4 IPv4Address;             // probed, announced or held; 0 until the first selection
    Ostrel_LinkLocalState state;
    int32_t numConflicts;    // over the object's life, or since an address was held for long, as the rules say
    int32_t numProbes;       // for the current address
    int32_t numAnnounces;    // likewise
    uint32_t probeInterval;  // milliseconds: the delay drawn last
    uint32_t numChoices;     // addresses given up to others; the next that follows from the MAC follows from this too
    bool isFallback;         // selects only while the client has no lease
    bool isWanted;           // the last action was not "halt"
    bool isInDoubt;          // the address, while the link is lost
    Ostrel_LinkLocalState
        shown;             // to "interfaceState": by the plain rules "halt" and a conflict leave the state as it is
    uint64_t since;        // milliseconds of the monotonic clock: it is in the state that is shown
    Ostrel_Reason reason;  // why it came to be in it, or why the address may not be used
    Ostrel_FrameRing frames;
};

// The state as "interfaceState" shows it: "IDLE", "INIT", "PROBE", "ANNOUNCE", "HELD", "DEFEND"; and whether the
// address may be used. That is the one that is probed, announced or held, 0 where there is none.
[[nodiscard]] const char* Ostrel_LinkLocalShownState(const Ostrel_LinkLocalObj* linkLocal);
[[nodiscard]] Ostrel_IPv4 Ostrel_LinkLocalChosenAddress(const Ostrel_LinkLocalObj* linkLocal);
[[nodiscard]] bool Ostrel_LinkLocalHolds(const Ostrel_LinkLocalObj* linkLocal);

// Life. Initialize stores the object in the interface's linkLocal and leaves it idle; Finalize ignores null and does
// not clear the slot.
[[nodiscard]] Ostrel_Status Ostrel_LinkLocalInitialize(Ostrel_InterfaceObj* iface,
                                                       const Ostrel_InterfaceConfig* config);
void Ostrel_LinkLocalFinalize(Ostrel_LinkLocalObj* linkLocal);

// "init", "renew" and "rebind" select an address, where it is a fallback some seconds later if the client has no lease
// by then; "halt" stops the timeouts. kBadParamErr for any other word, kGenericErr without a selector.
[[nodiscard]] Ostrel_Status Ostrel_LinkLocalAction(Ostrel_InterfaceObj* iface, const char* action);

// What is to be told of it: the address, or 0 while there is none to tell.
[[nodiscard]] Ostrel_IPv4 Ostrel_LinkLocalShownAddress(const Ostrel_LinkLocalObj* linkLocal);

// Every ARP frame of the interface. The verdict: what it is to the selector.
[[nodiscard]] Ostrel_Verdict Ostrel_LinkLocalARPPacketHandler(Ostrel_LinkLocalObj* linkLocal,
                                                              const Ostrel_EthernetHeader* frame,
                                                              const Ostrel_ARPHeader* arpHeader,
                                                              const Ostrel_ARPAddresses* addresses);

// The interface has lost its link, or has it back; the client of the interface holds a lease, or not any more; and the
// device was suspended and is awake again.
void Ostrel_LinkLocalLinkChanged(Ostrel_LinkLocalObj* linkLocal, bool isRunning);
void Ostrel_LinkLocalLeaseChanged(Ostrel_LinkLocalObj* linkLocal, bool isHeld);
void Ostrel_LinkLocalWokeUp(Ostrel_LinkLocalObj* linkLocal);
