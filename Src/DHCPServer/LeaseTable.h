// The lease table: one slot for each address of the range. Who gets which slot, and when a slot falls free.
//
// Slots change only through the functions below. A free slot may be claimed for a station before its OFFER goes out;
// the OFFER makes it offered, an acknowledged REQUEST or INFORM active. "Now" is the monotonic clock in seconds. Each
// lease, which is a slot's time of being active, has one line at info where it begins and one where it ends.
#pragma once

#include <cstdint>
#include <span>

#include "Ostrel/DHCPServer.h"

// Checks the mask against the size of the range and builds the table, all slots free. kBadParamErr or kOutOfMemoryErr,
// after which the server may only be finalised.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServer_LeasesInitialize(Ostrel_ServerObj* server);

// The slot that a message of this type from this station is about; kNoFreeResourceErr with null when there is none.
//
//   DISCOVER                the station's lowest slot, else the lowest free one
//   REQUEST of an address   that address's slot, unless another station holds it; the station's other slots are freed
//   INFORM of an address    that address's slot, if the station holds it, or if it is free and the station holds none
//   RELEASE of an address   that address's slot, if the station holds it
//   any other               none
//
// `requested` is the address, or 0. One outside the server's subnet finds nothing and frees nothing.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServer_LeaseFindByMACAndIPv4(Ostrel_ServerObj* server, uint32_t messageType,
                                                                    const Ostrel_MAC& mac, Ostrel_IPv4 requested,
                                                                    Ostrel_LeaseInformation** lease);

// Notes the station that a free slot is about to be offered to; a slot in use stays as it is.
void Ostrel_DHCPServer_LeaseClaim(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac);

// The OFFER went out: the slot is offered from now on, whatever it was.
void Ostrel_DHCPServer_LeaseOffer(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, uint32_t now);

// The slot is active. Only one that was free, or had no offer time, changes hands and starts its time now. `hostName`,
// empty when there is none, is for the log: what the client that is granted a lease calls itself.
void Ostrel_DHCPServer_LeaseActivate(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease, const Ostrel_MAC& mac,
                                     uint32_t now, std::span<const uint8_t> hostName);

// A copy of what a REQUEST says of its client, options 61 and 12, with a zero byte behind it; no buffer for an option
// that is absent, which is one whose span is null. False, with no buffer either, when memory is out.
[[nodiscard]] bool Ostrel_DHCPServer_LeaseKeepIdentifier(Ostrel_LeaseInformation* lease, std::span<const uint8_t> data);
[[nodiscard]] bool Ostrel_DHCPServer_LeaseKeepHostName(Ostrel_LeaseInformation* lease, std::span<const uint8_t> data);

// Returns a slot to the free state: its station has no more use for it.
Ostrel_Status Ostrel_DHCPServer_LeaseClean(Ostrel_ServerObj* server, Ostrel_LeaseInformation* lease);

// Cleans the offered slots that nobody claimed in time and the active ones that have reached their end.
void Ostrel_DHCPServer_LeasePrune(Ostrel_ServerObj* server, uint32_t now);
