// What a caller tells the client: lease actions, and that it has no more use for its lease.
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPClient/Machine.h"

namespace {

// "init": all is acquired anew, or first asked for, where the caller knows what the client had.
void Acquire(Ostrel_ClientObj* client, Ostrel_IPv4 address) {
    Ostrel_DHCPClientStateTransition_Init(client, Ostrel_Reason::Action);
    if (address == kAnyIPv4 || Ostrel_DHCPClientIsStatic(client)) return;
    Ostrel_DHCPClientStateTransition_Rebooting(client, address, 0, Ostrel_Reason::Action);
}

// Whether "renew" or "rebind" asks for more time, rather than for another lease.
bool Extends(const Ostrel_ClientObj* client) {
    return client->rules->actionsExtend && client->iface->leaseIsHeld && !Ostrel_DHCPClientIsStatic(client);
}

// Asks at once, as when T1 or T2 is reached. Once a lost link is back, or while a lease is confirmed, that is asked
// anyhow.
void Extend(Ostrel_ClientObj* client, bool asksAll) {
    if (client->linkIsLost || client->state == kClientStateRebooting) return;
    client->isToldToExtend = true;
    Ostrel_DHCPClientDisarm(client, kClientTimeoutRenewing);
    if (!asksAll) return Ostrel_DHCPClientTimeout_Renewing(client, client->iface);
    Ostrel_DHCPClientDisarm(client, kClientTimeoutRebinding);
    Ostrel_DHCPClientTimeout_Rebinding(client, client->iface);
}

}  // namespace

Ostrel_Status Ostrel_DHCPClientLeaseAction(Ostrel_InterfaceObj* iface, const char* action,
                                           const Ostrel_ActionValues& values) {
    Ostrel_ClientObj* const client = iface->dhcpClient;
    OSTREL_REQUIRE(client != nullptr, "iface->dhcpClient", kGenericErr);
    const std::string_view word = action;
    const bool mayExtend = word == "renew" || word == "rebind";
    if (mayExtend && Extends(client)) {
        Extend(client, word == "rebind");
        return kNoErr;
    }
    if (word == "init" || mayExtend) {
        Acquire(client, values.address);
        return kNoErr;
    }
    if (word == "halt") {
        if (values.release) Ostrel_DHCPClientRelease(client);
        Ostrel_DHCPClientStateTransition_InitReboot(client, Ostrel_Reason::Action);
        return kNoErr;
    }
    DebugPrintF(kDebugLevelInfo, "[%s] DHCP Client unknown action request <%s>.\n", iface->ifname.data(), action);
    return kBadParamErr;
}

// The lease of a server has its identifier; a static one, or none, has not.
void Ostrel_DHCPClientRelease(Ostrel_ClientObj* client) {
    if (client == nullptr || client->lease.serverIdentifier == kAnyIPv4) return;
    client->transactionID = Ostrel_DHCPClientNextTransactionID(client);
    const Ostrel_Status status = Ostrel_DHCPClientSend(client, Ostrel_DHCPClientReleaseOf(client->lease));
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}
