// Probes under way: a short array in the order of their ends, with one timeout for the first.
//
// A DISCOVER is kept as the frame that it came in, and read again when its OFFER is due: by then its client may have
// sent it anew, or taken another address, and the slot may be anybody's.
#include "DHCPServer/Probe.h"

#include <algorithm>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/Timeout.h"

#include "DHCPServer/LeaseTable.h"
#include "DHCPServer/Messages.h"
#include "DHCPServer/Slots.h"
#include "os_time.h"

namespace {

void Ostrel_DHCPServerTimeout_Probe(void* context, void* iface);

// Milliseconds; the time of a probe is configured.
constexpr Ostrel_TimeoutKind kProbeTimeout{Ostrel_DHCPServerTimeout_Probe, "org.ostrel.dhcp.server.probe", false, 0, 0};

constexpr Ostrel_Verdict kNotConcerned{.kind = Ostrel_VerdictKind::NotConcerned};

std::span<Ostrel_ServerProbe> UnderWay(const Ostrel_ServerObj* server) {
    return {server->probes.get(), server->numProbes};
}

// Takes a probe off the array; the frame is the caller's.
Ostrel_ServerProbe Take(Ostrel_ServerObj* server, Ostrel_ServerProbe* probe) {
    Ostrel_ServerProbe taken = std::move(*probe);
    std::move(probe + 1, server->probes.get() + server->numProbes, probe);
    --server->numProbes;
    return taken;
}

// A probe of the slot for somebody who has taken another since.
void DropStale(Ostrel_ServerObj* server, uint32_t slot) {
    const auto stale = std::ranges::find(UnderWay(server), slot, &Ostrel_ServerProbe::slot);
    if (stale != UnderWay(server).end()) (void)Take(server, &*stale);
}

bool KeepFrame(Ostrel_ServerProbe& probe, const Ostrel_PreprocessedPacket& discover) {
    os_array<uint8_t> copy = os_copy_array<uint8_t>({discover.frame, discover.frameLength});
    if (copy == nullptr) return false;
    probe.frame = std::move(copy);
    probe.length = discover.frameLength;
    return true;
}

// The DISCOVER of a probe; it passed the checks when it came.
bool Read(const Ostrel_ServerProbe& probe, Ostrel_PreprocessedPacket* discover) {
    return Ostrel_BOOTPPacketPreprocess({probe.frame.get(), probe.length}, discover) == kNoErr;
}

bool IsOfferedTo(const Ostrel_ServerObj* server, const Ostrel_ServerProbe& probe) {
    return server->leases[probe.slot].state == kLeaseStateOffered &&
           Ostrel_LeaseIndexKeyOf(server, probe.slot) == probe.key;
}

void ArmForFirst(Ostrel_ServerObj* server, uint64_t now) {
    if (server->numProbes == 0) return;
    const uint64_t end = server->probes[0].end;
    Ostrel_RearmTimeout(server->iface, server, kProbeTimeout, end - std::min(end, now));
}

// Nobody has answered.
void Ostrel_DHCPServerProbeEnds(Ostrel_ServerObj* server, const Ostrel_ServerProbe& probe) {
    Ostrel_PreprocessedPacket discover;
    if (!IsOfferedTo(server, probe) || !Read(probe, &discover)) return;
    const Ostrel_Status status =
        Ostrel_DHCPServerOffer(server, discover, &server->leases[probe.slot], os_monotonic_seconds());
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
}

void Ostrel_DHCPServerTimeout_Probe(void* context, void* /*iface*/) {
    auto* const server = static_cast<Ostrel_ServerObj*>(context);
    const uint64_t now = os_monotonic_milliseconds();
    while (server->numProbes != 0 && server->probes[0].end <= now)
        Ostrel_DHCPServerProbeEnds(server, Take(server, &server->probes[0]));
    ArmForFirst(server, now);
}

// The host has the address, or is about to take it (RFC 5227 section 2.1.1).
bool Claims(const Ostrel_ARPAddresses& addresses, Ostrel_IPv4 address) {
    return addresses.senderIPv4 == address || (addresses.senderIPv4 == kAnyIPv4 && addresses.targetIPv4 == address);
}

// Somebody has the address of a probe, who may be the client itself.
Ostrel_Verdict Ostrel_DHCPServerProbeFails(Ostrel_ServerObj* server, Ostrel_ServerProbe* probe,
                                           const Ostrel_MAC& host) {
    Ostrel_PreprocessedPacket discover;
    if (!Read(*probe, &discover)) return kNotConcerned;
    const Ostrel_ServerClient client = Ostrel_DHCPServerClientOf(server, discover);
    if (host == client.station || host == discover.ethHdr->src) return kNotConcerned;
    const uint64_t key = Ostrel_DHCPServerKeyOfAddress(server, host);
    if (!Ostrel_DHCPServer_LeaseMayBeHeldFor(server, key)) {
        DebugPrintF(kDebugLevelInfo, "[%s] %.6a has too many addresses to be believed\n", server->iface->ifname.data(),
                    host);
        return {.kind = Ostrel_VerdictKind::Limited};
    }
    ++server->iface->counters.serverConflicts;
    const Ostrel_ServerProbe taken = Take(server, probe);
    Ostrel_LeaseInformation* const lease = &server->leases[taken.slot];
    const uint32_t now = os_monotonic_seconds();
    Ostrel_DHCPServer_LeaseHold(server, lease, host, key, now, {"in use", Ostrel_LeaseEventKind::Held});
    std::optional<Ostrel_Verdict> again;  // the DISCOVER has had its verdict
    const Ostrel_Status status = Ostrel_DHCPServerProcessDiscover(server, {discover, client, now, &again});
    if (status != kNoErr) OSTREL_REPORT_STATUS(status);
    return {};
}

}  // namespace

