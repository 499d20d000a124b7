// The DHCP client of one interface (RFC 2131 section 4.4): its object, its states and what it is told.
//
// It learns; it configures nothing. What it holds is published to the bus once the address has been checked with ARP.
#pragma once

#include <array>
#include <cstdint>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Address.h"
#include "Ostrel/Counters.h"
#include "Ostrel/FrameBudget.h"
#include "Ostrel/Interface.h"
#include "Ostrel/PacketFilter.h"
#include "Ostrel/Reason.h"
#include "Ostrel/Status.h"
#include "Ostrel/Verdict.h"

#include "os_memory.h"

// Client states (RFC 2131 section 4.4). BOUND begins with the DHCPACK, but its lease counts, and is published, only
// when the ARP check of the address has ended.
enum Ostrel_ClientState : uint32_t {
    kClientStateUnknown = 0,  // a static client that no lease action has touched
    kClientStateInit = 1,
    kClientStateRebooting = 2,  // an address that the client had is asked for, or a lease that it holds confirmed
    kClientStateSelecting = 3,
    kClientStateRebinding = 4,
    kClientStateRequesting = 5,
    kClientStateRenewing = 6,
    kClientStateBound = 7,
    kClientStateInitReboot = 8,  // idle, waiting for a lease action
};

// "INIT", "INIT-REBOOT" and so on; "UNKNOWN" for any other value.
[[nodiscard]] const char* Ostrel_ClientStateString(Ostrel_ClientState state);

// How long the address of a new lease is checked with ARP before the lease counts and is published, by the plain rules
// and where no caller says otherwise.
constexpr uint32_t kARPCheckSeconds = 2;
static_assert(kPlainRules.client.arpCheck == kARPCheckSeconds * 1000);

struct Ostrel_LeaseOffer {
    Ostrel_IPv4 address;
    Ostrel_IPv4 serverIdentifier;
    os_owner<Ostrel_LeaseOffer> next;
};

// The lease held or being acquired; all zero when there is none. Times in seconds.
struct Ostrel_ClientLease {
    Ostrel_MAC serverMAC;           // Ethernet source of the accepted DHCPACK
    Ostrel_IPv4 serverIPv4Address;  // IPv4 source of it
    Ostrel_IPv4 IPv4Address;        // its yiaddr, or the configured address
    Ostrel_IPv4 IPv4SubnetMask;
    Ostrel_IPv4 serverIdentifier;
    os_array<Ostrel_IPv4> IPv4Routers;
    int32_t numIPv4Routers;
    os_array<Ostrel_IPv4> IPv4DNSServers;
    int32_t numIPv4DNSServers;
    uint32_t renewalTime;       // T1, from the end of the ARP check or from the REQUEST, as the rules say
    uint32_t rebindingTime;     // T2
    uint32_t leaseTime;         // kInfiniteLease: for ever
    uint32_t leaseAcquired;     // monotonic clock when the DHCPACK was taken
    os_array<char> domainName;  // NUL-terminated; any bytes
    uint32_t domainNameLen;     // without the NUL
    uint32_t renewRetryTime;    // of the RENEWING period, what retransmissions have not used yet; starts as T2 - T1
    uint32_t rebindRetryTime;   // likewise for REBINDING; starts as lease time - T2
    Ostrel_OptionList options;  // what the caller asked for beside the usual, as it came
};

// What keeps a refused or contested client from asking at wire speed: of any ten seconds the first ten messages of a
// kind go out as they would, further ones at one a second until ten seconds have had less.
struct Ostrel_StormBreaker {
    std::array<uint64_t, 10> sent;  // a ring of the moments, in milliseconds of the monotonic clock
    uint32_t count;                 // sent so far
    bool holds;                     // whether further ones are held back
};

// What "interfaceState" tells of a client beside its state and lease. Moments are in milliseconds of the monotonic
// clock, 0 where there is none; counts and the last four are of the acquisition under way and begin anew with a lease.
struct Ostrel_ClientStory {
    uint64_t since;        // it is in its state
    Ostrel_Reason reason;  // why it came to be in it, or, where the address went out of use in it, why that was
    uint64_t nextTry;      // when it sends next of its own accord, where it waits for an answer or to begin
    uint64_t renews;       // T1, T2 and the end of a lease that counts, as far as they are still to come
    uint64_t rebinds;
    uint64_t expires;
    uint32_t tries;               // DISCOVERs that nobody answered, or REQUESTs of this state
    Ostrel_IPv4 server;           // who offered, granted or refused last; 0: nobody
    uint32_t refusals;            // DHCPNAKs
    Ostrel_IPv4 conflictAddress;  // the one that another host had; 0: none
    Ostrel_MAC conflictMAC;       // that host's
};

