// What can be checked before the daemon is asked.
//
// Each rule of the daemon stands here as a row: what it forbids, and the words for it, with the values. Where the
// daemon takes a server's configuration that cannot serve anybody, and says so in its log only, it is refused here.
#include "Checks.h"

#include <endian.h>

#include "Device.h"
#include "Lease.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

constexpr size_t kMostDnsServers = 3;
constexpr unsigned kLongestServerPrefix = 30, kLongestPlainPrefix = 24;
constexpr int64_t kLongestLease = INT32_MAX;  // seconds

// A row of a table of rules: the first one that is broken is told.
struct Rule {
    bool broken;
    const char* key;  // the option that is wrong
    std::string problem;
    const char* next;
};

ExitStatus CheckRules(std::initializer_list<Rule> rules) {
    for (const Rule& rule : rules)
        if (rule.broken) return RefuseKey(rule.key, rule.problem, rule.next);
    return kExitDone;
}

bool IsIn(const Network& network, Ostrel_IPv4 address) {
    return (address & network.mask) == (network.address & network.mask);
}

Ostrel_IPv4 BroadcastOf(const Network& network) {
    return network.address | ~network.mask;
}

std::string SubnetText(const Network& network) {
    return AddressWithPrefix(network.address & network.mask, network.mask);
}

// The addresses that no host can have (RFC 1122 section 3.2.1.3). A mask of 31 or 32 bits leaves no room for them.
bool IsReserved(const Network& network, Ostrel_IPv4 address) {
    if (PrefixLength(network.mask) > 30) return false;
    return address == (network.address & network.mask) || address == BroadcastOf(network);
}

std::string ReservedText(const Network& network, Ostrel_IPv4 address) {
    const char* const kind = address == BroadcastOf(network) ? "broadcast" : "network";
    return AddressText(address) + ", the " + kind + " address of " + SubnetText(network);
}

ExitStatus CheckRange(const ServerPlan& plan) {
    const Network& network = plan.network;
    const std::string first = AddressText(plan.range.first), last = AddressText(plan.range.last);
    const std::string outside = ", outside " + SubnetText(network);
    const uint32_t begin = be32toh(plan.range.first), end = be32toh(plan.range.last);
    const auto holds = [begin, end](Ostrel_IPv4 address) {
        return be32toh(address) >= begin && be32toh(address) <= end;
    };
    return CheckRules({
        {end < begin, "range", "the range ends at " + last + ", before it begins at " + first,
         "give the lower address first"},
        {!IsIn(network, plan.range.first), "range", "the range begins at " + first + outside, ""},
        {!IsIn(network, plan.range.last), "range", "the range ends at " + last + outside, ""},
        {IsReserved(network, plan.range.first), "range",
         "the range begins at " + ReservedText(network, plan.range.first), ""},
        {IsReserved(network, plan.range.last), "range", "the range ends at " + ReservedText(network, plan.range.last),
         ""},
        {end - begin >= kMostLeases, "range",
         "the range from " + first + " to " + last + " has more than " + std::to_string(kMostLeases) + " addresses",
         ""},
        {holds(network.address), "address",
         "the server's own address " + AddressText(network.address) + " is in the range",
         "let the range begin after it, or end before it"},
        {holds(plan.router), "router",
         "the router " + AddressText(plan.router) + " is in the range, and would be leased", ""},
    });
}

}  // namespace

ExitStatus CheckInterface(const std::string& name) {
    switch (StateOfLink(name)) {
        case LinkState::Absent:
            return Refuse(kExitUsage, "there is no interface '" + Printable(name) + "'", "'ip link' lists them");
        case LinkState::NotEthernet:
            return Refuse(kExitUsage, "'" + Printable(name) + "' is not an Ethernet interface",
                          "'ip link' shows what it is");
        case LinkState::Down:
            Complain("warning: '" + name + "' is down, so nothing will come of it yet", "ip link set " + name + " up");
            return kExitDone;
        case LinkState::NoCarrier:
        case LinkState::Running:
            return kExitDone;
    }
    return kExitDone;
}

ExitStatus CheckOwnAddress(const Network& network, const char* key) {
    const uint32_t first = be32toh(network.address) >> 24;
    const bool unusable = first == 0 || first == 127 || first >= 224;  // this host, loopback, multicast and beyond
    return CheckRules({
        {unusable, key, "no interface can have the address " + AddressText(network.address), ""},
        {IsReserved(network, network.address), key,
         "the interface's own address is " + ReservedText(network, network.address), ""},
    });
}

ExitStatus CheckDnsServers(const std::vector<Ostrel_IPv4>& servers) {
    if (servers.size() <= kMostDnsServers) return kExitDone;
    return RefuseKey("dns", "the daemon takes three DNS servers, not " + std::to_string(servers.size()),
                     "it would leave out " + AddressText(servers[kMostDnsServers]) + " and what follows");
}

ExitStatus CheckServer(const ServerPlan& plan) {
    const Network& network = plan.network;
    const std::string router = AddressText(plan.router);
    const ExitStatus own = CheckOwnAddress(network, "address");
    if (own != kExitDone) return own;
    const unsigned longest = plan.plain ? kLongestPlainPrefix : kLongestServerPrefix;
    const bool hasRouter = plan.router != kAnyIPv4;
    const ExitStatus settings = CheckRules({
        {PrefixLength(network.mask) > longest, "address",
         "the daemon can only serve subnets of /" + std::to_string(longest) + " and larger, not " + SubnetText(network),
         ""},
        {plan.leaseSeconds < 1 || plan.leaseSeconds > kLongestLease, "lease",
         "a lease lasts 1 to " + std::to_string(kLongestLease) + " seconds, not " + std::to_string(plan.leaseSeconds),
         ""},
        {hasRouter && !IsIn(network, plan.router), "router",
         "the router " + router + " is outside " + SubnetText(network), ""},
        {hasRouter && IsReserved(network, plan.router), "router", "the router is " + ReservedText(network, plan.router),
         ""},
    });
    return settings != kExitDone ? settings : CheckRange(plan);
}

void HintAtRouter(const Network& network, Ostrel_IPv4 router) {
    if (IsIn(network, router) && !IsReserved(network, router)) return;
    const bool reserved = IsIn(network, router);
    Complain("warning: the router is " +
                 (reserved ? ReservedText(network, router) : AddressText(router) + ", outside " + SubnetText(network)),
             "it cannot be reached unless a route of yours leads there");
}

void HintAtAddress(const std::string& interface, const Network& network) {
    if (HasAddress(interface, network.address)) return;
    const std::string address = AddressText(network.address);
    Complain("warning: '" + interface + "' does not have the address " + address + ", and the daemon sets none",
             "ip addr add " + AddressWithPrefix(network.address, network.mask) + " dev " + interface);
}

}  // namespace ostrelctl
