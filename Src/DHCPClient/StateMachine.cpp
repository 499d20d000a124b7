// The client's states and what makes it leave them (RFC 2131 section 4.4, figure 5).
//
//     INIT-REBOOT --lease action--> INIT --> SELECTING --> REQUESTING --DHCPACK--> BOUND --T1--> RENEWING
//                                                                             BOUND, RENEWING --T2--> REBINDING
//     RENEWING, REBINDING --DHCPACK--> BOUND        any --DHCPNAK, conflict, end of the lease--> INIT
//
// The lease's timers start when the ARP check has ended, and that is also the one moment at which it is published. A
// send that comes back short ends its step where it stands: the timeout that would have followed is not armed, and the
// next timer, lease action or reply moves the client on.
#include <array>
#include <cstdlib>
#include <cstring>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPClient.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"
#include "Ostrel/Timeout.h"

#include "DHCPClient/Timeouts.h"

namespace {

constexpr uint32_t kInitDelayCap = 299;      // seconds; an upper bound above it is no longer doubled
constexpr uint32_t kRetryFloorSeconds = 60;  // RFC 2131 section 4.4.5: no retransmission sooner

// Seconds after each REQUEST of REQUESTING: four retransmissions (RFC 2131 section 4.1), then back to INIT.
constexpr std::array<uint32_t, 5> kRequestingDelays{4, 8, 16, 32, 4};

bool IsStatic(const Ostrel_ClientObj* client) {
    return (client->configMode & kOstrelConfigStatic) != 0;
}

uint32_t NewTransactionID() {
    std::array<uint8_t, sizeof(uint32_t)> bytes{};
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(std::rand());
    uint32_t transactionID = 0;
    std::memcpy(&transactionID, bytes.data(), sizeof transactionID);
    return transactionID;
}

Ostrel_Status SendRequestForOffer(Ostrel_ClientObj* client) {
    const Ostrel_LeaseOffer* const offer = client->leaseOffers;
    return Ostrel_DHCPClientSend_BOOTPRequest(client, kBroadcastMAC, kAnyIPv4, kBroadcastIPv4, kDHCPRequest, kAnyIPv4,
                                              offer->address, offer->serverIdentifier);
}

Ostrel_Status Ostrel_DHCPClientStateTransition_Selecting(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientEnterState(client, kClientStateSelecting);
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientSend_BOOTPRequest(client, kBroadcastMAC, kAnyIPv4, kBroadcastIPv4,
                                                            kDHCPDiscover, kAnyIPv4, kAnyIPv4, kAnyIPv4));
    Ostrel_DHCPClientArm(client, kClientTimeoutSelecting, client->selectingTime);
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_Requesting(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientEnterState(client, kClientStateRequesting);
    client->requestRetries = 0;
    OSTREL_REQUIRE_NOERR(SendRequestForOffer(client));
    Ostrel_DHCPClientArm(client, kClientTimeoutRequesting, kRequestingDelays[0]);
    return kNoErr;
}

// Unicast to the server that granted the lease.
Ostrel_Status Ostrel_DHCPClientStateTransition_Renewing(Ostrel_ClientObj* client) {
    Ostrel_ClientLease& lease = client->lease;
    Ostrel_DHCPClientEnterState(client, kClientStateRenewing);
    ++client->transactionID;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientSend_BOOTPRequest(client, lease.serverMAC, lease.IPv4Address,
                                                            lease.serverIPv4Address, kDHCPRequest, kAnyIPv4,
                                                            lease.IPv4Address, kAnyIPv4));
    const uint32_t delay =
        Ostrel_DHCPClientUpdateRequestRetryTime(lease.renewRetryTime, kRetryFloorSeconds, &lease.renewRetryTime);
    Ostrel_DHCPClientArm(client, kClientTimeoutRenewing, delay);
    return kNoErr;
}

// Broadcast: any server may extend the lease.
Ostrel_Status Ostrel_DHCPClientStateTransition_Rebinding(Ostrel_ClientObj* client) {
    Ostrel_ClientLease& lease = client->lease;
    Ostrel_DHCPClientEnterState(client, kClientStateRebinding);
    Ostrel_DHCPClientCancel(client, kClientTimeoutRenewing);
    ++client->transactionID;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientSend_BOOTPRequest(client, kBroadcastMAC, kAnyIPv4, kBroadcastIPv4,
                                                            kDHCPRequest, kAnyIPv4, lease.IPv4Address, kAnyIPv4));
    const uint32_t delay =
        Ostrel_DHCPClientUpdateRequestRetryTime(lease.rebindRetryTime, kRetryFloorSeconds, &lease.rebindRetryTime);
    Ostrel_DHCPClientArm(client, kClientTimeoutRebinding, delay);
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

Ostrel_ClientObj* EnterHandler(void* client, const char* handler) {
    DebugPrintF(kDebugLevelTrace, "%s()\n", handler);
    return static_cast<Ostrel_ClientObj*>(client);
}

}  // namespace

Ostrel_Status Ostrel_DHCPClientStateTransition_Init(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientEnterState(client, kClientStateInit);
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientResetLeaseInfo(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    uint32_t milliseconds = 0;
    Ostrel_RandomizeTimeout(client->initDelayMin * 1000, client->initDelayMax * 1000, &milliseconds);
    Ostrel_DHCPClientArm(client, kClientTimeoutInit, milliseconds / 1000);
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_InitReboot(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientEnterState(client, kClientStateInitReboot);
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientResetLeaseInfo(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_Bound(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientEnterState(client, kClientStateBound);
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    OSTREL_REQUIRE_NOERR(Ostrel_ARPAsk(client->iface, kAnyIPv4, client->lease.IPv4Address));
    Ostrel_DHCPClientArm(client, kClientTimeoutArping, kARPCheckSeconds);
    return kNoErr;
}

void Ostrel_DHCPClientTimeout_Init(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    client->transactionID = NewTransactionID();
    if (IsStatic(client)) {
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

void Ostrel_DHCPClientEndSelecting(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientRearm(client, kClientTimeoutSelecting, 0);
}

void Ostrel_DHCPClientTimeout_Requesting(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    if (++client->requestRetries >= kRequestingDelays.size()) {
        Ostrel_DHCPClientStateTransition_Init(client);
        return;
    }
    const Ostrel_Status status = SendRequestForOffer(client);
    if (status != kNoErr) {
        OSTREL_REPORT_STATUS(status);
        return;
    }
    Ostrel_DHCPClientArm(client, kClientTimeoutRequesting, kRequestingDelays[client->requestRetries]);
}

void Ostrel_DHCPClientTimeout_Bound(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = EnterHandler(context, __func__);
    const Ostrel_ClientLease& lease = client->lease;
    LogAcceptedLease(client);
    const Ostrel_Status status = Ostrel_VoroServicePublishClientLeaseInformation(client->iface->sysObj, client);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    if (IsStatic(client) || lease.leaseTime == kInfiniteLease) return;
    Ostrel_DHCPClientArm(client, kClientTimeoutRenewing, lease.renewalTime);
    Ostrel_DHCPClientArm(client, kClientTimeoutRebinding, lease.rebindingTime);
    Ostrel_DHCPClientArm(client, kClientTimeoutExpiry, lease.leaseTime);
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