// Moments are in milliseconds of the monotonic clock.
struct Ostrel_ClientObj {
    Ostrel_InterfaceObj* iface;        // not owned
    const Ostrel_ClientRules* rules;   // never null
    Ostrel_PacketFilter packetFilter;  // UDP port 68; owned
    Ostrel_ClientState state;
    uint32_t transactionID;     // its bytes in memory are the xid on the wire
    uint64_t transactionStart;  // from which secs counts
    uint16_t secs;              // of the latest DISCOVER or REQUEST
    uint16_t maxMessageSize;    // bytes; option 57
    Ostrel_MAC macAddr;         // the interface's, as the client last saw it
    bool identifierIsAddress;   // the identifier is made of macAddr
    bool broadcast;             // replies are asked for by broadcast
    bool linkIsLost;
    bool isInDoubt;                      // the lease, since the link was lost, until confirmed; or its new address
    bool isChecking;                     // the address, with ARP; in BOUND
    bool isToldToExtend;                 // the lease, by a caller, and has not asked yet
    uint32_t configMode;                 // kOstrelConfig bits
    os_array<uint8_t> clientIdentifier;  // option 61: a type byte, then the identifier
    uint32_t clientIdentifierLen;        // type byte included
    uint32_t numRequestedOptions;
    os_array<uint8_t> requestedOptions;  // option 55: one code a byte
    os_array<uint8_t> wantedOptions;     // the caller's of them, kept with the lease
    uint32_t numWantedOptions;
    uint32_t sentOptionsLen;        // bytes
    os_array<uint8_t> sentOptions;  // of the caller's, for DISCOVERs and REQUESTs, as they stand on the wire
    uint32_t arpCheck;              // milliseconds; 0: addresses are not checked
    uint32_t selectingTime;         // milliseconds that an offer is waited for after the next DISCOVER
    uint32_t initDelayMin;          // seconds; bounds of the random delay before a DISCOVER
    uint32_t initDelayMax;
    os_owner<Ostrel_LeaseOffer> leaseOffers;  // in the order of arrival
    Ostrel_ClientLease lease;
    uint64_t requestSent;         // when the lease was asked for
    uint64_t heldSince;           // when it began to count; meaningless unless the interface's leaseIsHeld
    uint32_t requestRetries;      // retransmissions of the REQUEST in REQUESTING or REBOOTING so far
    Ostrel_IPv4 rebootAddress;    // asked for in REBOOTING
    uint32_t setbacks;            // refusals and conflicts since a lease lasted
    uint32_t probesLeft;          // of the check under way
    uint32_t announcementsLeft;   // when it is over
    uint32_t defences;            // of the lease's address so far
    uint64_t lastDefence;         // meaningless without one
    Ostrel_IPv4 declinedAddress;  // of the DECLINE that waits to be sent
    Ostrel_IPv4 declinedServer;   // likewise
    Ostrel_FrameRing frames;
    Ostrel_StormBreaker discovers;
    Ostrel_StormBreaker declines;
    std::array<uint64_t, 8> due;  // when its timeouts come, as far as the story tells of them; 0: not armed
    uint64_t asleep;              // milliseconds that the device had been suspended when that was last looked at
    Ostrel_ClientStory story;
    Ostrel_ClientCounters counters;
};

// Life. Initialize stores the object in the interface's dhcpClient; on failure nothing is stored and nothing is left.
// In static mode the configured lease is published on the next pass of the loop; otherwise the client idles in
// INIT-REBOOT until a lease action. Finalize ignores null and does not clear the interface's slot.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientInitialize(Ostrel_InterfaceObj* iface,
                                                        const Ostrel_InterfaceConfig* config);
void Ostrel_DHCPClientFinalize(Ostrel_ClientObj* client);

// What an action may be given beside its word.
struct Ostrel_ActionValues {
    Ostrel_IPv4 address = kAnyIPv4;  // of "init": the address that the client had, asked for first; 0: none
    bool release = false;            // of "halt": the server is told that the lease is not needed any more
};

// "init" drops what the client holds and acquires anew; so do "renew" and "rebind", unless the rules have them extend
// the lease that is held. "halt" drops it and idles. kBadParamErr for any other word, kGenericErr without a client.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientLeaseAction(Ostrel_InterfaceObj* iface, const char* action,
                                                         const Ostrel_ActionValues& values = {});

// Every ARP frame of the interface: one of another host that has the leased address takes the lease away. The rules say
// which frames count, and whether the lease is defended first. The verdict: what the frame is to the client.
[[nodiscard]] Ostrel_Verdict Ostrel_DHCPClientARPPacketHandler(Ostrel_ClientObj* client,
                                                               const Ostrel_EthernetHeader* frame,
                                                               const Ostrel_ARPHeader* arpHeader,
                                                               const Ostrel_ARPAddresses* addresses);

// The state as "interfaceState" shows it, "STATIC" for a client that talks no DHCP; the address that the client has,
// has checked or asks for, 0 where there is none; and whether that may be used: it is checked, its lease has not ended,
// and, since the link was lost, has been confirmed. A device that was suspended has not lost its link: what it held it
// still holds, until a server refuses it.
[[nodiscard]] const char* Ostrel_DHCPClientShownState(const Ostrel_ClientObj* client);
[[nodiscard]] Ostrel_IPv4 Ostrel_DHCPClientShownAddress(const Ostrel_ClientObj* client);
[[nodiscard]] bool Ostrel_DHCPClientHolds(const Ostrel_ClientObj* client);

// Tells the server that the lease is not needed any more, where there is one. The client stays as it is.
void Ostrel_DHCPClientRelease(Ostrel_ClientObj* client);

// The interface has lost its link, or has it back; and the device was suspended and is awake again.
void Ostrel_DHCPClientLinkChanged(Ostrel_ClientObj* client, bool isRunning);
void Ostrel_DHCPClientWokeUp(Ostrel_ClientObj* client);
