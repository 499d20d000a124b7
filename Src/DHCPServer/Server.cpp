// The server's life: its configuration is checked, taken over, and printed to the system log; then the lease table is
// built. What fails leaves nothing behind.
//
// The plain rules of the check keep the range, and the address after it, in the router's subnet, and the server out of
// the range. They do not say that the server's own address is in that subnet too, or the router out of the range: such
// configurations are taken, with a warning. The rfc rules are those of the subnet: all are hosts of it.
#include <algorithm>
#include <array>
#include <cstring>
#include <endian.h>
#include <memory>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"

#include "DHCPServer/GivenLeases.h"
#include "DHCPServer/LeaseEvents.h"
#include "DHCPServer/LeaseIndex.h"  // which a server owns
#include "DHCPServer/LeaseTable.h"
#include "DHCPServer/Probe.h"
#include "DHCPServer/Slots.h"

namespace {

struct ServerDeleter {
    void operator()(Ostrel_ServerObj* server) const { Ostrel_DHCPServerFinalize(server); }
};
using OwnedServer = std::unique_ptr<Ostrel_ServerObj, ServerDeleter>;

struct LabelledAddress {
    const char* label;
    Ostrel_IPv4 address;
};

// What the check derives from a configuration.
struct Derived {
    Ostrel_IPv4 rangeEnd;  // the last address
    Ostrel_IPv4 network;
    Ostrel_IPv4 broadcast;
    Ostrel_IPv4 routerBase;
    Ostrel_IPv4 rangeStartBase;
    Ostrel_IPv4 rangeEndBase;  // of the address after the last
};

Ostrel_IPv4 AddressAfter(Ostrel_IPv4 address, uint32_t count) {
    return htobe32(be32toh(address) + count);
}

Derived Derive(const Ostrel_InterfaceConfig* config) {
    const Ostrel_IPv4 mask = config->IPv4SubnetMask;
    const auto leases = static_cast<uint32_t>(config->maxLeases);
    return {.rangeEnd = AddressAfter(config->IPv4RangeStart, leases - 1),
            .network = config->IPv4Address & mask,
            .broadcast = config->IPv4Address | ~mask,
            .routerBase = config->IPv4Router & mask,
            .rangeStartBase = config->IPv4RangeStart & mask,
            .rangeEndBase = AddressAfter(config->IPv4RangeStart, leases) & mask};
}

void LogAddresses(std::span<const LabelledAddress> lines) {
    for (const LabelledAddress& line : lines) Ostrel_LogPrint(kQxLogDebug, "%s %.4a\n", line.label, &line.address);
}

void LogDerived(const Ostrel_InterfaceConfig* config, const Derived& derived) {
    LogAddresses(std::array<LabelledAddress, 8>{{
        {"     inConfig ip address   ", config->IPv4Address},
        {"     inConfig range start  ", config->IPv4RangeStart},
        {"     inConfig range end    ", derived.rangeEnd},
        {"     network   address     ", derived.network},
        {"     broadcast address     ", derived.broadcast},
        {"     router base address   ", derived.routerBase},
        {"     dhcp range start base ", derived.rangeStartBase},
        {"     dhcp range end base   ", derived.rangeEndBase},
    }});
}

bool IsInRange(const Ostrel_InterfaceConfig* config, const Derived& derived, Ostrel_IPv4 address) {
    return be32toh(address) >= be32toh(config->IPv4RangeStart) && be32toh(address) <= be32toh(derived.rangeEnd);
}

bool AddressesAreUsable(const Ostrel_InterfaceConfig* config, const Derived& derived) {
    return derived.routerBase == derived.rangeStartBase && derived.routerBase == derived.rangeEndBase &&
           config->IPv4Address != derived.network && config->IPv4Address != derived.broadcast &&
           config->IPv4Router != derived.network && config->IPv4Router != derived.broadcast && config->maxLeases > 0 &&
           !IsInRange(config, derived, config->IPv4Address);
}

bool SizesAreUsable(const Ostrel_InterfaceConfig* config) {
    const bool nameFits = config->domainName == nullptr || std::strlen(config->domainName) <= kOptionMaxData;
    return config->maxLeases <= kMaxLeasesLimit && config->leaseTime >= 0 && nameFits;
}

bool IsHostOf(const Ostrel_InterfaceConfig* config, Ostrel_IPv4 address) {
    const Ostrel_IPv4 mask = config->IPv4SubnetMask;
    const Ostrel_IPv4 network = config->IPv4Address & mask;
    return (address & mask) == network && address != network && address != (network | ~mask);
}

// The mask is ones, then at least two zeros; addresses count on in the lower three octets.
bool SubnetIsUsable(const Ostrel_InterfaceConfig* config, const Derived& derived) {
    const uint32_t hosts = ~be32toh(config->IPv4SubnetMask);
    const bool isMask = (hosts & (hosts + 1)) == 0 && hosts >= 3;
    const bool counts = (be32toh(config->IPv4RangeStart) ^ be32toh(derived.rangeEnd)) <= 0x00FFFFFF &&
                        be32toh(config->IPv4RangeStart) <= be32toh(derived.rangeEnd);
    const bool hasRouter = config->IPv4Router != kAnyIPv4;
    return isMask && config->maxLeases > 0 && counts && IsHostOf(config, config->IPv4Address) &&
           IsHostOf(config, config->IPv4RangeStart) && IsHostOf(config, derived.rangeEnd) &&
           (!hasRouter || IsHostOf(config, config->IPv4Router)) && !IsInRange(config, derived, config->IPv4Address);
}

bool FixedAreUsable(const Ostrel_InterfaceConfig* config) {
    const std::span<const Ostrel_FixedLease> fixed(config->server.fixed.get(), config->server.numFixed);
    return std::ranges::all_of(fixed, [config](const Ostrel_FixedLease& lease) {
        return IsHostOf(config, lease.IPv4Address) && lease.IPv4Address != config->IPv4Address;
    });
}

void WarnOfMisfits(const Ostrel_InterfaceConfig* config, const Derived& derived) {
    if (derived.network != derived.rangeStartBase) {
        DebugPrintF(kDebugLevelWarning,
                    "[%s] DHCP Server address %.4a is outside the range's subnet; every REQUEST will be refused.\n",
                    config->ifname.data(), &config->IPv4Address);
    }
    if (IsInRange(config, derived, config->IPv4Router)) {
        DebugPrintF(kDebugLevelWarning,
                    "[%s] DHCP Server router %.4a is inside the range; its address will be leased to a client.\n",
                    config->ifname.data(), &config->IPv4Router);
    }
}

Ostrel_Status CheckConfig(const Ostrel_InterfaceConfig* config, const Ostrel_ServerRules& rules) {
    const Derived derived = Derive(config);
    LogDerived(config, derived);
    const bool isUsable = rules.subnetIsExact ? SubnetIsUsable(config, derived) : AddressesAreUsable(config, derived);
    if (!isUsable || !SizesAreUsable(config) || !FixedAreUsable(config)) return kBadParamErr;
    WarnOfMisfits(config, derived);
    return kNoErr;
}

Ostrel_Status CopyDomainName(Ostrel_ServerObj* server, const char* name) {
    if (name == nullptr) return kNoErr;
    const std::string_view text(name);
    server->domainName = os_copy_array<char>(text, 1);
    OSTREL_REQUIRE(server->domainName != nullptr, "server->domainName", kOutOfMemoryErr);
    server->domainNameLength = static_cast<uint32_t>(text.size());
    return kNoErr;
}

Ostrel_Status CopyOptions(Ostrel_ServerObj* server, const Ostrel_OptionList& options) {
    if (options.count == 0) return kNoErr;
    server->options.values = os_new_records<Ostrel_OptionValue>(options.count);
    OSTREL_REQUIRE(server->options.values != nullptr, "server->options", kOutOfMemoryErr);
    for (const Ostrel_OptionValue& option : std::span(options.values.get(), options.count)) {
        os_array<uint8_t> data = os_copy_array<uint8_t>({option.data.get(), option.length});
        OSTREL_REQUIRE(data != nullptr, "server->options", kOutOfMemoryErr);
        server->options.values[server->options.count++] = {option.code, option.forced, std::move(data), option.length};
    }
    return kNoErr;
}

void LogServer(const Ostrel_ServerObj* server) {
    Ostrel_LogPrint(kQxLogDebug, "DHCP Server Config <%s>.\n", server->iface->ifname.data());
    LogAddresses(std::array<LabelledAddress, 8>{{
        {"     IPv4 Address          ", server->IPv4Address},
        {"     IPv4 Subnet Mask      ", server->IPv4SubnetMask},
        {"     IPv4 Subnet           ", server->IPv4Subnet},
        {"     IPv4 Router           ", server->IPv4Router},
        {"     DNS Server 1          ", server->IPv4DNSServers[0]},
        {"     DNS Server 2          ", server->IPv4DNSServers[1]},
        {"     DNS Server 3          ", server->IPv4DNSServers[2]},
        {"     IPv4 Start Range      ", server->IPv4RangeStart},
    }});
    Ostrel_LogPrint(kQxLogDebug, "     Lease Time            %d\n", server->leaseTime);
    const char* name = server->domainName == nullptr ? "NULL" : server->domainName.get();
    Ostrel_LogPrint(kQxLogDebug, "     Domain Name           <%s>\n", name);
    Ostrel_LogPrint(kQxLogDebug, "     Max Leases            %d\n", server->maxLeases);
}

Ostrel_Status TakeOver(Ostrel_ServerObj* server, const Ostrel_InterfaceConfig* config) {
    server->IPv4Address = config->IPv4Address;
    server->IPv4SubnetMask = config->IPv4SubnetMask;
    server->IPv4Subnet = config->IPv4Address & config->IPv4SubnetMask;
    server->IPv4Router = config->IPv4Router;
    server->leaseTime = config->leaseTime == 0 ? kDefaultLeaseTime : static_cast<uint32_t>(config->leaseTime);
    server->IPv4DNSServers = config->IPv4DNSServers;
    const Ostrel_Status status = CopyDomainName(server, config->domainName);
    if (status != kNoErr) return status;
    server->IPv4RangeStart = config->IPv4RangeStart;
    server->maxLeases = config->maxLeases;
    server->probeTime = config->server.probe.value_or(server->rules->probe);
    server->offerTimeout = kOfferTimeout + server->probeTime / 1000;
    LogServer(server);
    return CopyOptions(server, config->server.options);
}

Ostrel_Status Ostrel_BOOTPServerPacketFilterInitialize(Ostrel_ServerObj* server) {
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPPacketFilterInitialize(server->iface, &server->packetFilter, kBOOTPServerPort,
                                                            Ostrel_BOOTPServerPacketFilterHandler));
    return kNoErr;
}

}  // namespace