Ostrel_Status Ostrel_DHCPServerProbesInitialize(Ostrel_ServerObj* server) {
    if (server->probeTime == 0) return kNoErr;
    server->probes = os_new_records<Ostrel_ServerProbe>(kMaxServerProbes);
    OSTREL_REQUIRE(server->probes != nullptr, "server->probes", kOutOfMemoryErr);
    return kNoErr;
}

void Ostrel_DHCPServerProbesFinalize(Ostrel_ServerObj* server) {
    if (server->probes == nullptr) return;
    server->numProbes = 0;
    Ostrel_DisarmTimeout(server->iface, server, kProbeTimeout);
}

bool Ostrel_DHCPServerProbeIsWanted(const Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease,
                                    const Ostrel_ServerClient& client) {
    if (server->probeTime == 0 || Ostrel_LeaseIsInUse(lease->state)) return false;
    const uint64_t key = Ostrel_LeaseIndexKeyOf(server, Ostrel_LeaseSlotNumber(server, lease));
    return key != client.key || !lease->holderHadIt;
}

bool Ostrel_DHCPServerProbeIsUnderWay(Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease,
                                      const Ostrel_ServerClient& client, const Ostrel_PreprocessedPacket& discover) {
    const uint32_t slot = Ostrel_LeaseSlotNumber(server, lease);
    for (Ostrel_ServerProbe& probe : UnderWay(server)) {
        if (probe.slot != slot || probe.key != client.key || !IsOfferedTo(server, probe)) continue;
        if (!KeepFrame(probe, discover)) OSTREL_REPORT_STATUS(kOutOfMemoryErr);  // the one before has to do
        return true;
    }
    return false;
}

bool Ostrel_DHCPServerProbeBegin(Ostrel_ServerObj* server, const Ostrel_LeaseInformation* lease,
                                 const Ostrel_ServerClient& client, const Ostrel_PreprocessedPacket& discover) {
    const uint32_t slot = Ostrel_LeaseSlotNumber(server, lease);
    DropStale(server, slot);
    if (server->numProbes == kMaxServerProbes) return false;
    const uint64_t now = os_monotonic_milliseconds();
    Ostrel_ServerProbe& probe = server->probes[server->numProbes];
    probe.slot = slot;
    probe.key = client.key;
    probe.end = now + server->probeTime;
    if (!KeepFrame(probe, discover)) return false;
    if (Ostrel_ARPAsk(server->iface, kAnyIPv4, lease->IPv4Address) != kNoErr) return false;
    ++server->numProbes;
    if (server->numProbes == 1) ArmForFirst(server, now);
    return true;
}

Ostrel_Verdict Ostrel_DHCPServerARPPacketHandler(Ostrel_ServerObj* server, const Ostrel_EthernetHeader* /*frame*/,
                                                 const Ostrel_ARPHeader* /*arpHeader*/,
                                                 const Ostrel_ARPAddresses* addresses) {
    OSTREL_REQUIRE(server != nullptr, "server", kNotConcerned);
    const Ostrel_MAC host = addresses->senderMAC;
    if (server->numProbes == 0 || host == server->iface->macAddr || host == Ostrel_MAC{}) return kNotConcerned;
    for (Ostrel_ServerProbe& probe : UnderWay(server)) {
        if (!IsOfferedTo(server, probe) || !Claims(*addresses, server->leases[probe.slot].IPv4Address)) continue;
        return Ostrel_DHCPServerProbeFails(server, &probe, host);
    }
    return kNotConcerned;
}
