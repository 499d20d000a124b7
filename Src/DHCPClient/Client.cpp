// The client object: made from a configuration, started and stopped by lease actions, finalised with its interface.
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
    if (config->clientIdentifier == nullptr) {
        return Ostrel_DHCPSetupClientIdentifier(client, kIdentifierTypeEthernet, client->iface->macAddr);
    }
    const auto* text = reinterpret_cast<const uint8_t*>(config->clientIdentifier);
    return Ostrel_DHCPSetupClientIdentifier(client, kIdentifierTypeText, {text, std::strlen(config->clientIdentifier)});
}

}  // namespace

Ostrel_Status Ostrel_DHCPClientInitialize(Ostrel_InterfaceObj* iface, const Ostrel_InterfaceConfig* config) {
    os_owner<Ostrel_ClientObj> client(os_new<Ostrel_ClientObj>());
    OSTREL_REQUIRE(client != nullptr, "client", kOutOfMemoryErr);
    client->iface = iface;
    client->rules = &iface->rules->client;
    OSTREL_REQUIRE_NOERR(Ostrel_BOOTPClientPacketFilterInitialize(client.get()));

    client->maxMessageSize = kMaxMessageSize;
    client->initDelayMin = kClientTimeouts[kClientTimeoutInit].shortest / 1000;
    client->initDelayMax = kClientTimeouts[kClientTimeoutInit].longest / 1000;
    client->selectingTime = kClientTimeouts[kClientTimeoutSelecting].longest / 1000;
    client->configMode = config->configMode;
    const bool isStatic = Ostrel_DHCPClientIsStatic(client.get());
    const bool manualAddress = (client->configMode & kOstrelConfigDHCPManualAddress) != 0;
    if (isStatic || manualAddress) client->lease.IPv4Address = config->IPv4Address;
    if (isStatic) FillStaticLease(client.get(), config);

    OSTREL_REQUIRE_NOERR(SetupIdentifierFrom(client.get(), config));
    for (const uint8_t code : kRequestedOptions) {
        OSTREL_REQUIRE_NOERR(Ostrel_DHCPAddRequestedOption(client.get(), code));
    }

    iface->dhcpClient = client.release();
    if (isStatic) {
        Ostrel_DHCPClientArm(iface->dhcpClient, kClientTimeoutArping, 0);
    } else {
        Ostrel_DHCPClientStateTransition_InitReboot(iface->dhcpClient);
    }
    return kNoErr;
}

void Ostrel_DHCPClientFinalize(Ostrel_ClientObj* client) {
    if (client == nullptr) return;
    Ostrel_DHCPClientCancelAllTimeouts(client);
    Ostrel_DHCPClientFreeLeaseOffers(client);
    os_delete(client);
}

Ostrel_Status Ostrel_DHCPClientLeaseAction(Ostrel_InterfaceObj* iface, const char* action,
                                           const Ostrel_ActionValues& /*values*/) {
    OSTREL_REQUIRE(iface->dhcpClient != nullptr, "iface->dhcpClient", kGenericErr);
    const std::string_view word = action;
    if (word == "init" || word == "renew" || word == "rebind") {
        Ostrel_DHCPClientStateTransition_Init(iface->dhcpClient);
        return kNoErr;
    }
    if (word == "halt") {
        Ostrel_DHCPClientStateTransition_InitReboot(iface->dhcpClient);
        return kNoErr;
    }
    DebugPrintF(kDebugLevelInfo, "[%s] DHCP Client unknown action request <%s>.\n", iface->ifname.data(), action);
    return kBadParamErr;
}

void Ostrel_DHCPClientRelease(Ostrel_ClientObj* /*client*/) {}

void Ostrel_DHCPClientLinkChanged(Ostrel_ClientObj* /*client*/, bool /*isRunning*/) {}

void Ostrel_DHCPClientWokeUp(Ostrel_ClientObj* /*client*/) {}
