// ostrelctl client: an interface gets its address by DHCP, or as told.
//
// Two calls: the interface is handed over, then its client is started. A static client needs no start, since it
// publishes what it was given at once; started as well, it would publish twice.
#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdio>
#include <unistd.h>

#include "Ostrel/OstrelJsonUtils.h"

#include "Arguments.h"
#include "Bus.h"
#include "Checks.h"
#include "Command.h"
#include "Fields.h"
#include "Lease.h"
#include "Managed.h"
#include "Roles.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr size_t kLongestClientIdentifier = 254;  // with its type byte, what option 61 holds
constexpr size_t kLongestHostName = 253;          // of a name with its domain (RFC 1035 section 2.3.4)
constexpr char kNoName[] = "none";

// What 'apply' and whoever reads a lease can use beside the usual: MTU, NTP servers, search domains, routes.
constexpr std::array<int, 4> kWantedOptions{26, 42, 119, 121};

void Declare(CLI::App& command, ClientOptions& options) {
    AddInterface(command, options.interface)->required();
    AddClientOptions(command, options);
    command.add_flag("--no-start", options.noStart, "Configure only; 'ostrelctl init IFACE' starts it");
}

// The device's own name, if a server can have use of it.
std::string OwnName() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (gethostname(name.data(), name.size() - 1) != 0) return {};
    const std::string own = name.data();
    const auto isUsual = [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.'; };
    const auto isEdge = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
    const bool usable = !own.empty() && own != "localhost" && own.size() < 64 && isEdge(own.front()) &&
                        isEdge(own.back()) && own.find("..") == std::string::npos &&
                        std::all_of(own.begin(), own.end(), isUsual);
    return usable ? own : std::string();
}

// A daemon that does not know these keys goes by its plain rules. Those are asked for with nothing beside what is said.
void PutValues(JValue& request, const ClientOptions& options) {
    if (!options.plain) request.put("rfc", true);
    if (options.fixed) return;
    const std::string name = options.hostName.value_or(options.plain ? kNoName : OwnName());
    if (!name.empty() && name != kNoName) request.put("hostName", name.c_str());
    if (options.plain) return;
    JValue wanted = valdo::Array();
    for (const int code : kWantedOptions) wanted.append(JValue(int64_t{code}));
    request.put("requestOptions", wanted);
}

ExitStatus Start(const Session& session, const std::string& interface) {
    JValue request = RequestFor(interface);
    request.put("leaseAction", "init");
    const Answer answer = Ask(session, kLeaseAction, request);
    if (answer.status == kExitDone) return kExitDone;
    const std::string problem = answer.problem.empty() ? "the daemon did not start the client" : answer.problem;
    return Refuse(answer.status, problem,
                  '\'' + interface + "' is managed, but idle: 'ostrelctl init " + interface +
                      "' starts it, 'release' " + "gives it back");
}

void Confirm(const ClientOptions& options, bool started) {
    const char* const name = options.interface.c_str();
    if (started)
        printf("%s: client started; 'ostrelctl apply %s' sets what it gets\n", name, name);
    else if (options.fixed)
        printf("%s: client with its static address; 'ostrelctl apply %s' sets it\n", name, name);
    else
        printf("%s: client configured; 'ostrelctl init %s' starts it\n", name, name);
}

ExitStatus Run(const ClientOptions& options, const Settings& settings) {
    ExitStatus checked = CheckClient(options);
    if (checked == kExitDone) checked = CheckInterface(options.interface);
    if (checked != kExitDone) return checked;
    if (options.fixed && options.router) HintAtRouter(*options.fixed, *options.router);
    Session session;
    const ExitStatus opened = OpenSession(settings.json, true, session);
    if (opened != kExitDone) return opened;
    const ExitStatus handed = HandOver(session, options.interface, RequestOf(options));
    if (handed != kExitDone) return handed;

    const bool starts = !options.noStart && HasToStart(options);
    const ExitStatus started = starts ? Start(session, options.interface) : kExitDone;
    if (started == kExitDone && !settings.json) Confirm(options, starts);
    return started;
}

}  // namespace

