// The lease table from inside: its slots by number and by address, and what its parts do to one. Private to the table.
#pragma once

#include <cstdint>
#include <span>

#include "Ostrel/DHCPServer.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"

#include "DHCPServer/LeaseIndex.h"

[[nodiscard]] inline std::span<Ostrel_LeaseInformation> Ostrel_LeaseSlotsOf(const Ostrel_ServerObj* server) {
    return {server->leases.get(), server->numSlots};
}
// Null for kNoSlot.
[[nodiscard]] inline Ostrel_LeaseInformation* Ostrel_LeaseSlotAt(const Ostrel_ServerObj* server, uint32_t slot) {
    return slot == kNoSlot ? nullptr : &server->leases[slot];
}
[[nodiscard]] inline uint32_t Ostrel_LeaseSlotNumber(const Ostrel_ServerObj* server,
                                                     const Ostrel_LeaseInformation* lease) {
    return static_cast<uint32_t>(lease - server->leases.get());
}

// The address of a slot of the range: addresses count on through the lower three octets; the first never changes.
[[nodiscard]] Ostrel_IPv4 Ostrel_LeaseAddressOfSlot(const Ostrel_ServerObj* server, uint32_t slot);

// The slot of an address, or null.
[[nodiscard]] Ostrel_LeaseInformation* Ostrel_LeaseSlotOfAddress(const Ostrel_ServerObj* server, Ostrel_IPv4 address);

// How a lease ends: in the log, and for the subscribers of events.
struct Ostrel_LeaseEnding {
    const char* reason;
    Ostrel_LeaseEventKind event;
};

// Returns a slot to rest: free, or kept for its one client. `ending` is for the end of a lease.
void Ostrel_LeaseSlotFree(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_LeaseEnding& ending);

// Whether a line at trace level, that of every walk, would be written.
[[nodiscard]] inline bool Ostrel_LeaseWalksAreTraced() {
    return DebugIsWritten(kDebugLevelTrace);
}
