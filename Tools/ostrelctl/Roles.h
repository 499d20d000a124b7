// What an interface can be told to be, as options: of the commands `client` and `server`, and by the same names in
// files.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Arguments.h"
#include "Checks.h"
#include "ServedValues.h"

namespace ostrelctl {

struct ClientOptions {
    std::string interface;
    bool dhcp = false;
    std::optional<Network> fixed;        // --static
    std::optional<Ostrel_IPv4> address;  // --address
    std::optional<Ostrel_IPv4> router;
    std::vector<Ostrel_IPv4> dnsServers;
    std::optional<std::string> domainName, clientIdentifier;
    std::optional<std::string> hostName;
    std::string linkLocal;  // "always", "fallback"; empty: none
    bool plain = false;
    bool noStart = false;
};

struct ServerOptions {
    std::string interface;
    std::optional<Network> network;
    std::optional<Range> range;
    std::optional<uint32_t> count;
    std::optional<Ostrel_IPv4> router;
    std::vector<Ostrel_IPv4> dnsServers;
    std::optional<std::string> domainName;
    std::optional<int64_t> leaseSeconds;
    std::vector<FixedLease> fixed;
    std::vector<ServedOption> served;
    std::string keepFile;
    bool plain = false;
};

// The options of a role, all but those that only a command has: interface, --no-start, --keep.
void AddClientOptions(CLI::App& command, ClientOptions& options);
void AddServerOptions(CLI::App& command, ServerOptions& options);

// Whether the values go together; complains and gives kExitUsage when they don't.
[[nodiscard]] ExitStatus CheckClient(const ClientOptions& options);
[[nodiscard]] ExitStatus PlanServer(const ServerOptions& options, ServerPlan& plan);

// Whether the client has to be started once it is handed over. A static one publishes its address by itself.
[[nodiscard]] bool HasToStart(const ClientOptions& options);

// How many addresses a whole range has.
[[nodiscard]] uint32_t CountOf(const Range& range);

// What hands the interface over.
[[nodiscard]] valdo::JValue RequestOf(const ClientOptions& options);
[[nodiscard]] valdo::JValue RequestOf(const ServerOptions& options, const ServerPlan& plan);

}  // namespace ostrelctl
