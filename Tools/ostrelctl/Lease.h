// What the daemon says of leases, read into records.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Ostrel/Address.h"

#include "valdo.h"

namespace ostrelctl {

constexpr int64_t kForever = INT64_MAX;

// When a lease began and when it ends, in seconds since 1970 as the device's clock is now; kForever: it does not end.
struct LeaseTimes {
    int64_t began = 0;
    int64_t ends = kForever;
};

// A way that a lease gives. With a router of kAnyIPv4 the destination is on the link.
struct LeaseRoute {
    Ostrel_IPv4 destination = kAnyIPv4;
    unsigned prefixLength = 0;
    Ostrel_IPv4 router = kAnyIPv4;

    bool operator==(const LeaseRoute&) const = default;
};

// What a client interface holds. Without an address all else is empty; a link-local address has no times.
struct ClientLease {
    std::string interface;
    Ostrel_IPv4 address = kAnyIPv4;
    Ostrel_IPv4 mask = kAnyIPv4;
    std::vector<Ostrel_IPv4> routers, dnsServers;
    std::string domainName;                  // any bytes, from the network
    std::vector<LeaseRoute> routes;          // of option 121, in place of routers
    std::vector<std::string> searchDomains;  // likewise any bytes
    int64_t mtu = 0;                         // bytes; 0: none
    std::string others;                      // what was asked for and came beside all these, in words
    std::optional<LeaseTimes> times;         // of a lease; a static address is a lease that does not end
};

// A line of a server's table.
struct ServerLease {
    std::string interface;
    Ostrel_IPv4 address = kAnyIPv4;
    std::string mac;
    std::string hostName, clientIdentifier;  // any bytes, from the network
    LeaseTimes times;
};

// The leases in a reply or post of "/client" and "/server" leaseInformation, in its order. An entry that is not
// understood is left out.
[[nodiscard]] std::vector<ClientLease> ReadClientLeases(const valdo::JValue& root);
[[nodiscard]] std::vector<ServerLease> ReadServerLeases(const valdo::JValue& root);

// When a lease began, from the daemon's local text ("Mon Nov 16 11:40:22 2026"), in seconds since 1970; 0 when that is
// no time. `now` tells the hour that stands twice when daylight saving time ends: the lease has begun, and not ended.
[[nodiscard]] int64_t ReadBeginning(const std::string& text, int64_t leaseSeconds, int64_t now);

[[nodiscard]] bool IsLinkLocal(Ostrel_IPv4 address);  // 169.254/16
[[nodiscard]] unsigned PrefixLength(Ostrel_IPv4 mask);
[[nodiscard]] std::string AddressText(Ostrel_IPv4 address);
[[nodiscard]] std::string AddressText(const std::vector<Ostrel_IPv4>& addresses);    // with commas between
[[nodiscard]] std::string AddressWithPrefix(Ostrel_IPv4 address, Ostrel_IPv4 mask);  // "192.0.2.7/24"

// "7 h 12 min", "45 s": the two largest units of a span that is not negative.
[[nodiscard]] std::string SpanText(int64_t seconds);

// A time as the device's clock shows it: "13:40:22" when that is today, else "2026-11-24 13:40".
[[nodiscard]] std::string ClockText(int64_t when, int64_t now);

}  // namespace ostrelctl
