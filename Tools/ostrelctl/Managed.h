// The interfaces that the daemon manages, and how: its configuration dump, read into records.
#pragma once

#include <string>
#include <vector>

#include "Ostrel/Address.h"

#include "Bus.h"

namespace ostrelctl {

constexpr char kNothingManaged[] = "nothing is managed; start with 'ostrelctl client IFACE'";

// What has no meaning in a role is empty.
struct Managed {
    std::string interface;
    bool server = false;  // else a client
    bool rfc = false;     // by the rules of the RFCs, else by the plain ones
    Ostrel_IPv4 address = kAnyIPv4;
    std::vector<Ostrel_IPv4> routers, dnsServers;
    std::string domainName;

    // client
    bool linkLocal = false;
    bool linkLocalIsFallback = false;
    std::string addressing;  // "dhcp", "static", "dhcpManualAddress"
    Ostrel_IPv4 mask = kAnyIPv4;
    std::string clientIdentifier;

    // server
    Ostrel_IPv4 network = kAnyIPv4;  // the daemon does not show its mask
    Ostrel_IPv4 rangeFirst = kAnyIPv4, rangeLast = kAnyIPv4;
    int64_t maxLeases = 0;
    int64_t leaseSeconds = 0;
};

[[nodiscard]] std::vector<Managed> ReadManaged(const valdo::JValue& root);

// "rfc" or "plain".
[[nodiscard]] const char* RulesText(const Managed& interface);

// "server", "client by DHCP", "client, static address, else link-local".
[[nodiscard]] std::string RoleText(const Managed& interface);

// Asks for all interfaces or, when it is not empty, for the one named; complains when that is not managed.
[[nodiscard]] ExitStatus AskManaged(const Session& session, const std::string& name, std::vector<Managed>& interfaces);

// Says that the interface, which is to be managed or else is to be released, is not managed.
[[nodiscard]] ExitStatus ComplainOfUnmanaged(const std::string& name, bool isToBe);

// Asks the daemon to manage an interface as `request` says, and to do something with one that it manages. When it
// refuses they find out why and complain.
[[nodiscard]] bool IsManagedByRFC(const Session& session, const std::string& name);
[[nodiscard]] ExitStatus HandOver(const Session& session, const std::string& name, const valdo::JValue& request);
// What HandOver says of an answer that the daemon has given already.
[[nodiscard]] ExitStatus ExplainHandOver(const Session& session, const std::string& name, const Answer& answer);
// Of the keys that it takes strictly the daemon says which one it refuses, and why; else empty.
[[nodiscard]] std::string ProblemOf(const Answer& answer);
[[nodiscard]] ExitStatus ActOn(const Session& session, const std::string& name, const Method& method,
                               const valdo::JValue& request);

}  // namespace ostrelctl
