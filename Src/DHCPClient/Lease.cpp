// What the client object holds: its identifier, the options it asks for, the offers, the lease.
#include <algorithm>
#include <utility>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPClient/Machine.h"

Ostrel_Status Ostrel_DHCPSetupClientIdentifier(Ostrel_ClientObj* client, uint8_t type,
                                               std::span<const uint8_t> identifier) {
    const size_t length = identifier.size() + 1;
    OSTREL_REQUIRE(length <= kOptionMaxData, "( length <= kOptionMaxData )", kTooLongErr);
    os_array<uint8_t> clientIdentifier = os_zalloc_array<uint8_t>(length);
    OSTREL_REQUIRE(clientIdentifier != nullptr, "clientIdentifier", kOutOfMemoryErr);

    clientIdentifier[0] = type;
    std::copy(identifier.begin(), identifier.end(), clientIdentifier.get() + 1);
    client->clientIdentifier = std::move(clientIdentifier);
    client->clientIdentifierLen = static_cast<uint32_t>(length);
    DebugPrintF(kDebugLevelInfo, "DHCP Client Indentifier");
    DebugHexDump(kDebugLevelInfo, {client->clientIdentifier.get(), length});
    return kNoErr;
}

Ostrel_Status Ostrel_DHCPAddRequestedOption(Ostrel_ClientObj* client, uint8_t code) {
    os_array<uint8_t> newOptions =
        os_copy_array<uint8_t>({client->requestedOptions.get(), client->numRequestedOptions}, 1);
    OSTREL_REQUIRE(newOptions != nullptr, "newOptions", kOutOfMemoryErr);
    newOptions[client->numRequestedOptions] = code;
    client->requestedOptions = std::move(newOptions);
    ++client->numRequestedOptions;
    return kNoErr;
}

void Ostrel_DHCPClientFreeLeaseOffers(Ostrel_ClientObj* client) {
    // One by one: a chain that frees itself would do so from within itself, as deep as it is long.
    while (client->leaseOffers != nullptr) client->leaseOffers = std::move(client->leaseOffers->next);
}

void Ostrel_DHCPClientFreeLeaseInfo(Ostrel_ClientObj* client) {
    client->lease = {};
}

void Ostrel_DHCPClientResetLeaseInfo(Ostrel_ClientObj* client) {
    if (Ostrel_DHCPClientIsStatic(client)) return;
    Ostrel_DHCPClientSetHeld(client, false);
    const Ostrel_IPv4 manualAddress = client->lease.IPv4Address;
    Ostrel_DHCPClientFreeLeaseInfo(client);
    if ((client->configMode & kOstrelConfigDHCPManualAddress) != 0) client->lease.IPv4Address = manualAddress;
}
