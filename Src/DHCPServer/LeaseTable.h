// The lease table: one slot for each address of the range. Who gets which slot, and when a slot falls free.
//
// Slots change only through the functions below. A free slot may be claimed for a client before its OFFER goes out;
// the OFFER makes it offered, an acknowledged REQUEST or INFORM active, a DECLINE held. "Now" is the monotonic clock in
// seconds. Each lease, which is a slot's time of being active, has one line at info where it begins and one where it
// ends.
#pragma once

#include <cstdint>
#include <span>

#include "Ostrel/DHCPServer.h"

#include "DHCPServer/Client.h"
#include "DHCPServer/Slots.h"

// Slots that are held because of one client, or one host that has the address: so many that a host of several addresses
// is heeded, and so few that nobody gets the range. One more, and the oldest falls free.
constexpr uint32_t kHeldForOne = 4;

// Checks the mask against the size of the range and builds the table: all slots free, but for those that are kept for a
// client, and the leases that are given back. One of these that doesn't fit is left out, with a line in the log.
// kBadParamErr or kOutOfMemoryErr, after which the server may only be finalised.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServer_LeasesInitialize(Ostrel_ServerObj* server,
                                                               const Ostrel_ServerValues& values);

// Gives leases back, as LeasesInitialize does. Those of one call are put in by age; after several, see
// Ostrel_LeaseIndexSortByAge. kOutOfMemoryErr when some were not.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServer_LeasesGiveBack(Ostrel_ServerObj* server,
                                                             const Ostrel_ServerValues& values);

// The slot that a message of this type from this client is about; kNoFreeResourceErr with null when there is none.
//
//   DISCOVER                the client's lowest slot, else the lowest free one; or, where holders are remembered: its
//   slot
//                           in use, the free one that it had last, the free one that it asks for, the lowest one that
//                           was never leased, the one that is free for longest
//   REQUEST of an address   that address's slot, unless another client holds it; the client's other slots are freed
//   INFORM of an address    that address's slot, if the client holds it, or if it is free and the client holds none
//   RELEASE of an address   that address's slot, if the client holds it; DECLINE likewise
//   any other               none
//
// A client that an address is kept for gets that one and no other, unless it is held. `requested` is the address, or 0.
// One outside the server's subnet finds nothing and frees nothing.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServer_LeaseFindByMACAndIPv4(Ostrel_ServerObj* server, uint32_t messageType,
                                                                    const Ostrel_ServerClient& client,
                                                                    Ostrel_IPv4 requested,
                                                                    Ostrel_LeaseInformation** lease);

// Whether the client has a slot in use.
[[nodiscard]] bool Ostrel_DHCPServer_LeaseIsHolder(const Ostrel_ServerObj* server, const Ostrel_ServerClient& client);

// Frees what the client was offered and has not claimed: it has chosen another server.
void Ostrel_DHCPServer_LeaseForgo(Ostrel_ServerObj* server, const Ostrel_ServerClient& client);

// Notes the client that a free or kept slot is about to be offered to. A slot in use stays as it is, but for one whose
// client comes under another name than the one that it had it by. `key` counts where clients are not known by their
// MAC.
void Ostrel_DHCPServer_LeaseClaim(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac,
                                  uint64_t key = 0);

// The OFFER went out: the slot is offered from now on, whatever it was; an active one stays active where leases outlive
// a DISCOVER.
void Ostrel_DHCPServer_LeaseOffer(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, uint32_t now);

// The slot is active. One that was free, or had no offer time, changes hands and starts its time now; others start
// their time now where renewals extend. `hostName`, empty when there is none, is for the log: what the client that is
// granted a lease calls itself.
void Ostrel_DHCPServer_LeaseActivate(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac,
                                     uint32_t now, std::span<const uint8_t> hostName);

// The slot is nobody's for kHoldTime: the host with this address, which the index knows by the key, has declined it or
// uses it, as `ending` says.
void Ostrel_DHCPServer_LeaseHold(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac,
                                 uint64_t key, uint32_t now, const Ostrel_LeaseEnding& ending);

// Whether one more slot may be held because of this host without another falling free.
[[nodiscard]] bool Ostrel_DHCPServer_LeaseMayBeHeldFor(const Ostrel_ServerObj* server, uint64_t key);

// The slot is nobody's until it is cleaned; a lease of it ends.
void Ostrel_DHCPServer_LeaseHoldForGood(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease);

// A copy of what a REQUEST says of its client, options 61 and 12, with a zero byte behind it; no buffer for an option
// that is absent, which is one whose span is null. False, with no buffer either, when memory is out.
[[nodiscard]] bool Ostrel_DHCPServer_LeaseKeepIdentifier(Ostrel_LeaseInformation* lease, std::span<const uint8_t> data);
[[nodiscard]] bool Ostrel_DHCPServer_LeaseKeepHostName(Ostrel_LeaseInformation* lease, std::span<const uint8_t> data);

// Returns a slot to the free state: its client has no more use for it, which is told as Released, or somebody else has
// it so, which is told as Freed.
Ostrel_Status Ostrel_DHCPServer_LeaseClean(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease,
                                           Ostrel_LeaseEventKind event);

// Cleans the offered slots that nobody claimed in time, and the active and held ones that have reached their end.
void Ostrel_DHCPServer_LeasePrune(Ostrel_ServerObj* server, uint32_t now);
