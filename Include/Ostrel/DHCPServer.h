// The DHCP server of one interface: hands out the addresses of one contiguous range inside the interface's subnet.
//
// A slot is offered for kOfferTimeout seconds, then active for leaseTime seconds. By the plain rules a client is known
// by the Ethernet source address of its frames, and renewals do not move the end of a lease; by the rfc rules they do,
// and a client is its option 61, or else its hardware address (Rules.h). Leases end when the next frame arrives.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Address.h"
#include "Ostrel/Counters.h"
#include "Ostrel/DHCPShared.h"
#include "Ostrel/Interface.h"
#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/PacketFilter.h"
#include "Ostrel/Status.h"
#include "Ostrel/Verdict.h"

#include "os_memory.h"

// States of a lease slot.
enum Ostrel_LeaseState : uint32_t {
    kLeaseStateFree = 1,
    kLeaseStateHeld = 2,     // nobody's: somebody else uses the address, or an operator keeps it
    kLeaseStateKept = 3,     // free, but for the one client that it is kept for
    kLeaseStateOffered = 4,  // an OFFER was sent
    kLeaseStateActive = 5,   // an ACK was sent
};
constexpr uint32_t kNumLeaseStates = 6;  // 0 is none

constexpr uint32_t kOfferTimeout = 10;          // seconds that an unclaimed offer is held
constexpr uint32_t kHoldTime = 600;             // seconds that an address in use by somebody else is held
constexpr uint32_t kDefaultLeaseTime = 86400;   // seconds, for a configuration without one
constexpr int32_t kMaxLeasesLimit = 1'048'576;  // slots; a larger configuration is refused

// One slot: one address of the range. A free slot has no MAC, no time and no buffers, but for one whose OFFER could not
// be sent, which keeps its MAC. A held one has the MAC of whoever declined or uses the address, and when that was.
struct Ostrel_LeaseInformation {
    Ostrel_IPv4 IPv4Address;  // fixed when the table is built
    Ostrel_LeaseState state;
    Ostrel_MAC srcMAC;
    bool changed;                        // since the bus area last showed it: set by every change of what is shown
    bool endIsTold;                      // as an event, though the lease ends with the next frame only
    uint32_t offerTime;                  // monotonic seconds when it was offered, taken over, extended or held
    bool wasLeased;                      // once at least, where the rules remember holders
    bool holderHadIt;                    // whoever the slot is tied to has had a lease of it
    bool isHeldForGood;                  // by an operator
    bool isKept;                         // for one client: its state at rest is kLeaseStateKept
    os_array<uint8_t> clientIdentifier;  // option 61 of the last REQUEST, then a zero byte; null when it had none
    uint32_t clientIdentifierLength;     // without the zero byte
    os_array<uint8_t> hostName;          // option 12 likewise
    uint32_t hostNameLength;
};
static_assert(sizeof(Ostrel_LeaseInformation) <= 56);  // the flags lie in what would be padding

// A client that an address is kept for.
struct Ostrel_FixedClient {
    uint64_t key;                // of its identifier, or of its MAC, whichever it was given by
    uint32_t slot;               // in `leases`
    os_array<uint8_t> hostName;  // null: none
    uint32_t hostNameLength;
};

struct Ostrel_LeaseIndex;   // what makes lookups cheap; private to the lease table
struct Ostrel_ServerProbe;  // an address that is probed before it is offered; private to Probe.cpp

constexpr uint32_t kMaxServerProbes = 32;  // under way at the same time

