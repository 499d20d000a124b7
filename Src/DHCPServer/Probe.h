// The ARP probe of a free address before it is offered (RFC 2131 section 2.2).
//
// The table forgets at every restart, and hosts have addresses that no server gave them. So an address is asked for
// before it is offered, unless its client had it last, and the OFFER waits. Who answers has the address held, and the
// client's DISCOVER is handled anew. The client itself may answer, and so may a host that answers for every address:
// neither is heeded.
//
// At most kMaxServerProbes are under way at the same time; beyond that an address is offered at once. The probe is a
// courtesy, as the client will look for itself, and nobody should be without an address because others ask for many.
#pragma once

#include <cstdint>

#include "Ostrel/DHCPServer.h"

#include "DHCPServer/Client.h"

struct Ostrel_ServerProbe {
    uint32_t slot;
    uint64_t key;             // of the client that it is offered to
    uint64_t end;             // monotonic milliseconds
    os_array<uint8_t> frame;  // the DISCOVER
    uint32_t length;          // bytes in it
};

// Makes room for the probes, if any are to be made; kOutOfMemoryErr.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServerProbesInitialize(Ostrel_ServerObj* server);
// Forgets what is under way, its timeout included.
void Ostrel_DHCPServerProbesFinalize(Ostrel_ServerObj* server);

// Whether a slot should be probed before it is offered to the client: asked before it is claimed.
[[nodiscard]] bool Ostrel_DHCPServerProbeIsWanted(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease,
                                                  const Ostrel_ServerClient& client);

// Whether a slot is being probed for the client. If it is, this DISCOVER is what will be answered.
[[nodiscard]] bool Ostrel_DHCPServerProbeIsUnderWay(Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease,
                                                    const Ostrel_ServerClient& client,
                                                    const Ostrel_PreprocessedPacket& discover);

// Asks for the address of a slot that is claimed for the client. False when that can't be done now; the slot should be
// offered at once then.
[[nodiscard]] bool Ostrel_DHCPServerProbeBegin(Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease,
                                               const Ostrel_ServerClient& client,
                                               const Ostrel_PreprocessedPacket& discover);
