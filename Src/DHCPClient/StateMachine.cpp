// The client's states and what makes it leave them (RFC 2131 section 4.4, figure 5), up to the DHCPACK. What follows it
// is in Holding.cpp, REBOOTING in Reboot.cpp.
//
//     INIT-REBOOT --lease action--> INIT --> SELECTING --> REQUESTING --DHCPACK--> BOUND --T1--> RENEWING
//                                                                             BOUND, RENEWING --T2--> REBINDING
//     RENEWING, REBINDING --DHCPACK--> BOUND        any --DHCPNAK, conflict, end of the lease--> INIT
//     action "init" with an address, or a lease and a link that is back --> REBOOTING --DHCPACK--> BOUND
//
// What is armed in each state, and what its timeout does. Where the rules differ, "plain" and "rfc" are two lines:
//
//     INIT-REBOOT   -
//     INIT          init        DISCOVER, to SELECTING; a static client: arping; too many frames: init, a little later
//                   declining   the DECLINE that had no room at once (rfc)
//     SELECTING     selecting   offers: REQUEST, to REQUESTING
//                               none, plain: longer waits, to INIT
//                               none, rfc: the same DISCOVER again
//     REQUESTING    requesting  the same REQUEST again; after the fifth to INIT
//     REBOOTING     rebooting   the REQUEST for the former address; unanswered: a lease that is held: again, after the
//                               fourth to REBINDING; else to INIT
//     BOUND         arping      the lease counts: it is published, and the next three are armed
//                   probing     the next probe of the ARP check (rfc)
//                   announcing  the announcements after it (rfc)
//                   renewing    REQUEST, to RENEWING
//                   rebinding   REQUEST, to REBINDING
//                   expiry      to INIT
//     RENEWING      renewing (REQUEST again), rebinding, expiry
//     REBINDING     rebinding (REQUEST again), expiry
//     0, static     arping      the configuration is published
//
// And what else each event does; where nothing is said, nothing:
//
//     lease action "init"      any state, to INIT; with an address to REBOOTING
//     "renew", "rebind"        plain: as "init"
//                              rfc: a lease that is held: to RENEWING, REBINDING; else as "init"
//     "halt"                   any state, to INIT-REBOOT
//     DHCPOFFER                SELECTING: it is stored, and the selecting period ends
//     DHCPACK                  REQUESTING, REBOOTING, RENEWING, REBINDING: to BOUND, under the ARP check
//                              rfc: in REQUESTING of the chosen server; without a check where it extends the lease
//     a malformed one          plain: stays in REQUESTING, REBOOTING, else to INIT
//                              rfc: nothing
//     DHCPNAK                  plain: any state, to INIT
//                              rfc: where a DHCPACK is awaited, of the server asked: to INIT, after a pause
//     another host has the     plain, its reply: any state with an address: DECLINE, to INIT
//     address (ARP)            rfc: under the check: DECLINE, to INIT, after a pause; later: first defended
//     the link is lost         rfc: every timeout but expiry is cancelled, and nothing is armed that would send
//     it is back, or the       rfc: a lease that is held: to REBOOTING; INIT-REBOOT: nothing; else to INIT
//     device awake
//
// Entering INIT, INIT-REBOOT or BOUND cancels every timeout, REBINDING the renewing one, REBOOTING all but expiry.
// The lease's timers start when the ARP check has ended, and that is also the one moment at which it is published. A
// send that comes back short ends its step where it stands: the timeout that would have followed is not armed, and the
// next timer, lease action or reply moves the client on.
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"

