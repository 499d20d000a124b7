// A lease from its DHCPACK on: the moment at which it counts, its renewals, its end.
//
// The record of the lease is filled when the DHCPACK comes; BOUND begins with the ARP check of its address
// (Conflict.cpp), and when that is over the lease counts: it is published, the other roles are told, and its times
// begin to run.
#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"

namespace {

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

// Why a lease is extended now: its T1 or T2, unless a caller wants it, or it was asked for before.
Ostrel_Reason ReasonToExtend(const Ostrel_ClientObj* client, Ostrel_ClientState state, Ostrel_Reason due) {
    if (client->isToldToExtend) return Ostrel_Reason::Action;
    return client->state == state ? Ostrel_Reason::Timeout : due;
}

// A REQUEST of its own transaction, by which a lease is extended.
void BeginExtension(Ostrel_ClientObj* client, Ostrel_ClientState state, Ostrel_Reason due) {
    if (client->state != state) client->transactionStart = os_monotonic_milliseconds();
    Ostrel_DHCPClientEnterState(client, state, ReasonToExtend(client, state, due));
    client->isToldToExtend = false;
    client->transactionID = Ostrel_DHCPClientNextTransactionID(client);
    client->requestSent = os_monotonic_milliseconds();
}

// Asks the server that granted the lease.
Ostrel_Status Ostrel_DHCPClientStateTransition_Renewing(Ostrel_ClientObj* client) {
    BeginExtension(client, kClientStateRenewing, Ostrel_Reason::Renewal);
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientSend(client, Ostrel_DHCPClientRenewalOf(client)));
    Ostrel_DHCPClientArm(client, kClientTimeoutRenewing,
                         Ostrel_DHCPClientTakeRetryWait(client, kClientTimeoutRenewing, client->lease.renewRetryTime));
    return kNoErr;
}

// Broadcast: any server may extend the lease.
Ostrel_Status Ostrel_DHCPClientStateTransition_Rebinding(Ostrel_ClientObj* client) {
    BeginExtension(client, kClientStateRebinding, Ostrel_Reason::Rebinding);
    Ostrel_DHCPClientDisarm(client, kClientTimeoutRenewing);
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientSend(client, Ostrel_DHCPClientRebindingOf(client)));
    Ostrel_DHCPClientArm(
        client, kClientTimeoutRebinding,
        Ostrel_DHCPClientTakeRetryWait(client, kClientTimeoutRebinding, client->lease.rebindRetryTime));
    return kNoErr;
}

// How long the address of a new DHCPACK is to be checked, and how often announced.
struct Welcome {
    uint32_t check;  // milliseconds
    uint32_t announcements;
};

// A lease that is only extended has had both.
Welcome WelcomeOf(const Ostrel_ClientObj* client) {
    const bool extends =
        client->iface->leaseIsHeld && (client->state == kClientStateRenewing || client->state == kClientStateRebinding);
    if (extends && !client->rules->extensionIsChecked) return {0, 0};
    return {client->arpCheck, client->rules->announcements};
}

}  // namespace

Ostrel_Status Ostrel_DHCPClientStateTransition_Bound(Ostrel_ClientObj* client) {
    const Welcome welcome = WelcomeOf(client);
    Ostrel_DHCPClientEnterState(client, kClientStateBound, Ostrel_Reason::Ack);
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    client->announcementsLeft = welcome.announcements;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPClientBeginCheck(client, welcome.check));
    Ostrel_InterfacePicturePutOff(client->iface);
    return kNoErr;
}

void Ostrel_DHCPClientTimeout_Bound(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutArping, __func__);
    if (!Ostrel_DHCPClientHolds(client)) Ostrel_InterfacePictureTurns(client->iface);
    client->isChecking = false;
    LogAcceptedLease(client);
    Ostrel_DHCPClientSetHeld(client, true);
    const Ostrel_Status status = Ostrel_VoroServicePublishClientLeaseInformation(client->iface->sysObj, client);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    if (client->announcementsLeft != 0) Ostrel_DHCPClientArm(client, kClientTimeoutAnnouncing, 0);
    if (Ostrel_DHCPClientIsStatic(client) || client->lease.leaseTime == kInfiniteLease) return;
    Ostrel_DHCPClientArmLease(client);
}

void Ostrel_DHCPClientTimeout_Renewing(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutRenewing, __func__);
    if (Ostrel_DHCPClientHasToWait(client, kClientTimeoutRenewing)) return;
    const Ostrel_Status status = Ostrel_DHCPClientStateTransition_Renewing(client);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_DHCPClientTimeout_Rebinding(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutRebinding, __func__);
    if (Ostrel_DHCPClientHasToWait(client, kClientTimeoutRebinding)) return;
    const Ostrel_Status status = Ostrel_DHCPClientStateTransition_Rebinding(client);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_DHCPClientTimeout_Expiry(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutExpiry, __func__);
    Ostrel_DHCPClientStateTransition_Init(client, Ostrel_Reason::Expired);
}
