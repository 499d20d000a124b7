// The DHCP client of one interface (RFC 2131 section 4.4): its object, states, timeouts and messages.
//
// It learns; it configures nothing. What it holds is published to the bus once the address has been checked with ARP.
#pragma once

#include <cstdint>
#include <span>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Address.h"
#include "Ostrel/DHCPShared.h"
#include "Ostrel/Interface.h"
#include "Ostrel/PacketFilter.h"
#include "Ostrel/Status.h"

#include "os_memory.h"

// Client states, as Ostrel_ClientStateString names them. 0 is a static client that no lease action has touched.
constexpr uint32_t kClientStateInit = 1;
constexpr uint32_t kClientStateRebooting = 2;  // never entered
constexpr uint32_t kClientStateSelecting = 3;
constexpr uint32_t kClientStateRebinding = 4;
constexpr uint32_t kClientStateRequesting = 5;
constexpr uint32_t kClientStateRenewing = 6;
constexpr uint32_t kClientStateBound = 7;
constexpr uint32_t kClientStateInitReboot = 8;  // idle, waiting for a lease action

// How long the address of a new lease is checked with ARP before the lease counts and is published.
constexpr uint32_t kARPCheckSeconds = 2;

struct Ostrel_LeaseOffer {
    Ostrel_IPv4 address;
    Ostrel_IPv4 serverIdentifier;
    Ostrel_LeaseOffer* next;
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
    uint32_t renewalTime;       // T1, from the end of the ARP check
    uint32_t rebindingTime;     // T2
    uint32_t leaseTime;         // kInfiniteLease: for ever
    uint32_t leaseAcquired;     // monotonic clock when the DHCPACK was taken
    os_array<char> domainName;  // NUL-terminated; any bytes
    uint32_t domainNameLen;     // without the NUL
    uint32_t renewRetryTime;    // of the RENEWING period, what retransmissions have not used yet; starts as T2 - T1
    uint32_t rebindRetryTime;   // likewise for REBINDING; starts as lease time - T2
};

struct Ostrel_ClientObj {
    Ostrel_InterfaceObj* iface;        // not owned
    Ostrel_PacketFilter packetFilter;  // UDP port 68; owned
    uint32_t state;
    uint32_t transactionID;              // its bytes in memory are the xid on the wire
    uint16_t maxMessageSize;             // bytes; option 57
    os_array<uint8_t> clientIdentifier;  // option 61: a type byte, then the identifier
    uint32_t clientIdentifierLen;        // type byte included
    os_array<uint8_t> requestedOptions;  // option 55: one code a byte
    uint32_t numRequestedOptions;
    uint32_t selectingTime;  // seconds that offers are collected after a DISCOVER
    uint32_t initDelayMin;   // seconds; bounds of the random delay before a DISCOVER
    uint32_t initDelayMax;
    Ostrel_LeaseOffer* leaseOffers;  // in the order of arrival; owned
    uint32_t configMode;             // kOstrelConfig bits
    Ostrel_ClientLease lease;
    uint32_t requestRetries;  // retransmissions of the REQUEST in REQUESTING so far
};

// Life. Initialize stores the object in the interface's dhcpClient; on failure nothing is stored and nothing is left.
// In static mode the configured lease is published on the next pass of the loop; otherwise the client idles in
// INIT-REBOOT until a lease action. Finalize ignores null and does not clear the interface's slot.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientInitialize(Ostrel_InterfaceObj* iface,
                                                        const Ostrel_InterfaceConfig* config);
void Ostrel_DHCPClientFinalize(Ostrel_ClientObj* client);

// "init", "renew" and "rebind" drop what the client holds and acquire anew; "halt" drops it and idles. kBadParamErr for
// any other word, kGenericErr without a client.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientLeaseAction(Ostrel_InterfaceObj* iface, const char* action);

// The object's parts. The first two leave what was there in place when memory is out. The identifier becomes `type`
// and the bytes; kTooLongErr when that does not fit option 61.
[[nodiscard]] Ostrel_Status Ostrel_DHCPSetupClientIdentifier(Ostrel_ClientObj* client, uint8_t type,
                                                             std::span<const uint8_t> identifier);
[[nodiscard]] Ostrel_Status Ostrel_DHCPAddRequestedOption(Ostrel_ClientObj* client, uint8_t code);
void Ostrel_DHCPClientFreeLeaseOffers(Ostrel_ClientObj* client);
void Ostrel_DHCPClientFreeLeaseInfo(Ostrel_ClientObj* client);
// Drops the lease; a static one stays, and a manual address stays.
void Ostrel_DHCPClientResetLeaseInfo(Ostrel_ClientObj* client);

// Steps of the state machine, and the handlers of its timeouts (called with client and interface).
Ostrel_Status Ostrel_DHCPClientStateTransition_Init(Ostrel_ClientObj* client);
Ostrel_Status Ostrel_DHCPClientStateTransition_InitReboot(Ostrel_ClientObj* client);
// Takes the lease record as the new lease and starts its ARP check.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientStateTransition_Bound(Ostrel_ClientObj* client);
void Ostrel_DHCPClientCancelAllTimeouts(Ostrel_ClientObj* client);
void Ostrel_DHCPClientTimeout_Init(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Selecting(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Requesting(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Bound(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Renewing(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Rebinding(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Expiry(void* client, void* iface);

// An offer came: the selecting period ends on the next pass of the loop, after the offers that have already arrived.
void Ostrel_DHCPClientEndSelecting(Ostrel_ClientObj* client);

// Builds a message in the interface's txPayload and sends it. An address of 0 leaves option 50 or 54 out.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientSend_BOOTPRequest(Ostrel_ClientObj* client,
                                                               const Ostrel_MAC& destinationMAC, Ostrel_IPv4 sourceIPv4,
                                                               Ostrel_IPv4 destinationIPv4, uint8_t messageType,
                                                               Ostrel_IPv4 clientIPv4, Ostrel_IPv4 requestedIPv4,
                                                               Ostrel_IPv4 serverIdentifier);

// The delay to the next retransmission: half of what remains, but not below `minimum`; what then remains is stored.
[[nodiscard]] uint32_t Ostrel_DHCPClientUpdateRequestRetryTime(uint32_t remaining, uint32_t minimum,
                                                               uint32_t* remainingOut);

// From the network: the receive callback of port 68, and the ARP frames of the interface.
void Ostrel_BOOTPClientPacketFilterHandler(void* iface, const uint8_t* sourceAddress, std::span<const uint8_t> frame);
void Ostrel_DHCPClientARPPacketHandler(Ostrel_ClientObj* client, const Ostrel_EthernetHeader* frame,
                                       const Ostrel_ARPHeader* arpHeader, const Ostrel_ARPAddresses* addresses);
