// The client's states and what makes it leave them (RFC 2131 section 4.4, figure 5).
//
//     INIT-REBOOT --lease action--> INIT --> SELECTING --> REQUESTING --DHCPACK--> BOUND --T1--> RENEWING
//                                                                             BOUND, RENEWING --T2--> REBINDING
//     RENEWING, REBINDING --DHCPACK--> BOUND        any --DHCPNAK, conflict, end of the lease--> INIT
//
// What is armed in each state, and what its timeout does:
//
//     INIT-REBOOT   -
//     INIT          init        DISCOVER, to SELECTING; a static client: arping; in a storm: init, a little later
//     SELECTING     selecting   offers: REQUEST, to REQUESTING; none: longer waits, to INIT
//     REQUESTING    requesting  the same REQUEST again; after the fifth to INIT
//     BOUND         arping      the lease counts: it is published, and the next three are armed
//                   renewing    REQUEST, to RENEWING
//                   rebinding   REQUEST, to REBINDING
//                   expiry      to INIT
//     RENEWING      renewing (REQUEST again), rebinding, expiry
//     REBINDING     rebinding (REQUEST again), expiry
//     0, static     arping      the configuration is published
//
// And what else each event does; where nothing is said, nothing:
//
//     lease action "init", "renew", "rebind"   any state, to INIT
//     lease action "halt"                      any state, to INIT-REBOOT
//     DHCPOFFER                                SELECTING: it is stored, and the selecting period ends
//     DHCPACK                                  REQUESTING, RENEWING, REBINDING: to BOUND, under the ARP check; a
//                                              malformed one: stays in REQUESTING, else to INIT
//     DHCPNAK                                  any state, to INIT
//     ARP reply of another for the lease       any state with an address: DECLINE, to INIT
//
// Entering INIT, INIT-REBOOT or BOUND cancels every timeout, entering REBINDING the renewing one.
// The lease's timers start when the ARP check has ended, and that is also the one moment at which it is published. A
// send that comes back short ends its step where it stands: the timeout that would have followed is not armed, and the
// next timer, lease action or reply moves the client on.
#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"
#include "Ostrel/System.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"

namespace {

constexpr uint32_t kInitDelayCap = 299;  // seconds; an upper bound above it is no longer doubled
constexpr uint32_t kRequestTries = 5;    // in REQUESTING, before the client starts over

static_assert(std::string_view(kClientTimeouts[kClientTimeoutExpiry].name).starts_with(kServiceName));

// The one door to a new state.
void EnterState(Ostrel_ClientObj* client, Ostrel_ClientState state) {
    DebugPrintF(kDebugLevelInfo, "[%s (%d)] DHCP Client state transition %s -> %s.\n", client->iface->ifname.data(),
                os_monotonic_seconds(), Ostrel_ClientStateString(client->state), Ostrel_ClientStateString(state));
    client->state = state;
}

uint32_t NewTransactionID() {
    std::array<uint8_t, sizeof(uint32_t)> bytes{};
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(std::rand());
    uint32_t transactionID = 0;
    std::memcpy(&transactionID, bytes.data(), sizeof transactionID);
    return transactionID;
}

// The delay to the next retransmission: half of what remains, but not below `minimum`; what then remains is stored.
uint32_t Ostrel_DHCPClientUpdateRequestRetryTime(uint32_t remaining, uint32_t minimum, uint32_t* remainingOut) {
    const uint32_t half = remaining / 2;
    if (half <= minimum) return minimum;
    *remainingOut = remaining - half;
    return half;
}

// After each REQUEST of REQUESTING, in milliseconds.
uint32_t RequestingDelay(uint32_t retries) {
    const Ostrel_TimeoutKind& kind = kClientTimeouts[kClientTimeoutRequesting];
    const uint32_t doubled = kind.shortest << retries;
    return doubled <= kind.longest ? doubled : kind.shortest;
}

// The delay to the next retransmission in milliseconds, of a period that has `remaining` seconds left: half of that,
// which is then used up, but not less than the row's shortest.
uint64_t TakeRetryDelay(Ostrel_ClientTimeout timeout, uint32_t& remaining) {
    const uint32_t minimum = kClientTimeouts[timeout].shortest / 1000;
    return uint64_t{Ostrel_DHCPClientUpdateRequestRetryTime(remaining, minimum, &remaining)} * 1000;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_Selecting(Ostrel_ClientObj* client) {
    EnterState(client, kClientStateSelecting);
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientSend(client, Ostrel_DHCPClientDiscover()));
    Ostrel_DHCPClientArm(client, kClientTimeoutSelecting, uint64_t{client->selectingTime} * 1000);
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_Requesting(Ostrel_ClientObj* client) {
    EnterState(client, kClientStateRequesting);
    client->requestRetries = 0;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientSend(client, Ostrel_DHCPClientRequestOf(*client->leaseOffers)));
    Ostrel_DHCPClientArm(client, kClientTimeoutRequesting, RequestingDelay(0));
    return kNoErr;
}

// Unicast to the server that granted the lease.
Ostrel_Status Ostrel_DHCPClientStateTransition_Renewing(Ostrel_ClientObj* client) {
    Ostrel_ClientLease& lease = client->lease;
    EnterState(client, kClientStateRenewing);
    ++client->transactionID;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientSend(client, Ostrel_DHCPClientRenewalOf(lease)));
    Ostrel_DHCPClientArm(client, kClientTimeoutRenewing, TakeRetryDelay(kClientTimeoutRenewing, lease.renewRetryTime));
    return kNoErr;
}