void AddClientOptions(CLI::App& command, ClientOptions& options) {
    CLI::Option* const dhcp = command.add_flag("--dhcp", options.dhcp, "Everything by DHCP; the default");
    CLI::Option* const fixed = AddNetwork(command, "--static", options.fixed, "This address, and no DHCP");
    AddAddress(command, "--address", options.address, "Show this address until a server grants one; the rest by DHCP")
        ->excludes(dhcp)
        ->excludes(fixed);
    fixed->excludes(dhcp);
    AddAddress(command, "--router", options.router, "With --static: the default router")->needs(fixed);
    AddDnsServers(command, options.dnsServers)->needs(fixed);
    AddText(command, "--domain", options.domainName, kLongestDomainName, "With --static: the domain name")
        ->needs(fixed);
    command
        .add_flag("--link-local{always}", options.linkLocal,
                  "A link-local address too; with 'fallback' only while there is no lease")
        ->take_last()
        ->type_name("[fallback]")
        ->check([](const std::string& word) -> std::string {
            return word == "always" || word == "fallback" ? "" : '\'' + Printable(word) + "' is not 'fallback'";
        });
    AddText(command, "--client-id", options.clientIdentifier, kLongestClientIdentifier,
            "How it identifies itself to servers; otherwise by its MAC");
    AddText(command, "--host-name", options.hostName, kLongestHostName,
            "Its name, for servers; otherwise the device's own; 'none': no name")
        ->excludes(fixed);
    command.add_flag("--plain", options.plain, "By the daemon's plain rules instead of those of the RFCs");
}

ExitStatus CheckClient(const ClientOptions& options) {
    ExitStatus checked = CheckDnsServers(options.dnsServers);
    if (checked == kExitDone && options.fixed) checked = CheckOwnAddress(*options.fixed, "static");
    if (checked == kExitDone && options.address) checked = CheckOwnAddress({*options.address, kAnyIPv4}, "address");
    return checked;
}

bool HasToStart(const ClientOptions& options) {
    return !options.fixed || !options.linkLocal.empty();
}

// The daemon wants all four addresses, of which a client uses none or two.
JValue RequestOf(const ClientOptions& options) {
    const Network fixed = options.fixed.value_or(Network{.address = options.address.value_or(kAnyIPv4)});
    const char* const addressing = options.fixed ? "static" : options.address ? "dhcpManualAddress" : "dhcp";
    JValue request = RequestFor(options.interface);
    request.put("mode", "client");
    request.put("ipv4Config", addressing);
    if (!options.linkLocal.empty()) request.put("ipv4LinkLocal", true);
    if (options.linkLocal == "fallback") request.put("linkLocal", "fallback");
    OstrelJsonUtilsIPv4Put(request, "ipv4Address", fixed.address);
    OstrelJsonUtilsIPv4Put(request, "ipv4Subnet", fixed.mask);
    OstrelJsonUtilsIPv4Put(request, "ipv4Router", options.router.value_or(kAnyIPv4));
    OstrelJsonUtilsIPv4Put(request, "ipv4RangeStart", kAnyIPv4);
    OstrelJsonUtilsIPv4ArrayPut(request, "dnsServers", options.dnsServers);
    if (options.domainName) request.put("domainName", options.domainName->c_str());
    if (options.clientIdentifier) request.put("clientIdentifier", options.clientIdentifier->c_str());
    PutValues(request, options);
    return request;
}

void AddClientCommand(CommandLine& line) {
    AddCommand<ClientOptions>(
        line, "client", "Get an address for an interface",
        "  ostrelctl client eth0                        by DHCP\n"
        "  ostrelctl client eth0 --link-local=fallback  by DHCP, and 169.254.x.y while nobody answers\n"
        "  ostrelctl client eth0 --static 192.0.2.7/24 --router 192.0.2.1 --dns 192.0.2.3,192.0.2.4\n"
        "  ostrelctl client eth0 --address 192.0.2.7    shown until a server grants one, which need not be it\n"
        "'ostrelctl apply eth0' then sets what it gets in the kernel, which the daemon itself does not.\n",
        Declare, Run);
}

}  // namespace ostrelctl
