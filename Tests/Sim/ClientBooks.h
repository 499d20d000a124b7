// What a client and a selector know, as the models keep it and as it is read from the daemon, and in words.
#pragma once

#include <endian.h>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/LinkLocal.h"

#include "ModelParts.h"

namespace sim::model {

// Host order.
struct ModelLease {
    MAC serverMAC{};
    IPv4 serverAddress = 0;
    IPv4 address = 0;
    IPv4 mask = 0;
    IPv4 server = 0;
    std::vector<IPv4> routers{};
    std::vector<IPv4> dnsServers{};
    uint32_t t1 = 0;
    uint32_t t2 = 0;
    uint32_t time = 0;
    uint32_t acquired = 0;
    std::string domain{};
    uint32_t renewRetry = 0;
    uint32_t rebindRetry = 0;
};

// What a client knows.
struct ClientBooks {
    uint32_t state = 0;
    uint32_t xid = 0;  // as it lies in memory
    uint32_t delayMin = 0;
    uint32_t delayMax = 1;
    std::vector<std::pair<IPv4, IPv4>> offers{};  // server and address
    ModelLease lease{};
};

// What a selector knows.
struct SelectorBooks {
    int32_t state = 0;
    IPv4 address = 0;
    int32_t conflicts = 0;
    int32_t probes = 0;
    int32_t announcements = 0;
    uint32_t interval = 0;
};

struct ClientConfig {
    std::string config = "dhcp";
    std::string address = "0.0.0.0";
    std::string mask = "0.0.0.0";
    std::string router = "0.0.0.0";
    std::vector<std::string> dnsServers{};
    std::string domainName{};
    std::optional<std::string> identifier{};
    bool linkLocal = false;
};

[[nodiscard]] inline std::string StateName(uint32_t state) {
    constexpr const char* kNames[] = {"UNKNOWN",    "INIT",     "REBOOTING", "SELECTING",  "REBINDING",
                                      "REQUESTING", "RENEWING", "BOUND",     "INIT-REBOOT"};
    return kNames[state];
}

[[nodiscard]] inline std::string Words(const ClientBooks& books) {
    std::string text = Join("client ", StateName(books.state), ", xid ", books.xid, ", delays ", books.delayMin, "-",
                            books.delayMax, ", offers");
    for (const auto& [server, address] : books.offers) text += " " + ToText(address) + " of " + ToText(server);
    const ModelLease& lease = books.lease;
    text += Join("; lease ", ToText(lease.address), "/", ToText(lease.mask), " of ", ToText(lease.server), " at ",
                 MACText(lease.serverMAC), " ", ToText(lease.serverAddress), ", routers");
    for (const IPv4 router : lease.routers) text += " " + ToText(router);
    text += ", DNS";
    for (const IPv4 server : lease.dnsServers) text += " " + ToText(server);
    return text + Join(", times ", lease.t1, " ", lease.t2, " ", lease.time, " since ", lease.acquired, ", retries ",
                       lease.renewRetry, " ", lease.rebindRetry, ", domain ", lease.domain.size(), " ", lease.domain);
}

[[nodiscard]] inline std::string Words(const SelectorBooks& books) {
    return Join("; selector ", books.state, " ", ToText(books.address), ", conflicts ", books.conflicts, ", sent ",
                books.probes, " ", books.announcements, ", interval ", books.interval);
}

[[nodiscard]] inline std::vector<IPv4> AddressList(const os_array<Ostrel_IPv4>& addresses, int32_t count) {
    std::vector<IPv4> list;
    for (int32_t i = 0; i < count; ++i) list.push_back(be32toh(addresses[i]));
    return list;
}

// What the client knows, in the model's words.
[[nodiscard]] inline ClientBooks BooksOf(const Ostrel_ClientObj& client) {
    ClientBooks books{client.state, client.transactionID, client.initDelayMin, client.initDelayMax};
    for (const Ostrel_LeaseOffer* offer = client.leaseOffers.get(); offer != nullptr; offer = offer->next.get())
        books.offers.emplace_back(be32toh(offer->serverIdentifier), be32toh(offer->address));
    const Ostrel_ClientLease& lease = client.lease;
    books.lease = {lease.serverMAC,
                   be32toh(lease.serverIPv4Address),
                   be32toh(lease.IPv4Address),
                   be32toh(lease.IPv4SubnetMask),
                   be32toh(lease.serverIdentifier),
                   AddressList(lease.IPv4Routers, lease.numIPv4Routers),
                   AddressList(lease.IPv4DNSServers, lease.numIPv4DNSServers),
                   lease.renewalTime,
                   lease.rebindingTime,
                   lease.leaseTime,
                   lease.leaseAcquired,
                   lease.domainName == nullptr ? "" : std::string(lease.domainName.get(), lease.domainNameLen),
                   lease.renewRetryTime,
                   lease.rebindRetryTime};
    return books;
}

[[nodiscard]] inline SelectorBooks BooksOf(const Ostrel_LinkLocalObj& selector) {
    return {selector.state,     be32toh(selector.IPv4Address), selector.numConflicts,
            selector.numProbes, selector.numAnnounces,         selector.probeInterval};
}

// A member of an object in JSON.
[[nodiscard]] inline std::string AddressesText(const std::string& key, const std::vector<IPv4>& addresses) {
    if (addresses.empty()) return "";
    std::string list;
    for (const IPv4 address : addresses)
        if (address != 0) list += (list.empty() ? "\"" : ",\"") + ToText(address) + '"';
    return ",\"" + key + "\":[" + list + "]";
}

}  // namespace sim::model
