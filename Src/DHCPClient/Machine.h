// The client from inside: its timeouts and messages side by side, its steps, and what they keep. Private to the client.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPShared.h"
#include "Ostrel/Timeout.h"

// The handlers of the timeouts, called with client and interface.
void Ostrel_DHCPClientTimeout_Init(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Selecting(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Requesting(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Bound(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Renewing(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Rebinding(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Expiry(void* client, void* iface);

// Rows of kClientTimeouts.
enum Ostrel_ClientTimeout : uint8_t {
    kClientTimeoutInit,
    kClientTimeoutSelecting,
    kClientTimeoutRenewing,
    kClientTimeoutRebinding,
    kClientTimeoutExpiry,
    kClientTimeoutArping,
    kClientTimeoutRequesting,
};

// Milliseconds. The delay of INIT is drawn between its bounds, and both are doubled each time nobody offers anything.
// A REQUEST is repeated after 4, 8, 16 and 32 s (RFC 2131 section 4.1); the last wait is the shortest again. The lease
// says when renewing, rebinding and expiry begin; no retransmission follows the one before sooner than in a minute
// (section 4.4.5).
inline constexpr std::array<Ostrel_TimeoutKind, 7> kClientTimeouts{{
    {Ostrel_DHCPClientTimeout_Init, "org.ostrel.dhcp.client.init", false, 0, 1000},
    {Ostrel_DHCPClientTimeout_Selecting, "org.ostrel.dhcp.client.selecting", false, 3000, 3000},
    {Ostrel_DHCPClientTimeout_Renewing, "org.ostrel.dhcp.client.renewing", false, 60'000, 0},
    {Ostrel_DHCPClientTimeout_Rebinding, "org.ostrel.dhcp.client.rebinding", false, 60'000, 0},
    {Ostrel_DHCPClientTimeout_Expiry, "org.ostrel.dhcp.client.expiry", true, 0, 0},
    {Ostrel_DHCPClientTimeout_Bound, "org.ostrel.dhcp.client.arping", false, kARPCheckSeconds * 1000,
     kARPCheckSeconds * 1000},
    {Ostrel_DHCPClientTimeout_Requesting, "org.ostrel.dhcp.client.requesting", false, 4000, 32'000},
}};

// Arms a timeout; an earlier one of its kind stays.
inline void Ostrel_DHCPClientArm(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout, uint64_t milliseconds) {
    Ostrel_ArmTimeout(client->iface, client, kClientTimeouts[timeout], milliseconds);
}
inline void Ostrel_DHCPClientCancelAllTimeouts(Ostrel_ClientObj* client) {
    Ostrel_DisarmTimeouts(client->iface, client, kClientTimeouts);
}

[[nodiscard]] inline bool Ostrel_DHCPClientIsStatic(const Ostrel_ClientObj* client) {
    return (client->configMode & kOstrelConfigStatic) != 0;
}

// The object's parts. The first two leave what was there in place when memory is out. The identifier becomes `type`
// and the bytes; kTooLongErr when that does not fit option 61.
[[nodiscard]] Ostrel_Status Ostrel_DHCPSetupClientIdentifier(Ostrel_ClientObj* client, uint8_t type,
                                                             std::span<const uint8_t> identifier);
[[nodiscard]] Ostrel_Status Ostrel_DHCPAddRequestedOption(Ostrel_ClientObj* client, uint8_t code);
void Ostrel_DHCPClientFreeLeaseOffers(Ostrel_ClientObj* client);
void Ostrel_DHCPClientFreeLeaseInfo(Ostrel_ClientObj* client);
// Drops the lease; a static one stays, and a manual address stays.
void Ostrel_DHCPClientResetLeaseInfo(Ostrel_ClientObj* client);

// Steps of the state machine that others than its own timeouts take. The first two never fail.
Ostrel_Status Ostrel_DHCPClientStateTransition_Init(Ostrel_ClientObj* client);
Ostrel_Status Ostrel_DHCPClientStateTransition_InitReboot(Ostrel_ClientObj* client);
// Takes the lease record as the new lease and starts its ARP check.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientStateTransition_Bound(Ostrel_ClientObj* client);

// What a message is made of, beside what every message of the client carries. As it stands: broadcast, from nobody.
struct Ostrel_ClientMessage {
    uint8_t type;
    const Ostrel_MAC& toMAC = kBroadcastMAC;
    Ostrel_IPv4 source = kAnyIPv4;
    Ostrel_IPv4 destination = kBroadcastIPv4;
    Ostrel_IPv4 ciaddr = kAnyIPv4;
    Ostrel_IPv4 requested = kAnyIPv4;  // option 50, left out when 0
    Ostrel_IPv4 server = kAnyIPv4;     // option 54, likewise
};

// The five messages; the second needs an offer, the others of a lease its record.
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientDiscover();
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientRequestOf(const Ostrel_LeaseOffer& offer);
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientRenewalOf(const Ostrel_ClientLease& lease);
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientRebindingOf(const Ostrel_ClientLease& lease);
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientDeclineOf(const Ostrel_ClientLease& lease);

// Builds a message in the interface's txPayload and sends it; the second is the same for one spelt out.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientSend(Ostrel_ClientObj* client, const Ostrel_ClientMessage& message);
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientSend_BOOTPRequest(Ostrel_ClientObj* client,
                                                               const Ostrel_MAC& destinationMAC, Ostrel_IPv4 sourceIPv4,
                                                               Ostrel_IPv4 destinationIPv4, uint8_t messageType,
                                                               Ostrel_IPv4 clientIPv4, Ostrel_IPv4 requestedIPv4,
                                                               Ostrel_IPv4 serverIdentifier);

// The breaker of storms, asked where a DISCOVER or DECLINE is about to be sent: 0 when it may go out, which then counts
// as sent, or the milliseconds until it may. Rest tells the latter without counting; 0 while nothing is held back.
[[nodiscard]] uint32_t Ostrel_DHCPClientStormAsk(const Ostrel_ClientObj* client, Ostrel_StormBreaker& breaker,
                                                 const char* message);
[[nodiscard]] uint32_t Ostrel_DHCPClientStormRest(const Ostrel_StormBreaker& breaker);

// The receive callback of port 68.
void Ostrel_BOOTPClientPacketFilterHandler(void* iface, const uint8_t* sourceAddress, std::span<const uint8_t> frame);
