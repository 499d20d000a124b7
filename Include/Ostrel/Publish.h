// The calls that go up: a role with news tells the bus's subscribers, and the other roles of its interface.
#pragma once

#include <cstdint>
#include <span>

#include "Ostrel/Address.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Status.h"
#include "Ostrel/System.h"
#include "Ostrel/Verdict.h"

struct Ostrel_ClientObj;
struct Ostrel_ServerObj;

// Posts the client's lease to the subscribers of "/client" "leaseInformation"; kGenericErr when that fails.
[[nodiscard]] Ostrel_Status Ostrel_VoroServicePublishClientLeaseInformation(Ostrel_SystemObj* sysObj,
                                                                            Ostrel_ClientObj* client);

// Posts the server's lease table to the subscribers of "/server" "leaseInformation"; kGenericErr when that fails.
[[nodiscard]] Ostrel_Status Ostrel_VoroServicePublishServerLeaseInformation(Ostrel_SystemObj* sysObj,
                                                                            Ostrel_ServerObj* server);

// The client holds a lease from now on, its address checked, or does not any more. Saying it twice is harmless.
void Ostrel_InterfaceLeaseChanged(Ostrel_InterfaceObj* iface, bool isHeld);

// What "/" "interfaceState" shows of an interface, its counters left aside, has changed: it is posted when the loop has
// handled what is under way, once for all that changes until then. A role that is about to enter another state says
// Turns first: what has changed before is posted at once, so that no state is passed over.
void Ostrel_InterfacePictureChanged(Ostrel_InterfaceObj* iface);
void Ostrel_InterfacePictureTurns(Ostrel_InterfaceObj* iface);
// What has changed is posted behind what is due by now, such as a check that takes no time, and with what that changes.
void Ostrel_InterfacePicturePutOff(Ostrel_InterfaceObj* iface);
// Of an interface that nobody has heard of, or that nobody can be told of any more: nothing will be posted.
void Ostrel_InterfacePictureForget(Ostrel_InterfaceObj* iface);

// Posts the state of the interface of that name, or that there is none, to the subscribers of "/" "interfaceState". A
// failure is reported; there is nothing that a role could do about it.
void Ostrel_VoroServicePublishInterfaceState(Ostrel_SystemObj* sysObj, const char* ifname);

// What happened to a lease of a server, for the subscribers of "/server" "leaseEvents".
enum class Ostrel_LeaseEventKind : uint8_t {
    Granted,   // by REQUEST, or an INFORM that takes an address
    Renewed,   // an active lease is confirmed, or extended where the rules have it so
    Released,  // its client gives it up: by RELEASE, by asking for another address, or by beginning anew
    Expired,   // its time is over
    Refused,   // a NAK was sent; the address is the one asked for
    Declined,  // by its client: somebody else has the address, which is held
    Held,      // somebody else was found to have the address, or an operator keeps it; a lease of it ends by that
    Freed,     // the hold is over, or an operator ended it, or a lease
};
constexpr uint32_t kNumLeaseEvents = 8;

struct Ostrel_LeaseEvent {
    Ostrel_LeaseEventKind kind;
    Ostrel_IPv4 address;                // 0: none
    Ostrel_MAC mac;                     // the client's, or of whoever has the address
    std::span<const uint8_t> hostName;  // any bytes; empty: none
    bool ends;                          // whether `end` counts
    uint32_t end;                       // of the lease, or of the hold, in seconds of the monotonic clock
};

// "granted", "renewed" and so on.
[[nodiscard]] const char* Ostrel_LeaseEventName(Ostrel_LeaseEventKind kind);

// Posts an event; a failure is reported. Whoever calls it has asked first whether somebody listens.
[[nodiscard]] inline bool Ostrel_LeaseEventsAreWanted(const Ostrel_InterfaceObj* iface) {
    return iface->sysObj->audience.leaseEvents != 0;
}
void Ostrel_VoroServicePublishLeaseEvent(Ostrel_InterfaceObj* iface, const Ostrel_LeaseEvent& event);

// A frame of an interface and what became of it, for the subscribers of "/" "trace"; the frame is whole, from its
// Ethernet header on. Whoever calls it has asked first whether somebody listens. Roles go through the calls below.
enum class Ostrel_Direction : uint8_t { Received, Sent };

[[nodiscard]] inline bool Ostrel_TraceIsWanted(const Ostrel_InterfaceObj* iface) {
    return iface->sysObj->audience.trace != 0;
}
void Ostrel_VoroServicePublishFrame(Ostrel_InterfaceObj* iface, const char* role, Ostrel_Direction direction,
                                    std::span<const uint8_t> frame, const Ostrel_Verdict& verdict);

// A received frame is told when its role has handled it, but before anything that is sent because of it: what it was
// sent for is then told as taken. The frame has to outlive both calls, of which none costs anything while nobody
// listens. A role that knows the verdict earlier may say so earlier: the first one counts.
void Ostrel_TraceReceiving(Ostrel_InterfaceObj* iface, const char* role, std::span<const uint8_t> frame);
void Ostrel_TraceReceived(Ostrel_InterfaceObj* iface, const Ostrel_Verdict& verdict);

// The frame in the interface's txFrame was sent, or what became of it.
void Ostrel_TraceSent(Ostrel_InterfaceObj* iface, const char* role, const Ostrel_Verdict& verdict);
