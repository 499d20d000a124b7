// The client object: made from a configuration, finalised with its interface.
//
// A dhcp client is born idle, in INIT-REBOOT, and sends nothing before a lease action. A static client never talks
// DHCP: its lease is the configuration, published once at birth and again at each lease action but "halt".
#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"

namespace {

constexpr uint16_t kMaxMessageSize = 1500;  // bytes

constexpr std::array<uint8_t, 6> kRequestedOptions{kOptionSubnetMask, kOptionBroadcastAddress, kOptionTimeOffset,
                                                   kOptionRouter,     kOptionDomainNameServer, kOptionDomainName};

Ostrel_Status Ostrel_BOOTPClientPacketFilterInitialize(Ostrel_ClientObj* client) {
    return Ostrel_BOOTPPacketFilterInitialize(client->iface, &client->packetFilter, kBOOTPClientPort,
                                              Ostrel_BOOTPClientPacketFilterHandler);
}

// DNS servers count up to the first empty slot.
int32_t CountLeading(std::span<const Ostrel_IPv4> addresses) {
    return static_cast<int32_t>(std::find(addresses.begin(), addresses.end(), kAnyIPv4) - addresses.begin());
}

// The configuration becomes the lease. Routers, DNS servers and domain name that memory has no room for are left out.
void FillStaticLease(Ostrel_ClientObj* client, const Ostrel_InterfaceConfig* config) {
    Ostrel_ClientLease& lease = client->lease;
    lease.IPv4SubnetMask = config->IPv4SubnetMask;

    lease.IPv4Routers = os_copy_array<Ostrel_IPv4>({&config->IPv4Router, 1});
    if (lease.IPv4Routers != nullptr) {
        lease.numIPv4Routers = 1;
    } else {
        OSTREL_REPORT_EXPRESSION("client->lease.IPv4Routers");
    }

    const std::span<const Ostrel_IPv4> servers = config->IPv4DNSServers;
    lease.IPv4DNSServers = os_copy_array<Ostrel_IPv4>(servers);
    if (lease.IPv4DNSServers != nullptr) {
        lease.numIPv4DNSServers = CountLeading(servers);
    } else {
        OSTREL_REPORT_EXPRESSION("client->lease.IPv4DNSServers");
    }

    if (config->domainName == nullptr) return;
    const std::string_view name = config->domainName;
    lease.domainName = os_copy_array<char>(name, 1);
    if (lease.domainName != nullptr) lease.domainNameLen = static_cast<uint32_t>(name.size());
}

Ostrel_Status SetupIdentifierFrom(Ostrel_ClientObj* client, const Ostrel_InterfaceConfig* config) {
    const Ostrel_ClientValues& values = config->client;
    if (values.clientIdentifierLength != 0) {
        const std::span<const uint8_t> identifier{values.clientIdentifier.get(), values.clientIdentifierLength};
        return Ostrel_DHCPSetupClientIdentifier(client, identifier[0], identifier.subspan(1));
    }
    client->identifierIsAddress = config->clientIdentifier == nullptr;
    if (client->identifierIsAddress) {
        return Ostrel_DHCPSetupClientIdentifier(client, kIdentifierTypeEthernet, client->iface->macAddr);
    }
    const auto* text = reinterpret_cast<const uint8_t*>(config->clientIdentifier);
    return Ostrel_DHCPSetupClientIdentifier(client, kIdentifierTypeText, {text, std::strlen(config->clientIdentifier)});
}

// The usual options, then those of the caller that are not among them; what comes under the caller's is kept.
Ostrel_Status SetupRequestedOptions(Ostrel_ClientObj* client, std::span<const uint8_t> wanted) {
    for (const std::span<const uint8_t> codes : {std::span<const uint8_t>{kRequestedOptions}, wanted}) {
        for (const uint8_t code : codes) {
            const std::span<const uint8_t> known{client->requestedOptions.get(), client->numRequestedOptions};
            if (std::find(known.begin(), known.end(), code) != known.end()) continue;
            const Ostrel_Status status = Ostrel_DHCPAddRequestedOption(client, code);
            if (status != kNoErr) return status;
        }
    }
    if (wanted.empty()) return kNoErr;
    client->wantedOptions = os_copy_array<uint8_t>(wanted);
    OSTREL_REQUIRE(client->wantedOptions != nullptr, "client->wantedOptions", kOutOfMemoryErr);
    client->numWantedOptions = static_cast<uint32_t>(wanted.size());
    return kNoErr;
}

// What a caller gave beside the usual values.
Ostrel_Status TakeValues(Ostrel_ClientObj* client, const Ostrel_ClientValues& values) {
    client->broadcast = values.broadcast;
    client->arpCheck = values.arpCheck.value_or(client->rules->arpCheck);
    const Ostrel_Status status = SetupRequestedOptions(client, {values.requested.get(), values.numRequested});
    return status == kNoErr ? Ostrel_DHCPClientKeepSentOptions(client, values.sent) : status;
}

}  // namespace

Ostrel_Status Ostrel_DHCPClientInitialize(Ostrel_InterfaceObj* iface, const Ostrel_InterfaceConfig* config) {
    os_owner<Ostrel_ClientObj> client(os_new<Ostrel_ClientObj>());
    OSTREL_REQUIRE(client != nullptr, "client", kOutOfMemoryErr);
    client->iface = iface;
    client->rules = &iface->rules->client;
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPClientPacketFilterInitialize(client.get()));

    client->macAddr = iface->macAddr;
    client->asleep = os_milliseconds_asleep();
    client->story.since = os_monotonic_milliseconds();
    client->maxMessageSize = kMaxMessageSize;
    client->initDelayMin = kClientTimeouts[kClientTimeoutInit].shortest / 1000;
    client->initDelayMax = kClientTimeouts[kClientTimeoutInit].longest / 1000;
    client->configMode = config->configMode;
    const bool isStatic = Ostrel_DHCPClientIsStatic(client.get());
    const bool manualAddress = (client->configMode & kOstrelConfigDHCPManualAddress) != 0;
    if (isStatic || manualAddress) client->lease.IPv4Address = config->IPv4Address;
    if (isStatic) FillStaticLease(client.get(), config);

    OSTREL_REQUIRE_NOERR(SetupIdentifierFrom(client.get(), config));
    OSTREL_REQUIRE_NOERR(TakeValues(client.get(), config->client));

    iface->dhcpClient = client.release();
    if (isStatic) {
        Ostrel_DHCPClientArm(iface->dhcpClient, kClientTimeoutArping, 0);
    } else {
        Ostrel_DHCPClientStateTransition_InitReboot(iface->dhcpClient, Ostrel_Reason::Start);
    }
    return kNoErr;
}

void Ostrel_DHCPClientFinalize(Ostrel_ClientObj* client) {
    if (client == nullptr) return;
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    os_delete(client);
}