namespace {

constexpr uint32_t kInitDelayCap = 299;  // seconds; an upper bound above it is no longer doubled

static_assert(std::string_view(kClientTimeouts[kClientTimeoutExpiry].name).starts_with(kServiceName));

// A DISCOVER, and the wait for its offers. Whoever calls it reports its failure; likewise below.
Ostrel_Status AskForOffers(Ostrel_ClientObj* client) {
    const Ostrel_Status status = Ostrel_DHCPClientSend(client, Ostrel_DHCPClientDiscover());
    if (status != kNoErr) return status;
    Ostrel_DHCPClientArm(client, kClientTimeoutSelecting, Ostrel_DHCPClientTakeSelectingWait(client));
    return kNoErr;
}

// A REQUEST for the first offer, and the wait for its answer.
Ostrel_Status AskForLease(Ostrel_ClientObj* client) {
    const Ostrel_Status status = Ostrel_DHCPClientSend(client, Ostrel_DHCPClientRequestOf(*client->leaseOffers));
    if (status != kNoErr) return status;
    Ostrel_DHCPClientArm(client, kClientTimeoutRequesting, Ostrel_DHCPClientRequestingWait(client));
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_Selecting(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientEnterState(client, kClientStateSelecting, client->story.reason);
    client->selectingTime = client->rules->firstRetry;
    OSTREL_REQUIRE_NOERR(AskForOffers(client));
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_Requesting(Ostrel_ClientObj* client) {
    client->story.server = client->leaseOffers->serverIdentifier;
    Ostrel_DHCPClientEnterState(client, kClientStateRequesting, Ostrel_Reason::Offer);
    client->requestRetries = 0;
    client->requestSent = os_monotonic_milliseconds();
    OSTREL_REQUIRE_NOERR(AskForLease(client));
    return kNoErr;
}

// What is left to wait before a start, in milliseconds: for the DECLINE before it, then for its DISCOVER, which a
// static client does not send.
uint32_t RestBeforeStart(Ostrel_ClientObj* client) {
    uint32_t rest = Ostrel_DHCPClientStormRest(client->declines);
    if (rest != 0 || Ostrel_DHCPClientIsStatic(client)) return rest;
    rest = Ostrel_DHCPClientExchangeRest(client);
    return rest != 0 ? rest : Ostrel_DHCPClientStormAsk(client, client->discovers, "DISCOVER");
}

void RaiseInitDelay(Ostrel_ClientObj* client) {
    if (client->initDelayMax > kInitDelayCap) return;
    client->initDelayMax *= 2;
    client->initDelayMin = client->initDelayMax;
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

Ostrel_Status Ostrel_DHCPClientStateTransition_Init(Ostrel_ClientObj* client, Ostrel_Reason reason) {
    Ostrel_DHCPClientEnterState(client, kClientStateInit, reason);
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientResetLeaseInfo(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    const uint32_t drawn = Ostrel_DHCPClientDraw(client, client->initDelayMin * 1000, client->initDelayMax * 1000);
    const uint32_t wholeSeconds = drawn - drawn % 1000;
    Ostrel_DHCPClientArm(client, kClientTimeoutInit, wholeSeconds + Ostrel_DHCPClientTakePause(client, reason));
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPClientStateTransition_InitReboot(Ostrel_ClientObj* client, Ostrel_Reason reason) {
    Ostrel_DHCPClientEnterState(client, kClientStateInitReboot, reason);
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientResetLeaseInfo(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    return kNoErr;
}

void Ostrel_DHCPClientTimeout_Init(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutInit, __func__);
    if (client->linkIsLost) return;  // its return starts the client
    if (const uint32_t rest = RestBeforeStart(client); rest != 0) {
        Ostrel_DHCPClientArm(client, kClientTimeoutInit, rest);
        return;
    }
    client->transactionID = Ostrel_DHCPClientNewTransactionID(client);
    client->transactionStart = os_monotonic_milliseconds();
    if (Ostrel_DHCPClientIsStatic(client)) {
        Ostrel_DHCPClientArm(client, kClientTimeoutArping, 0);
        return;
    }
    (void)Ostrel_DHCPClientStateTransition_Selecting(client);  // a failure has been reported, and ends the step
}

void Ostrel_DHCPClientTimeout_Selecting(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutSelecting, __func__);
    if (client->leaseOffers != nullptr) {
        if (Ostrel_DHCPClientHasToWait(client, kClientTimeoutSelecting)) return;
        (void)Ostrel_DHCPClientStateTransition_Requesting(client);  // likewise
        return;
    }
    if (client->rules->discoverIsRepeated) {
        const Ostrel_Status status = AskForOffers(client);
        if (status != kNoErr) OSTREL_REPORT_STATUS(status);
        return;
    }
    RaiseInitDelay(client);
    Ostrel_DHCPClientStateTransition_Init(client, Ostrel_Reason::Timeout);
}

void Ostrel_DHCPClientTimeout_Requesting(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutRequesting, __func__);
    if (++client->requestRetries >= kRequestTries) {
        Ostrel_DHCPClientStateTransition_Init(client, Ostrel_Reason::Timeout);
        return;
    }
    const Ostrel_Status status = AskForLease(client);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}