// Broadcast: any server may extend the lease.
Ostrel_Status Ostrel_DHCPClientStateTransition_Rebinding(Ostrel_ClientObj* client) {
    Ostrel_ClientLease& lease = client->lease;
    EnterState(client, kClientStateRebinding);
    Ostrel_DisarmTimeout(client->iface, client, kClientTimeouts[kClientTimeoutRenewing]);
    ++client->transactionID;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientSend(client, Ostrel_DHCPClientRebindingOf(lease)));
    Ostrel_DHCPClientArm(client, kClientTimeoutRebinding,
                         TakeRetryDelay(kClientTimeoutRebinding, lease.rebindRetryTime));
    return kNoErr;
}

void LogAddresses(const char* format, std::span<const Ostrel_IPv4> addresses) {
    for (size_t i = 0; i < addresses.size(); ++i) DebugPrintF(kDebugLevelInfo, format, i, &addresses[i]);
}

void LogAcceptedLease(const Ostrel_ClientObj* client) {
    const Ostrel_ClientLease& lease = client->lease;
    DebugPrintF(kDebugLevelInfo, "##### [%s] Accept Lease from IPv4 %.4a on MAC %.6a\n", client->iface->ifname.data(),
                &lease.serverIPv4Address, lease.serverMAC);
    DebugPrintF(kDebugLevelInfo, "     IPv4   Address     : %.4a\n", &lease.IPv4Address);
    DebugPrintF(kDebugLevelInfo, "     IPv4   Subnet      : %.4a\n", &lease.IPv4SubnetMask);
    DebugPrintF(kDebugLevelInfo, "     IPv4   Server      : %.4a\n", &lease.serverIdentifier);
    LogAddresses("     IPv4   Router [%d] : %.4a\n",
                 {lease.IPv4Routers.get(), static_cast<size_t>(lease.numIPv4Routers)});
    LogAddresses("     DNS    Server [%d] : %.4a\n",
                 {lease.IPv4DNSServers.get(), static_cast<size_t>(lease.numIPv4DNSServers)});
    if (lease.domainNameLen != 0) {
        DebugPrintF(kDebugLevelInfo, "     Domain Name        : %s\n", lease.domainName.get());
    }
    DebugPrintF(kDebugLevelInfo, "     Lease  Acquired    : %d\n", lease.leaseAcquired);
    DebugPrintF(kDebugLevelInfo, "     Lease  Expiry      : %d\n", lease.leaseTime);
    DebugPrintF(kDebugLevelInfo, "     Lease  Renewal     : %d\n", lease.renewalTime);
    DebugPrintF(kDebugLevelInfo, "     Lease  Rebinding   : %d\n", lease.rebindingTime);
    DebugPrintF(kDebugLevelInfo, "##### \n");
}

// What the breaker of storms leaves to wait before a start, in milliseconds: for the DECLINE before it, then for its
// DISCOVER, which a static client does not send.
uint32_t RestBeforeStart(Ostrel_ClientObj* client) {
    const uint32_t rest = Ostrel_DHCPClientStormRest(client->declines);
    if (rest != 0 || Ostrel_DHCPClientIsStatic(client)) return rest;
    return Ostrel_DHCPClientStormAsk(client, client->discovers, "DISCOVER");
}

Ostrel_ClientObj* EnterHandler(void* client, const char* handler) {
    DebugPrintF(kDebugLevelTrace, "%s()\n", handler);
    return static_cast<Ostrel_ClientObj*>(client);
}

}  // namespace