struct Ostrel_ServerObj {
    Ostrel_InterfaceObj* iface;        // not owned
    const Ostrel_ServerRules* rules;   // never null
    Ostrel_PacketFilter packetFilter;  // UDP port 67; owned
    Ostrel_IPv4 IPv4Address;           // the server's own: server identifier of every reply
    Ostrel_IPv4 IPv4Subnet;            // network address
    Ostrel_IPv4 IPv4SubnetMask;
    Ostrel_IPv4 IPv4Router;
    std::array<Ostrel_IPv4, 3> IPv4DNSServers;  // 0: empty slot
    uint32_t leaseTime;                         // seconds
    uint32_t offerTimeout;                      // kOfferTimeout, and what there is before it
    uint32_t probeTime;                         // milliseconds that a free address is probed; 0: not at all
    os_array<char> domainName;                  // NUL-terminated, or null
    uint32_t domainNameLength;                  // without the NUL
    Ostrel_IPv4 IPv4RangeStart;
    int32_t maxLeases;                           // addresses in the range
    uint32_t numSlots;                           // in `leases`
    os_records<Ostrel_LeaseInformation> leases;  // of the range, then of fixed leases outside it, each in address order
    os_owner<Ostrel_LeaseIndex> index;
    os_records<Ostrel_FixedClient> fixed;  // by key
    uint32_t numFixed;
    Ostrel_OptionList options;                      // beside those that stand above
    os_records<Ostrel_ServerProbe> probes;          // kMaxServerProbes of them; null when nothing is probed
    uint32_t numProbes;                             // under way, in the order of their ends
    std::array<uint32_t, kNumLeaseStates> slotsIn;  // by their state
    bool endsAreTold;                               // when the time of a lease is over: somebody subscribes to events
    bool endIsAwaited;                              // by the one timeout for all of them
    bool awaitsLeases;                              // that it is given back; it answers nobody until then
    uint64_t leasesEnd;                             // when it waits no longer, in monotonic milliseconds
    Ostrel_ServerCounters counters;
};

// Life. Initialize stores the server in the interface's dhcpServer; on failure nothing is stored and nothing is left:
// kBadParamErr for a configuration that breaks a rule, kOutOfMemoryErr, or the filter's status. Finalize ignores null,
// accepts a half-built server and does not clear the interface's slot.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServerInitialize(Ostrel_InterfaceObj* iface,
                                                        const Ostrel_InterfaceConfig* config);
void Ostrel_DHCPServerFinalize(Ostrel_ServerObj* server);

// The used slot that follows `lease` in index order, or the first one after null; null at the end.
[[nodiscard]] Ostrel_LeaseInformation* Ostrel_DHCPServer_LeaseNextUsed(const Ostrel_ServerObj* server,
                                                                       const Ostrel_LeaseInformation* lease);

// What an operator does to one address of the table, which is published then: "release" ends its lease, or whatever it
// is held for; "hold" ends its lease and keeps it from everybody until it is released. Neither tells the client.
// kBadParamErr for any other word, kNoSuchItemErr for an address that the server does not lease.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServerLeaseAction(Ostrel_ServerObj* server, Ostrel_IPv4 address,
                                                         const char* action);

// Gives a server that awaits its leases some of them, as it would have got them with its configuration. Without `more`
// they are the last, and it begins to serve. kOutOfMemoryErr: some may have been taken, and it goes on waiting.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServerGiveLeases(Ostrel_ServerObj* server, const Ostrel_ServerValues& values,
                                                        bool more);

// "SERVING", or what it does before.
[[nodiscard]] const char* Ostrel_DHCPServerShownState(const Ostrel_ServerObj* server);

// Slots by state, as "interfaceState" shows them. Kept ones, which are free for their client, are with the free ones.
struct Ostrel_ServerGauges {
    uint32_t active;
    uint32_t offered;
    uint32_t held;
    uint32_t free;
};
[[nodiscard]] Ostrel_ServerGauges Ostrel_DHCPServerGaugesOf(const Ostrel_ServerObj* server);

// Somebody has begun to subscribe to "leaseEvents", or nobody does any more: while somebody does, the end of a lease is
// told when its time is over, and not when the next frame comes. Who begins is told of those that are over already and
// that the table still has. Whose leases are still to come tells nothing before they are there.
void Ostrel_DHCPServerAudienceChanged(Ostrel_ServerObj* server);

// Every ARP frame of the interface: one from an address that is probed says that somebody has it. The verdict: what the
// frame is to the server.
[[nodiscard]] Ostrel_Verdict Ostrel_DHCPServerARPPacketHandler(Ostrel_ServerObj* server,
                                                               const Ostrel_EthernetHeader* frame,
                                                               const Ostrel_ARPHeader* arpHeader,
                                                               const Ostrel_ARPAddresses* addresses);

// The receive callback of port 67.
void Ostrel_BOOTPServerPacketFilterHandler(void* iface, const uint8_t* sourceAddress, std::span<const uint8_t> frame);
