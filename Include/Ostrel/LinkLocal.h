// The IPv4 link-local address selector of one interface (RFC 3927): picks an address in 169.254/16, probes for it and
// announces it, and picks another whenever some host turns out to use it.
//
// It publishes nothing: what it holds is read when the client's lease information is asked for.
#pragma once

#include <cstdint>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Address.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Status.h"

enum Ostrel_LinkLocalState : int32_t {
    kLinkLocalStateUnknown = 0,  // never started
    kLinkLocalStateInit = 1,
    kLinkLocalStateProbe = 2,
    kLinkLocalStateAnnounce = 3,  // stays so once the address is held
    kLinkLocalStateDefend = 4,    // never entered
};

// "INIT", "PROBE" and so on; "UNKNOWN" for any other value.
[[nodiscard]] const char* Ostrel_LinkLocalStateString(Ostrel_LinkLocalState state);

struct Ostrel_LinkLocalObj {
    Ostrel_InterfaceObj* iface;          // not owned
    const Ostrel_LinkLocalRules* rules;  // never null
    Ostrel_IPv4 IPv4Address;             // probed, announced or held; 0 until the first selection
    Ostrel_LinkLocalState state;
    int32_t numConflicts;    // over the object's life
    int32_t numProbes;       // for the current address
    int32_t numAnnounces;    // likewise
    uint32_t probeInterval;  // milliseconds: the delay drawn last
};

// Life. Initialize stores the object in the interface's linkLocal and leaves it idle; Finalize ignores null and does
// not clear the slot.
[[nodiscard]] Ostrel_Status Ostrel_LinkLocalInitialize(Ostrel_InterfaceObj* iface,
                                                       const Ostrel_InterfaceConfig* config);
void Ostrel_LinkLocalFinalize(Ostrel_LinkLocalObj* linkLocal);

// "init", "renew" and "rebind" select a new address on the next pass of the loop; "halt" stops the timeouts.
// kBadParamErr for any other word, kGenericErr without a selector.
[[nodiscard]] Ostrel_Status Ostrel_LinkLocalAction(Ostrel_InterfaceObj* iface, const char* action);

// Every ARP frame of the interface.
void Ostrel_LinkLocalARPPacketHandler(Ostrel_LinkLocalObj* linkLocal, const Ostrel_EthernetHeader* frame,
                                      const Ostrel_ARPHeader* arpHeader, const Ostrel_ARPAddresses* addresses);

// The interface has lost its link, or has it back; the client of the interface holds a lease, or not any more; and the
// device was suspended and is awake again.
void Ostrel_LinkLocalLinkChanged(Ostrel_LinkLocalObj* linkLocal, bool isRunning);
void Ostrel_LinkLocalLeaseChanged(Ostrel_LinkLocalObj* linkLocal, bool isHeld);
void Ostrel_LinkLocalWokeUp(Ostrel_LinkLocalObj* linkLocal);