const char* Ostrel_ClientStateString(Ostrel_ClientState state) {
    switch (state) {
        case kClientStateUnknown:
            break;
        case kClientStateInit:
            return "INIT";
        case kClientStateRebooting:
            return "REBOOTING";
        case kClientStateSelecting:
            return "SELECTING";
        case kClientStateRebinding:
            return "REBINDING";
        case kClientStateRequesting:
            return "REQUESTING";
        case kClientStateRenewing:
            return "RENEWING";
        case kClientStateBound:
            return "BOUND";
        case kClientStateInitReboot:
            return "INIT-REBOOT";
    }
    return "UNKNOWN";
}

Ostrel_Status Ostrel_DHCPClientStateTransition_Init(Ostrel_ClientObj* client) {
    EnterState(client, kClientStateInit);
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientResetLeaseInfo(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    uint32_t milliseconds = 0;
    Ostrel_RandomizeTimeout(client->initDelayMin * 1000, client->initDelayMax * 1000, &milliseconds);
    Ostrel_DHCPClientArm(client, kClientTimeoutInit, milliseconds - milliseconds % 1000);  // whole seconds
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_InitReboot(Ostrel_ClientObj* client) {
    EnterState(client, kClientStateInitReboot);
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientResetLeaseInfo(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_Bound(Ostrel_ClientObj* client) {
    EnterState(client, kClientStateBound);
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    OSTREL_REQUIRE_NOERR(Ostrel_ARPAsk(client->iface, kAnyIPv4, client->lease.IPv4Address));
    Ostrel_DHCPClientArm(client, kClientTimeoutArping, kClientTimeouts[kClientTimeoutArping].longest);
    return kNoErr;
}

void Ostrel_DHCPClientTimeout_Init(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    if (const uint32_t rest = RestBeforeStart(client); rest != 0) {
        Ostrel_DHCPClientArm(client, kClientTimeoutInit, rest);
        return;
    }
    client->transactionID = NewTransactionID();
    if (Ostrel_DHCPClientIsStatic(client)) {
        Ostrel_DHCPClientArm(client, kClientTimeoutArping, 0);
        return;
    }
    (void)Ostrel_DHCPClientStateTransition_Selecting(client);  // a failure has been reported, and ends the step
}

void Ostrel_DHCPClientTimeout_Selecting(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    if (client->leaseOffers != nullptr) {
        (void)Ostrel_DHCPClientStateTransition_Requesting(client);  // likewise
        return;
    }
    if (client->initDelayMax <= kInitDelayCap) {
        client->initDelayMax *= 2;
        client->initDelayMin = client->initDelayMax;
    }
    Ostrel_DHCPClientStateTransition_Init(client);
}

void Ostrel_DHCPClientTimeout_Requesting(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    if (++client->requestRetries >= kRequestTries) {
        Ostrel_DHCPClientStateTransition_Init(client);
        return;
    }
    const Ostrel_Status status = Ostrel_DHCPClientSend(client, Ostrel_DHCPClientRequestOf(*client->leaseOffers));
    if (status != kNoErr) {
        OSTREL_REPORT_STATUS(status);
        return;
    }
    Ostrel_DHCPClientArm(client, kClientTimeoutRequesting, RequestingDelay(client->requestRetries));
}

void Ostrel_DHCPClientTimeout_Bound(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    const Ostrel_ClientLease& lease = client->lease;
    LogAcceptedLease(client);
    const Ostrel_Status status = Ostrel_VoroServicePublishClientLeaseInformation(client->iface->sysObj, client);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    if (Ostrel_DHCPClientIsStatic(client) || lease.leaseTime == kInfiniteLease) return;
    Ostrel_DHCPClientArm(client, kClientTimeoutRenewing, uint64_t{lease.renewalTime} * 1000);
    Ostrel_DHCPClientArm(client, kClientTimeoutRebinding, uint64_t{lease.rebindingTime} * 1000);
    Ostrel_DHCPClientArm(client, kClientTimeoutExpiry, uint64_t{lease.leaseTime} * 1000);
}

void Ostrel_DHCPClientTimeout_Renewing(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    const Ostrel_Status status = Ostrel_DHCPClientStateTransition_Renewing(client);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_DHCPClientTimeout_Rebinding(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    const Ostrel_Status status = Ostrel_DHCPClientStateTransition_Rebinding(client);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_DHCPClientTimeout_Expiry(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    Ostrel_DHCPClientStateTransition_Init(client);
}