Ostrel_Status Ostrel_DHCPServerInitialize(Ostrel_InterfaceObj* iface, const Ostrel_InterfaceConfig* config) {
    OSTREL_REQUIRE_NOERR(CheckConfig(config, iface->rules->server));
    OwnedServer server(os_new<Ostrel_ServerObj>());
    OSTREL_REQUIRE(server != nullptr, "server", kOutOfMemoryErr);
    server->iface = iface;
    server->rules = &iface->rules->server;
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPServerPacketFilterInitialize(server.get()));
    const Ostrel_Status status = TakeOver(server.get(), config);
    if (status != kNoErr) return status;
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPServer_LeasesInitialize(server.get(), config->server));
    OSTREL_REQUIRE_NOERR(Ostrel_DHCPServerProbesInitialize(server.get()));
    server->counters = {};  // leases that are given back were granted before
    iface->dhcpServer = server.release();
    if (config->server.leasesFollow) Ostrel_DHCPServerAwaitLeases(iface->dhcpServer);
    Ostrel_DHCPServerAudienceChanged(iface->dhcpServer);
    Ostrel_InterfacePictureChanged(iface);
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPServerLeaseAction(Ostrel_ServerObj* server, Ostrel_IPv4 address, const char* action) {
    const bool isHold = std::strcmp(action, "hold") == 0;
    OSTREL_REQUIRE(isHold || std::strcmp(action, "release") == 0, "action", kBadParamErr);
    Ostrel_LeaseInformation* const lease = Ostrel_LeaseSlotOfAddress(server, address);
    OSTREL_REQUIRE(lease != nullptr, "lease", kNoSuchItemErr);
    if (isHold) {
        Ostrel_DHCPServer_LeaseHoldForGood(server, lease);
    } else if (lease->state == kLeaseStateHeld || Ostrel_LeaseIsInUse(lease->state)) {
        OSTREL_REQUIRE_NOERR(Ostrel_DHCPServer_LeaseClean(server, lease, Ostrel_LeaseEventKind::Freed));
    }
    return Ostrel_VoroServicePublishServerLeaseInformation(server->iface->sysObj, server);
}

void Ostrel_DHCPServerFinalize(Ostrel_ServerObj* server) {
    if (server == nullptr) return;
    Ostrel_DHCPServerProbesFinalize(server);
    Ostrel_DHCPServerForgetEnds(server);
    Ostrel_DHCPServerForgetLeases(server);
    Ostrel_PacketFilterFinalize(&server->packetFilter);
    os_delete(server);
}
