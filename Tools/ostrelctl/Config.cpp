// ostrelctl config: how the managed interfaces were configured, a block for each.
#include <algorithm>
#include <cstdio>
#include <iterator>

#include "Arguments.h"
#include "Bus.h"
#include "Command.h"
#include "Lease.h"
#include "Managed.h"
#include "Page.h"

namespace ostrelctl {

namespace {

struct ConfigOptions {
    std::string interface;
};

void Declare(CLI::App& command, ConfigOptions& options) {
    AddInterface(command, options.interface)->description("Only this interface");
}

Block Describe(const Managed& interface) {
    Block block{.name = Printable(interface.interface), .role = RoleText(interface)};
    const auto put = [&block](const char* label, const std::string& value) {
        if (!value.empty()) block.fields.push_back({.label = label, .value = Printable(value)});
    };
    const auto addressOrNothing = [](Ostrel_IPv4 address) { return address == kAnyIPv4 ? "" : AddressText(address); };
    if (interface.mask != kAnyIPv4)
        put("address", AddressWithPrefix(interface.address, interface.mask));
    else
        put("address", addressOrNothing(interface.address));
    put("network", addressOrNothing(interface.network));
    if (interface.server) {
        put("range", AddressText(interface.rangeFirst) + " to " + AddressText(interface.rangeLast));
        put("addresses", std::to_string(interface.maxLeases));
        put("lease time", SpanText(interface.leaseSeconds));
    }
    put("router", AddressText(interface.routers));
    put("DNS", AddressText(interface.dnsServers));
    put("domain", interface.domainName);
    put("client id", interface.clientIdentifier);
    put("rules", RulesText(interface));
    return block;
}

ExitStatus Run(const ConfigOptions& options, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json, true, session);
    if (opened != kExitDone) return opened;
    std::vector<Managed> interfaces;
    const ExitStatus asked = AskManaged(session, options.interface, interfaces);
    if (asked != kExitDone || settings.json) return asked;
    std::vector<Block> blocks;
    std::transform(interfaces.begin(), interfaces.end(), std::back_inserter(blocks), Describe);
    PrintBlocks(DescribeStandardOutput(), blocks);
    if (blocks.empty()) puts(kNothingManaged);
    return kExitDone;
}

}  // namespace

void AddConfigCommand(CommandLine& line) {
    AddCommand<ConfigOptions>(line, "config", "Show how interfaces are configured",
                              "  ostrelctl config           every managed interface\n"
                              "  ostrelctl config usb0 --json\n",
                              Declare, Run);
}

}  // namespace ostrelctl
