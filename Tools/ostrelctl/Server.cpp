// ostrelctl server: an interface hands out addresses.
//
// The daemon wants a first address and how many; people say it either way. All of its rules are checked before it is
// asked, see Checks.cpp.
#include <arpa/inet.h>
#include <cstdio>

#include "Ostrel/OstrelJsonUtils.h"

#include "Arguments.h"
#include "Bus.h"
#include "Checks.h"
#include "Command.h"
#include "Fields.h"
#include "KeptLeases.h"
#include "Lease.h"
#include "Managed.h"
#include "Roles.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr int64_t kUsualLease = 86400;  // seconds

void Declare(CLI::App& command, ServerOptions& options) {
    AddInterface(command, options.interface)->required();
    AddServerOptions(command, options);
    command
        .add_option("--keep", options.keepFile, "Stay, keep the leases in this file, and give them back at the start")
        ->type_name("FILE");
}

// The range with its last address; complains unless it is said in just one way.
ExitStatus CompleteRange(const ServerOptions& options, Range& range) {
    range = *options.range;
    const bool hasLast = range.last != kAnyIPv4;
    if (hasLast && options.count)
        return RefuseKey("count", "--count goes with the first address only, not with a whole range",
                         "--range " + AddressText(range.first) + " --count " + std::to_string(*options.count));
    if (!hasLast && !options.count)
        return RefuseKey("range", "--range has no end", "write it FIRST-LAST, or say how many addresses with --count");
    if (!hasLast) range.last = htonl(ntohl(range.first) + *options.count - 1);
    return kExitDone;
}

// A daemon that does not know the rules that it was asked for hands out the router 0.0.0.0 where it should none.
ExitStatus MendForOldDaemon(const Session& session, const ServerOptions& options, ServerPlan plan) {
    if (plan.plain || IsManagedByRFC(session, options.interface)) return kExitDone;
    Complain("warning: the daemon is older than this command, and goes by its plain rules", "restart it");
    if (plan.router != kAnyIPv4) return kExitDone;
    plan.router = plan.network.address;
    const ExitStatus released = ActOn(session, options.interface, kInterfaceFinalize, RequestFor(options.interface));
    return released == kExitDone ? HandOver(session, options.interface, RequestOf(options, plan)) : released;
}

void Confirm(const std::string& interface, const ServerPlan& plan) {
    const uint32_t count = CountOf(plan.range);
    printf("%s: server of %u address%s, %s to %s, for %s each\n", interface.c_str(), count, count == 1 ? "" : "es",
           AddressText(plan.range.first).c_str(), AddressText(plan.range.last).c_str(),
           SpanText(plan.leaseSeconds).c_str());
}

ExitStatus Run(const ServerOptions& options, const Settings& settings) {
    ServerPlan plan;
    ExitStatus planned = PlanServer(options, plan);
    if (planned == kExitDone) planned = CheckInterface(options.interface);
    if (planned != kExitDone) return planned;
    Session session;
    const ExitStatus opened = OpenSession(settings.json, true, session);
    if (opened != kExitDone) return opened;
    const KeptLeases kept{
        .interface = options.interface, .file = options.keepFile, .request = RequestOf(options, plan)};
    ExitStatus handed = options.keepFile.empty() ? HandOver(session, options.interface, kept.request)
                                                 : HandOverWithLeases(session, kept);
    if (handed == kExitDone) handed = MendForOldDaemon(session, options, plan);
    if (handed != kExitDone) return handed;

    if (!settings.json) Confirm(options.interface, plan);
    HintAtAddress(options.interface, plan.network);
    return options.keepFile.empty() ? kExitDone : KeepLeases(kept, settings);
}

}  // namespace

