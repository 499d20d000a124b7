// The wait of a server for its leases.
//
// While it lasts the list by age is out of order: each part has old leases and young ones. Nothing reads it then, since
// frames don't prune the table and nobody is told of ends. What was given back is no news, so no event tells of it.
#include "DHCPServer/GivenLeases.h"

#include <algorithm>

#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"
#include "Ostrel/Timeout.h"

#include "DHCPServer/LeaseIndex.h"
#include "DHCPServer/LeaseTable.h"
#include "os_time.h"

namespace {

void Ostrel_DHCPServerTimeout_Leases(void* context, void* iface);

constexpr uint32_t kPatience = 10'000;       // milliseconds for the next part
constexpr uint32_t kWholePatience = 60'000;  // milliseconds for all of them: clients go on asking for about as long
constexpr Ostrel_TimeoutKind kLeasesTimeout{Ostrel_DHCPServerTimeout_Leases, "org.ostrel.dhcp.server.leases", false, 0,
                                            kPatience};

void Serve(Ostrel_ServerObj* server) {
    server->awaitsLeases = false;
    Ostrel_LeaseIndexSortByAge(server);
    Ostrel_DHCPServerAudienceChanged(server);
    Ostrel_InterfacePictureChanged(server->iface);
}

void Ostrel_DHCPServerTimeout_Leases(void* context, void* /*iface*/) {
    auto* const server = static_cast<Ostrel_ServerObj*>(context);
    DebugPrintF(kDebugLevelWarning, "[%s] The rest of the leases has not come; the server begins with %d of them.\n",
                server->iface->ifname.data(), server->slotsIn[kLeaseStateActive]);
    Serve(server);
}

void ArmForNext(Ostrel_ServerObj* server) {
    const uint64_t now = os_monotonic_milliseconds();
    const uint64_t left = server->leasesEnd - std::min(server->leasesEnd, now);
    Ostrel_RearmTimeout(server->iface, server, kLeasesTimeout, std::min<uint64_t>(left, kPatience));
}

}  // namespace

void Ostrel_DHCPServerAwaitLeases(Ostrel_ServerObj* server) {
    server->awaitsLeases = true;
    server->leasesEnd = os_monotonic_milliseconds() + kWholePatience;
    ArmForNext(server);
}

void Ostrel_DHCPServerForgetLeases(Ostrel_ServerObj* server) {
    if (server->awaitsLeases) Ostrel_DisarmTimeout(server->iface, server, kLeasesTimeout);
    server->awaitsLeases = false;
}

const char* Ostrel_DHCPServerShownState(const Ostrel_ServerObj* server) {
    return server->awaitsLeases ? kAwaitsLeases : "SERVING";
}

Ostrel_Status Ostrel_DHCPServerGiveLeases(Ostrel_ServerObj* server, const Ostrel_ServerValues& values, bool more) {
    const uint64_t granted = server->counters.leasesGranted;
    const Ostrel_Status status = Ostrel_DHCPServer_LeasesGiveBack(server, values);
    server->counters.leasesGranted = granted;  // they were granted before
    if (status != kNoErr || more) {
        ArmForNext(server);
        return status;
    }
    Ostrel_DisarmTimeout(server->iface, server, kLeasesTimeout);
    DebugPrintF(kDebugLevelInfo, "[%s] The leases have come; the server begins with %d of them.\n",
                server->iface->ifname.data(), server->slotsIn[kLeaseStateActive]);
    Serve(server);
    return kNoErr;
}
