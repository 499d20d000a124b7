// What happens to leases, told to the subscribers of "leaseEvents", and when their time is over. Private to the server.
//
// The table ends a lease when the next frame comes. While somebody subscribes, one timeout, for the oldest slot whose
// end was not told, tells it in time; the table stays as it is until then. Without subscribers there is no timeout.
#pragma once

#include <cstdint>
#include <span>

#include "Ostrel/DHCPServer.h"
#include "Ostrel/Publish.h"

#include "DHCPServer/Client.h"

void Ostrel_DHCPServerPostEvent(Ostrel_ServerObj* server, Ostrel_LeaseEventKind kind,
                                const Ostrel_LeaseInformation& lease, std::span<const uint8_t> hostName);

// An event of a slot, with the books that it has now. Whose end was told as that of its time is not told to end again.
inline void Ostrel_DHCPServerTell(Ostrel_ServerObj* server, Ostrel_LeaseEventKind kind,
                                  const Ostrel_LeaseInformation& lease, std::span<const uint8_t> hostName) {
    if (server->endsAreTold && !lease.endIsTold) Ostrel_DHCPServerPostEvent(server, kind, lease, hostName);
}
inline void Ostrel_DHCPServerTell(Ostrel_ServerObj* server, Ostrel_LeaseEventKind kind,
                                  const Ostrel_LeaseInformation& lease) {
    Ostrel_DHCPServerTell(server, kind, lease, {lease.hostName.get(), lease.hostNameLength});
}

// A NAK was sent to the client, which asked for the address, or for 0.
void Ostrel_DHCPServerTellRefusal(Ostrel_ServerObj* server, const Ostrel_ServerClient& client, Ostrel_IPv4 address,
                                  std::span<const uint8_t> hostName);

// Sees to it that the end of the oldest lease will be told, if ends are told at all. Called when the slots in use have
// changed; a timeout that has become too early stays, and is set anew when it is over.
void Ostrel_DHCPServerArmForEnd(Ostrel_ServerObj* server);
inline void Ostrel_DHCPServerAwaitEnd(Ostrel_ServerObj* server) {
    if (server->endsAreTold && !server->endIsAwaited) Ostrel_DHCPServerArmForEnd(server);
}

// A lease whose time was over when it was granted, as an offer was claimed late, is told to end as well.
void Ostrel_DHCPServerAwaitLateEnd(Ostrel_ServerObj* server, const Ostrel_LeaseInformation& lease, uint32_t now);

// Nothing is told any more.
void Ostrel_DHCPServerForgetEnds(Ostrel_ServerObj* server);
