// REBOOTING: an address that the client had is asked for (RFC 2131 section 3.2), and what leads there.
//
// A caller may know the address, from before the daemon or the device was restarted; then nothing is held until a
// server has answered, and without an answer the client starts over. Or the client holds a lease, and its link was lost
// or the device asleep: the lease is confirmed, and stays until a server refuses it or it is over. While the link is
// lost nothing is sent.
#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"

namespace {

// Nobody has confirmed the lease, nobody has refused it: it goes on to its end, and any server may extend it.
void KeepUnconfirmed(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientEnterState(client, kClientStateRebinding, Ostrel_Reason::Timeout);
    Ostrel_DHCPClientSetHeld(client, true);
    Ostrel_DHCPClientArm(
        client, kClientTimeoutRebinding,
        Ostrel_DHCPClientTakeRetryWait(client, kClientTimeoutRebinding, client->lease.rebindRetryTime));
}

void BeginTransaction(Ostrel_ClientObj* client) {
    client->transactionID = Ostrel_DHCPClientNewTransactionID(client);
    client->transactionStart = os_monotonic_milliseconds();
    client->requestSent = client->transactionStart;
}

// Goes on where the network may be another one.
void StartAfresh(Ostrel_ClientObj* client, Ostrel_Reason reason) {
    if (client->state == kClientStateInitReboot || client->linkIsLost) return;
    if (!client->iface->leaseIsHeld) {
        Ostrel_DHCPClientStateTransition_Init(client, reason);
        return;
    }
    const uint64_t wait = Ostrel_DHCPClientTakePause(client, reason);
    Ostrel_DHCPClientStateTransition_Rebooting(client, client->lease.IPv4Address, wait, reason);
}

// The interface's Ethernet address may have become another one. An identifier made of it follows.
void TakeOverAddress(Ostrel_ClientObj* client) {
    const Ostrel_MAC& mac = client->iface->macAddr;
    if (client->macAddr == mac) return;
    client->macAddr = mac;
    if (!client->identifierIsAddress) return;
    const Ostrel_Status status = Ostrel_DHCPSetupClientIdentifier(client, kIdentifierTypeEthernet, mac);
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

}  // namespace

void Ostrel_DHCPClientStateTransition_Rebooting(Ostrel_ClientObj* client, Ostrel_IPv4 address, uint64_t milliseconds,
                                                Ostrel_Reason reason) {
    client->rebootAddress = address;
    Ostrel_DHCPClientEnterState(client, kClientStateRebooting, reason);
    Ostrel_DHCPClientPutOff(client);
    // A lease that was being checked again when the link was lost has no end armed yet.
    const bool ends = client->iface->leaseIsHeld && client->lease.leaseTime != kInfiniteLease;
    if (ends && client->due[kClientTimeoutExpiry] == 0) Ostrel_DHCPClientArmEnd(client);
    client->requestRetries = 0;
    Ostrel_DHCPClientArm(client, kClientTimeoutRebooting, milliseconds);
}

void Ostrel_DHCPClientTimeout_Rebooting(void* context, void* /*iface*/) {
    Ostrel_ClientObj* const client = Ostrel_DHCPClientEnterHandler(context, kClientTimeoutRebooting, __func__);
    if (client->linkIsLost) return;  // its return confirms the lease, or starts the client
    if (client->requestRetries == 0) {
        if (const uint32_t rest = Ostrel_DHCPClientExchangeRest(client); rest != 0) {
            Ostrel_DHCPClientArm(client, kClientTimeoutRebooting, rest);
            return;
        }
        BeginTransaction(client);
    } else if (!client->iface->leaseIsHeld) {
        Ostrel_DHCPClientStateTransition_Init(client, Ostrel_Reason::Timeout);
        return;
    } else if (client->requestRetries >= kConfirmTries) {
        KeepUnconfirmed(client);
        return;
    }
    const Ostrel_Status status = Ostrel_DHCPClientSend(client, Ostrel_DHCPClientRebootOf(client->rebootAddress));
    if (status != kNoErr) {
        OSTREL_REPORT_STATUS(status);
        return;
    }
    const uint64_t wait = Ostrel_DHCPClientRequestingWait(client);
    ++client->requestRetries;
    Ostrel_DHCPClientArm(client, kClientTimeoutRebooting, wait);
}

void Ostrel_DHCPClientLinkChanged(Ostrel_ClientObj* client, bool isRunning) {
    if (isRunning == !client->linkIsLost || Ostrel_DHCPClientIsStatic(client)) return;
    if (!isRunning) {
        Ostrel_DHCPClientDoubt(client, client->iface->link.isThere ? Ostrel_Reason::Link : Ostrel_Reason::Removed);
    }
    client->linkIsLost = !isRunning;
    TakeOverAddress(client);
    Ostrel_DHCPClientPutOff(client);
    StartAfresh(client, Ostrel_Reason::Link);
}

void Ostrel_DHCPClientWokeUp(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientWasAsleep(client);
    if (!Ostrel_DHCPClientIsStatic(client)) StartAfresh(client, Ostrel_Reason::WakeUp);
}
