// Arming and cancelling the client's timeouts, and the one door to a new state.
#include "DHCPClient/Timeouts.h"

#include <algorithm>
#include <string_view>

#include "Ostrel/Log.h"
#include "Ostrel/System.h"
#include "Ostrel/Timeout.h"

#include "os_time.h"

static_assert(std::string_view(kClientTimeoutExpiry.name).starts_with(kServiceName));

namespace {

// A lease may name more seconds than the loop can count; so long a wait is for ever either way.
int32_t LoopSeconds(uint32_t seconds) {
    return static_cast<int32_t>(std::min(seconds, kEloopMaxSeconds));
}

}  // namespace

void Ostrel_DHCPClientArm(Ostrel_ClientObj* client, const Ostrel_ClientTimeout& timeout, uint32_t seconds) {
    Ostrel_SetTimeout(client->iface, client, LoopSeconds(seconds), 0, timeout.handler, timeout.name, timeout.rtc);
}

void Ostrel_DHCPClientRearm(Ostrel_ClientObj* client, const Ostrel_ClientTimeout& timeout, uint32_t seconds) {
    Ostrel_ResetTimeout(client->iface, client, LoopSeconds(seconds), 0, timeout.handler, timeout.name, timeout.rtc);
}

void Ostrel_DHCPClientCancel(Ostrel_ClientObj* client, const Ostrel_ClientTimeout& timeout) {
    Ostrel_CancelTimeout(client->iface, client, timeout.handler, timeout.name, timeout.rtc);
}

void Ostrel_DHCPClientCancelAllTimeouts(Ostrel_ClientObj* client) {
    Ostrel_DHCPClientCancel(client, kClientTimeoutInit);
    Ostrel_DHCPClientCancel(client, kClientTimeoutSelecting);
    Ostrel_DHCPClientCancel(client, kClientTimeoutRenewing);
    Ostrel_DHCPClientCancel(client, kClientTimeoutRebinding);
    Ostrel_DHCPClientCancel(client, kClientTimeoutExpiry);
    Ostrel_DHCPClientCancel(client, kClientTimeoutArping);
    Ostrel_DHCPClientCancel(client, kClientTimeoutRequesting);
}

void Ostrel_DHCPClientEnterState(Ostrel_ClientObj* client, uint32_t state) {
    DebugPrintF(kDebugLevelInfo, "[%s (%d)] DHCP Client state transition %s -> %s.\n", client->iface->ifname.data(),
                os_monotonic_seconds(), Ostrel_ClientStateString(static_cast<int32_t>(client->state)),
                Ostrel_ClientStateString(static_cast<int32_t>(state)));
    client->state = state;
}
