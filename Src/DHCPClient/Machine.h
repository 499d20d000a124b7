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
void Ostrel_DHCPClientTimeout_Rebooting(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Probing(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Announcing(void* client, void* iface);
void Ostrel_DHCPClientTimeout_Declining(void* client, void* iface);

// Rows of kClientTimeouts.
enum Ostrel_ClientTimeout : uint8_t {
    kClientTimeoutInit,
    kClientTimeoutSelecting,
    kClientTimeoutRenewing,
    kClientTimeoutRebinding,
    kClientTimeoutExpiry,
    kClientTimeoutArping,
    kClientTimeoutRequesting,
    kClientTimeoutRebooting,
    kClientTimeoutProbing,
    kClientTimeoutAnnouncing,
    kClientTimeoutDeclining,
    kClientTimeoutRenewingAlarm,  // of rules that count T1 and T2 while the device sleeps
    kClientTimeoutRebindingAlarm,
};

// Milliseconds. The delay of INIT is drawn between its bounds, and both are doubled each time nobody offers anything. A
// REQUEST is repeated after 4, 8, 16 and 32 s (RFC 2131 section 4.1); the last wait is the shortest again. The lease
// says when renewing, rebinding and expiry begin; no retransmission follows the one before sooner than in a minute
// (section 4.4.5). Announcements are ANNOUNCE_INTERVAL apart (RFC 5227 section 1.1). What has no bounds here has them
// in the rules.
inline constexpr std::array<Ostrel_TimeoutKind, 13> kClientTimeouts{{
    {Ostrel_DHCPClientTimeout_Init, "org.ostrel.dhcp.client.init", false, 0, 1000},
    {Ostrel_DHCPClientTimeout_Selecting, "org.ostrel.dhcp.client.selecting", false, 0, 0},
    {Ostrel_DHCPClientTimeout_Renewing, "org.ostrel.dhcp.client.renewing", false, 60'000, 0},
    {Ostrel_DHCPClientTimeout_Rebinding, "org.ostrel.dhcp.client.rebinding", false, 60'000, 0},
    {Ostrel_DHCPClientTimeout_Expiry, "org.ostrel.dhcp.client.expiry", true, 0, 0},
    {Ostrel_DHCPClientTimeout_Bound, "org.ostrel.dhcp.client.arping", false, 0, 0},
    {Ostrel_DHCPClientTimeout_Requesting, "org.ostrel.dhcp.client.requesting", false, 4000, 32'000},
    {Ostrel_DHCPClientTimeout_Rebooting, "org.ostrel.dhcp.client.rebooting", false, 4000, 32'000},
    {Ostrel_DHCPClientTimeout_Probing, "org.ostrel.dhcp.client.probing", false, 0, 0},
    {Ostrel_DHCPClientTimeout_Announcing, "org.ostrel.dhcp.client.announcing", false, 2000, 2000},
    {Ostrel_DHCPClientTimeout_Declining, "org.ostrel.dhcp.client.declining", false, 0, 0},
    {Ostrel_DHCPClientTimeout_Renewing, "org.ostrel.dhcp.client.renewing", true, 60'000, 0},
    {Ostrel_DHCPClientTimeout_Rebinding, "org.ostrel.dhcp.client.rebinding", true, 60'000, 0},
}};

// A timeout's row by the client's rules.
[[nodiscard]] const Ostrel_TimeoutKind& Ostrel_DHCPClientKindOf(const Ostrel_ClientObj* client,
                                                                Ostrel_ClientTimeout timeout);

// Arms a timeout; an earlier one of its kind stays. PutOff cancels all but the end of the lease.
void Ostrel_DHCPClientArm(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout, uint64_t milliseconds);
void Ostrel_DHCPClientRearm(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout, uint64_t milliseconds);
void Ostrel_DHCPClientDisarm(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout);
void Ostrel_DHCPClientCancelAllTimeouts(Ostrel_ClientObj* client);
void Ostrel_DHCPClientPutOff(Ostrel_ClientObj* client);

[[nodiscard]] inline bool Ostrel_DHCPClientIsStatic(const Ostrel_ClientObj* client) {
    return (client->configMode & kOstrelConfigStatic) != 0;
}

inline constexpr uint32_t kRequestTries = 5;  // in REQUESTING, before the client starts over
inline constexpr uint32_t kConfirmTries = 4;  // in REBOOTING, before a lease is kept without an answer

// The object's parts. The first two leave what was there in place when memory is out. The identifier becomes `type`
// and the bytes; kTooLongErr when that does not fit option 61.
[[nodiscard]] Ostrel_Status Ostrel_DHCPSetupClientIdentifier(Ostrel_ClientObj* client, uint8_t type,
                                                             std::span<const uint8_t> identifier);
[[nodiscard]] Ostrel_Status Ostrel_DHCPAddRequestedOption(Ostrel_ClientObj* client, uint8_t code);
void Ostrel_DHCPClientFreeLeaseOffers(Ostrel_ClientObj* client);
void Ostrel_DHCPClientFreeLeaseInfo(Ostrel_ClientObj* client);
// Drops the lease; a static one stays, and a manual address stays.
void Ostrel_DHCPClientResetLeaseInfo(Ostrel_ClientObj* client);

// The one door to a new state, and what a timeout's handler begins with. The state that it is in already, entered for
// want of an answer, is only gone on with: it keeps its time and its reason.
void Ostrel_DHCPClientEnterState(Ostrel_ClientObj* client, Ostrel_ClientState state, Ostrel_Reason reason);
[[nodiscard]] Ostrel_ClientObj* Ostrel_DHCPClientEnterHandler(void* client, Ostrel_ClientTimeout timeout,
                                                              const char* handler);

// Steps of the state machine that others than its own timeouts take. The first two never fail. How long the client
// pauses in INIT is up to the reason and the rules.
Ostrel_Status Ostrel_DHCPClientStateTransition_Init(Ostrel_ClientObj* client, Ostrel_Reason reason);
Ostrel_Status Ostrel_DHCPClientStateTransition_InitReboot(Ostrel_ClientObj* client, Ostrel_Reason reason);
// Takes the lease record as the new lease and starts its ARP check.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientStateTransition_Bound(Ostrel_ClientObj* client);
// Asks for `address`, after `milliseconds`. A lease that is held stays, and its end goes on counting.
void Ostrel_DHCPClientStateTransition_Rebooting(Ostrel_ClientObj* client, Ostrel_IPv4 address, uint64_t milliseconds,
                                                Ostrel_Reason reason);

// What the lease is from now on to the interface and its other roles: held, its address checked, or not. Saying that it
// is held puts an end to doubts.
void Ostrel_DHCPClientSetHeld(Ostrel_ClientObj* client, bool isHeld);
// The lease stays, but nobody may use its address until it is confirmed.
void Ostrel_DHCPClientDoubt(Ostrel_ClientObj* client, Ostrel_Reason reason);

// Story.cpp: what "interfaceState" tells. A conflict is posted with what follows from it; where nothing does, whoever
// tells it has it posted if it is news. Times looks at what is armed,
// which is done wherever that changes; WasAsleep says that the clock of the moments has stood still.
void Ostrel_DHCPClientTellSent(Ostrel_ClientObj* client, uint8_t messageType);
bool Ostrel_DHCPClientTellConflict(Ostrel_ClientObj* client, const Ostrel_MAC& mac);
void Ostrel_DHCPClientTellTimes(Ostrel_ClientObj* client);
void Ostrel_DHCPClientWasAsleep(Ostrel_ClientObj* client);

// Begins the ARP check of the lease's address, of `milliseconds`; 0: none.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientBeginCheck(Ostrel_ClientObj* client, uint32_t milliseconds);

inline constexpr uint64_t kLasting = 60'000;  // milliseconds: a lease that was held for so long has lasted

// Waits.cpp: what is left to chance, and how long the client waits, in milliseconds.
[[nodiscard]] uint32_t Ostrel_DHCPClientDraw(const Ostrel_ClientObj* client, uint32_t minimum, uint32_t maximum);
[[nodiscard]] uint32_t Ostrel_DHCPClientNewTransactionID(const Ostrel_ClientObj* client);
[[nodiscard]] uint32_t Ostrel_DHCPClientNextTransactionID(const Ostrel_ClientObj* client);
[[nodiscard]] uint64_t Ostrel_DHCPClientWait(const Ostrel_ClientObj* client, uint64_t milliseconds);
[[nodiscard]] uint64_t Ostrel_DHCPClientTakePause(Ostrel_ClientObj* client, Ostrel_Reason reason);
[[nodiscard]] uint64_t Ostrel_DHCPClientTakeSelectingWait(Ostrel_ClientObj* client);
[[nodiscard]] uint64_t Ostrel_DHCPClientRequestingWait(const Ostrel_ClientObj* client);
// Of a period that has `remaining` seconds left: half of that, which is then used up, but not less than the row's
// shortest.
[[nodiscard]] uint64_t Ostrel_DHCPClientTakeRetryWait(const Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout,
                                                      uint32_t& remaining);
// Arms T1, T2 and the end of a lease that has just begun to count.
void Ostrel_DHCPClientArmLease(Ostrel_ClientObj* client);
// The end alone.
void Ostrel_DHCPClientArmEnd(Ostrel_ClientObj* client);

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

// The messages; the second needs an offer, those after it the lease's record, the last two what they name.
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientDiscover();
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientRequestOf(const Ostrel_LeaseOffer& offer);
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientRenewalOf(const Ostrel_ClientObj* client);
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientRebindingOf(const Ostrel_ClientObj* client);
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientReleaseOf(const Ostrel_ClientLease& lease);
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientDeclineOf(const Ostrel_ClientObj* client);
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientDeclineOf(Ostrel_IPv4 address, Ostrel_IPv4 server);
[[nodiscard]] Ostrel_ClientMessage Ostrel_DHCPClientRebootOf(Ostrel_IPv4 address);

// Builds a message in the interface's txPayload and sends it, unless that were more frames than the rules allow: then
// it counts as lost on the wire. A RELEASE is a caller's wish, and always sent.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientSend(Ostrel_ClientObj* client, const Ostrel_ClientMessage& message);
// Likewise an ARP request for the lease's address: a probe from 0.0.0.0, an announcement from the address itself.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientAskARP(Ostrel_ClientObj* client, Ostrel_IPv4 sender);

// The options that a caller has sent with each DISCOVER and REQUEST; kTooLongErr when they don't fit a frame.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientKeepSentOptions(Ostrel_ClientObj* client,
                                                             const Ostrel_OptionList& options);

// Who sent a DHCPNAK, by option 54, which it should have (RFC 2131 table 3), or else by its IPv4 source.
[[nodiscard]] Ostrel_IPv4 Ostrel_DHCPClientRefuserOf(const Ostrel_PreprocessedPacket& packet);

// A DHCPACK as a lease; on failure the record is of no use, and `fault` says what is wrong. FaultOf: what that is where
// the option `code` could not be read.
[[nodiscard]] Ostrel_Status Ostrel_DHCPClientReadLease(const Ostrel_ClientObj* client,
                                                       const Ostrel_PreprocessedPacket& packet,
                                                       Ostrel_ClientLease& lease, Ostrel_Verdict& fault);
[[nodiscard]] Ostrel_Verdict Ostrel_DHCPClientFaultOf(const Ostrel_OptionIndex& options, uint8_t code,
                                                      Ostrel_Status status);

// How many frames the rules let out in a second and in a minute. Take counts one that is about to be sent, or says that
// there is no room for it; Rest is the milliseconds until there is room for so many more, ExchangeRest for those of a
// whole exchange, with its ARP check and what may follow.
[[nodiscard]] bool Ostrel_DHCPClientTakeFrame(Ostrel_ClientObj* client);
[[nodiscard]] uint32_t Ostrel_DHCPClientFrameRest(const Ostrel_ClientObj* client, uint32_t number);
[[nodiscard]] uint32_t Ostrel_DHCPClientExchangeRest(const Ostrel_ClientObj* client);
// Whether a timeout's frame has no room yet; the timeout then comes again when it has.
[[nodiscard]] bool Ostrel_DHCPClientHasToWait(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout);

// The breaker of storms, asked where a DISCOVER or DECLINE is about to be sent: 0 when it may go out, which then counts
// as sent, or the milliseconds until it may. Rest tells the latter without counting; 0 while nothing is held back.
[[nodiscard]] uint32_t Ostrel_DHCPClientStormAsk(const Ostrel_ClientObj* client, Ostrel_StormBreaker& breaker,
                                                 const char* message);
[[nodiscard]] uint32_t Ostrel_DHCPClientStormRest(const Ostrel_StormBreaker& breaker);

// The receive callback of port 68.
void Ostrel_BOOTPClientPacketFilterHandler(void* iface, const uint8_t* sourceAddress, std::span<const uint8_t> frame);
