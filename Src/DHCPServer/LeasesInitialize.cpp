// The lease table as it is at the start: which addresses it has, whom some are kept for, and the leases that are given
// back by a caller that kept them.
//
// The addresses of the range come first, one slot each, then those that are kept for a client outside of it. A lease
// that is given back ends when its client thinks it does, unless the server's leases are shorter now.
#include <algorithm>
#include <cstring>
#include <endian.h>
#include <optional>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPServer/Client.h"
#include "DHCPServer/LeaseIndex.h"
#include "DHCPServer/LeaseTable.h"
#include "DHCPServer/Slots.h"
#include "os_time.h"

namespace {

constexpr uint32_t kCountingBits = 0x00FFFFFF;

const char* NameOf(const Ostrel_ServerObj* server) {
    return server->iface->ifname.data();
}

uint32_t SlotsOfRange(const Ostrel_ServerObj* server) {
    return static_cast<uint32_t>(server->maxLeases);
}

// The number of the address's slot, which need not be there yet; none outside the range.
std::optional<uint32_t> NumberInRange(const Ostrel_ServerObj* server, Ostrel_IPv4 address) {
    const uint32_t slot = (be32toh(address) - be32toh(server->IPv4RangeStart)) & kCountingBits;
    const bool isInRange = slot < SlotsOfRange(server) && Ostrel_LeaseAddressOfSlot(server, slot) == address;
    return isInRange ? std::optional(slot) : std::nullopt;
}

std::span<const uint8_t> IdentifierOf(const Ostrel_ClientKey& client) {
    return {client.identifier.get(), client.identifierLength};
}

// The hash is the same whichever way clients are known: what an address is kept for may be an identifier by the plain
// rules too.
uint64_t KeyOf(const Ostrel_ServerObj* server, const Ostrel_ClientKey& client) {
    return client.identifierLength != 0 ? Ostrel_DHCPServerKeyOf(server, IdentifierOf(client))
                                        : Ostrel_DHCPServerKeyOfAddress(server, client.mac);
}

// The addresses of `fixed` outside the range, in order and each once; false when memory is out.
bool FindOutside(const Ostrel_ServerObj* server, std::span<const Ostrel_FixedLease> fixed,
                 os_array<Ostrel_IPv4>* addresses, uint32_t* count) {
    if (fixed.empty()) return true;
    *addresses = os_zalloc_array<Ostrel_IPv4>(fixed.size());
    if (*addresses == nullptr) return false;
    Ostrel_IPv4* const begin = addresses->get();
    Ostrel_IPv4* end = begin;
    for (const Ostrel_FixedLease& lease : fixed) {
        if (!NumberInRange(server, lease.IPv4Address)) *end++ = lease.IPv4Address;
    }
    std::sort(begin, end, [](Ostrel_IPv4 one, Ostrel_IPv4 other) { return be32toh(one) < be32toh(other); });
    *count = static_cast<uint32_t>(std::unique(begin, end) - begin);
    return true;
}

Ostrel_Status MakeSlots(Ostrel_ServerObj* server, std::span<const Ostrel_FixedLease> fixed) {
    const uint32_t inRange = SlotsOfRange(server);
    os_array<Ostrel_IPv4> outside;
    uint32_t numOutside = 0;
    const bool found = FindOutside(server, fixed, &outside, &numOutside);
    OSTREL_REQUIRE(found, "server->leases", kOutOfMemoryErr);
    server->leases = os_new_records<Ostrel_LeaseInformation>(inRange + numOutside);
    OSTREL_REQUIRE(server->leases != nullptr, "server->leases", kOutOfMemoryErr);
    server->numSlots = inRange + numOutside;
    for (uint32_t slot = 0; slot < server->numSlots; ++slot) {
        Ostrel_LeaseInformation& lease = server->leases[slot];
        lease.IPv4Address = slot < inRange ? Ostrel_LeaseAddressOfSlot(server, slot) : outside[slot - inRange];
        lease.state = kLeaseStateFree;
        DebugPrintF(kDebugLevelVerbose, "%s Adding %.4a as an available lease.\n", NameOf(server), &lease.IPv4Address);
    }
    for (const Ostrel_FixedLease& kept : fixed) {
        Ostrel_LeaseInformation* const lease = Ostrel_LeaseSlotOfAddress(server, kept.IPv4Address);
        lease->isKept = true;
        lease->state = kLeaseStateKept;
    }
    for (const Ostrel_LeaseInformation& lease : Ostrel_LeaseSlotsOf(server)) ++server->slotsIn[lease.state];
    return kNoErr;
}

Ostrel_Status MakeFixed(Ostrel_ServerObj* server, std::span<const Ostrel_FixedLease> fixed) {
    server->fixed = os_new_records<Ostrel_FixedClient>(fixed.size());
    OSTREL_REQUIRE(server->fixed != nullptr, "server->fixed", kOutOfMemoryErr);
    for (const Ostrel_FixedLease& lease : fixed) {
        Ostrel_FixedClient& client = server->fixed[server->numFixed];
        client.key = KeyOf(server, lease.client);
        client.slot = Ostrel_LeaseSlotNumber(server, Ostrel_LeaseSlotOfAddress(server, lease.IPv4Address));
        ++server->numFixed;
        if (lease.hostName == nullptr) continue;
        client.hostNameLength = static_cast<uint32_t>(std::strlen(lease.hostName.get()));
        client.hostName =
            os_copy_array<uint8_t>({reinterpret_cast<const uint8_t*>(lease.hostName.get()), client.hostNameLength});
        OSTREL_REQUIRE(client.hostName != nullptr, "server->fixed", kOutOfMemoryErr);
    }
    std::sort(server->fixed.get(), server->fixed.get() + server->numFixed,
              [](const Ostrel_FixedClient& one, const Ostrel_FixedClient& other) { return one.key < other.key; });
    return kNoErr;
}

// Why a lease can't be given back; null when it can.
const char* FaultOf(const Ostrel_ServerObj* server, const Ostrel_KeptLease& kept, const Ostrel_ServerClient& client) {
    const Ostrel_LeaseInformation* const lease = Ostrel_LeaseSlotOfAddress(server, kept.IPv4Address);
    if (kept.remaining == 0) return "it is over";
    if (lease == nullptr) return "its address is not the server's to give";
    const Ostrel_FixedClient* const fixed = Ostrel_DHCPServerFixedOf(server, client);
    const bool isItsOwn = fixed == nullptr || &server->leases[fixed->slot] == lease;
    const bool isOpen = lease->state == kLeaseStateFree || (lease->state == kLeaseStateKept && fixed != nullptr);
    if (!isOpen || !isItsOwn) return "the address is kept for, or had by, another client";
    return Ostrel_DHCPServer_LeaseIsHolder(server, client) ? "its client has another address" : nullptr;
}

Ostrel_Status GiveBack(Ostrel_ServerObj* server, const Ostrel_KeptLease& kept, uint32_t now) {
    const std::span<const uint8_t> identifier = IdentifierOf(kept.client);
    const bool isByIdentifier = server->rules->knowsByIdentifier && !identifier.empty();
    const Ostrel_ServerClient client{.station = kept.client.mac,
                                     .key = isByIdentifier ? Ostrel_DHCPServerKeyOf(server, identifier)
                                                           : Ostrel_DHCPServerKeyOfAddress(server, kept.client.mac),
                                     .identifier = identifier};
    if (const char* const fault = FaultOf(server, kept, client); fault != nullptr) {
        DebugPrintF(kDebugLevelWarning, "[%s] Lease %.4a of %.6a is not given back: %s.\n", NameOf(server),
                    &kept.IPv4Address, kept.client.mac, fault);
        return kNoErr;
    }
    Ostrel_LeaseInformation* const lease = Ostrel_LeaseSlotOfAddress(server, kept.IPv4Address);
    const uint32_t age = server->leaseTime - std::min(kept.remaining, server->leaseTime);
    std::span<const uint8_t> hostName;
    if (kept.hostName != nullptr)
        hostName = {reinterpret_cast<const uint8_t*>(kept.hostName.get()), std::strlen(kept.hostName.get())};
    Ostrel_DHCPServer_LeaseClaim(server, lease, client.station, client.key);
    Ostrel_DHCPServer_LeaseActivate(server, lease, client.station, now - age, hostName);
    const bool isCopied = Ostrel_DHCPServer_LeaseKeepIdentifier(lease, identifier) &&
                          Ostrel_DHCPServer_LeaseKeepHostName(lease, hostName);
    OSTREL_REQUIRE(isCopied, "server->leases", kOutOfMemoryErr);
    return kNoErr;
}

// What LeasesInitialize has always asked of a mask; where the subnet is looked at exactly, Server.cpp has done so.
Ostrel_Status CheckMask(const Ostrel_ServerObj* server) {
    const uint32_t mask = be32toh(server->IPv4SubnetMask);
    OSTREL_REQUIRE_IN("Ostrel_DHCPServer_LeasesInitialize", ~mask > SlotsOfRange(server),
                      "(~server->IPv4SubnetMask > server->maxLeases)", kBadParamErr);
    OSTREL_REQUIRE_IN("Ostrel_DHCPServer_LeasesInitialize", (mask & 0xFF) == 0 || server->rules->subnetIsExact,
                      "(server->IPv4SubnetMask < 0x01000000)", kBadParamErr);
    return kNoErr;
}

}  // namespace