void AddServerOptions(CLI::App& command, ServerOptions& options) {
    AddNetwork(command, "--address", options.network, "The server's own address and its subnet")->required();
    AddParsed(command, "--range", options.range, ReadRange, "a range such as 192.0.2.100-192.0.2.199",
              "The addresses to hand out, or the first of --count")
        ->required()
        ->type_name("FIRST[-LAST]");
    AddParsed(command, "--count", options.count, ReadCount, "a number above 0",
              "How many addresses, when --range is only the first")
        ->type_name("N");
    AddAddress(command, "--router", options.router,
               "The router to hand out; otherwise none, or with --plain the server itself");
    AddDnsServers(command, options.dnsServers);
    AddText(command, "--domain", options.domainName, kLongestDomainName, "The domain name to hand out");
    AddParsed(command, "--lease", options.leaseSeconds, ReadSpan, "a time such as 3600, 90m, 12h or 7d",
              "How long a lease lasts; otherwise a day")
        ->type_name("TIME");
    AddRepeated(command, "--fixed", options.fixed, ReadFixed, "such as 02:00:5e:10:00:01=192.0.2.7,camera",
                "Keep this address for that station; repeated for others")
        ->type_name("MAC=ADDR[,NAME]");
    AddRepeated(command, "--option", options.served, ReadServedOption, OptionWords(),
                "An option to hand out; repeated for others")
        ->type_name("CODE=VALUE");
    command.add_flag("--plain", options.plain, "By the daemon's plain rules instead of those of the RFCs");
}

ExitStatus PlanServer(const ServerOptions& options, ServerPlan& plan) {
    plan = {.network = *options.network,
            .router = options.router.value_or(options.plain ? options.network->address : kAnyIPv4),
            .leaseSeconds = options.leaseSeconds.value_or(kUsualLease),
            .plain = options.plain};
    ExitStatus checked = CompleteRange(options, plan.range);
    if (checked == kExitDone) checked = CheckDnsServers(options.dnsServers);
    if (checked == kExitDone) checked = CheckServer(plan);
    return checked;
}

uint32_t CountOf(const Range& range) {
    return ntohl(range.last) - ntohl(range.first) + 1;
}

JValue RequestOf(const ServerOptions& options, const ServerPlan& plan) {
    JValue request = RequestFor(options.interface);
    request.put("mode", "server");
    OstrelJsonUtilsIPv4Put(request, "ipv4Address", plan.network.address);
    OstrelJsonUtilsIPv4Put(request, "ipv4Subnet", plan.network.mask);
    OstrelJsonUtilsIPv4Put(request, "ipv4Router", plan.router);
    OstrelJsonUtilsIPv4ArrayPut(request, "dnsServers", options.dnsServers);
    if (options.domainName) request.put("domainName", options.domainName->c_str());
    OstrelJsonUtilsIPv4Put(request, "ipv4RangeStart", plan.range.first);
    request.put("maxLeases", CountOf(plan.range));
    request.put("leaseTime", plan.leaseSeconds);
    if (!plan.plain) request.put("rfc", true);
    PutFixed(request, options.fixed);
    PutServedOptions(request, options.served);
    return request;
}

void AddServerCommand(CommandLine& line) {
    AddCommand<ServerOptions>(
        line, "server", "Hand out addresses on an interface",
        "  ostrelctl server usb0 --address 192.0.2.1/24 --range 192.0.2.100-192.0.2.199\n"
        "  ostrelctl server usb0 --address 192.0.2.1/24 --range 192.0.2.100 --count 20 --lease 12h\n"
        "  ostrelctl server eth1 --address 192.0.2.2/24 --range 192.0.2.50-192.0.2.99 --router 192.0.2.1\n"
        "                        --dns 192.0.2.3 --dns 192.0.2.4 --domain lab.example\n"
        "  ostrelctl server usb0 --address 192.0.2.1/30 --range 192.0.2.2 --count 1 --fixed "
        "02:00:5e:10:00:01=192.0.2.2\n"
        "  ostrelctl server eth1 --address 192.0.2.2/24 --range 192.0.2.50-192.0.2.99 --option ntp=192.0.2.3\n"
        "The daemon sets no address: 'ip addr add 192.0.2.1/24 dev usb0' before or after it.\n",
        Declare, Run);
}

}  // namespace ostrelctl