Ostrel_IPv4 Ostrel_LeaseAddressOfSlot(const Ostrel_ServerObj* server, uint32_t slot) {
    const uint32_t start = be32toh(server->IPv4RangeStart);
    return htobe32((start & ~kCountingBits) | ((start + slot) & kCountingBits));
}

Ostrel_LeaseInformation* Ostrel_LeaseSlotOfAddress(const Ostrel_ServerObj* server, Ostrel_IPv4 address) {
    if (const auto slot = NumberInRange(server, address)) return &server->leases[*slot];
    const std::span<Ostrel_LeaseInformation> outside = Ostrel_LeaseSlotsOf(server).subspan(SlotsOfRange(server));
    const auto place = std::lower_bound(
        outside.begin(), outside.end(), be32toh(address),
        [](const Ostrel_LeaseInformation& lease, uint32_t number) { return be32toh(lease.IPv4Address) < number; });
    return place != outside.end() && place->IPv4Address == address ? &*place : nullptr;
}

Ostrel_Status Ostrel_DHCPServer_LeasesInitialize(Ostrel_ServerObj* server, const Ostrel_ServerValues& values) {
    const std::span<const Ostrel_FixedLease> fixed(values.fixed.get(), values.numFixed);
    Ostrel_Status status = CheckMask(server);
    if (status == kNoErr) status = MakeSlots(server, fixed);
    if (status == kNoErr) status = Ostrel_LeaseIndexInitialize(server);
    if (status == kNoErr && !fixed.empty()) status = MakeFixed(server, fixed);
    if (status != kNoErr) return status;

    Ostrel_LeaseInformation* const router = Ostrel_LeaseSlotOfAddress(server, server->IPv4Router);
    if (server->rules->subnetIsExact && router != nullptr && router->state == kLeaseStateFree)
        Ostrel_DHCPServer_LeaseHoldForGood(server, router);
    return Ostrel_DHCPServer_LeasesGiveBack(server, values);
}

// The oldest first, as the index wants them.
Ostrel_Status Ostrel_DHCPServer_LeasesGiveBack(Ostrel_ServerObj* server, const Ostrel_ServerValues& values) {
    const std::span<const Ostrel_KeptLease> kept(values.kept.get(), values.numKept);
    if (kept.empty()) return kNoErr;
    const os_array<uint32_t> order = os_zalloc_array<uint32_t>(kept.size());
    OSTREL_REQUIRE(order != nullptr, "server->leases", kOutOfMemoryErr);
    const std::span<uint32_t> numbers(order.get(), kept.size());
    for (uint32_t i = 0; i < numbers.size(); ++i) numbers[i] = i;
    std::sort(numbers.begin(), numbers.end(), [&kept](uint32_t one, uint32_t other) {
        return std::pair(kept[one].remaining, one) < std::pair(kept[other].remaining, other);
    });
    const uint32_t now = os_monotonic_seconds();
    for (const uint32_t number : numbers) {
        const Ostrel_Status status = GiveBack(server, kept[number], now);
        if (status != kNoErr) return status;
    }
    return kNoErr;
}
