// ostrelctl apply: the kernel does as the daemon says.
//
// The daemon learns addresses and configures none; this is a complete subscriber that does, and the one to start from
// for another. It follows what the daemon says of one interface (Follow.h), keeps what may be used of that (Holding.h),
// and each time anything has happened makes the kernel and the resolver have it (Steps.h):
//
//     NextEvent -> Hear -> the lease that counts, or none -> SettingFor -> Bring
//
// A lease that ends or changes takes everything along that came from it. One that is lost before its end stays for ten
// seconds, since most are lost to be had again: by a renewal that somebody asked for, or a cable pulled out. When the
// daemon goes, its leases stay good until they end: a restart does not cut the network. The new daemon knows nothing
// until somebody hands it the interface again; if within ten seconds it has no lease for it, what is there is removed.
// Killed, apply removes nothing, but the kernel ends the address and the route when the lease ends.
#include "Arguments.h"
#include "Checks.h"
#include "Command.h"
#include "Follow.h"
#include "Lock.h"
#include "Steps.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

constexpr std::chrono::seconds kGrace{10};
constexpr int64_t kLeastMTU = 576;      // bytes: what every host can take (RFC 791 section 3.1)
constexpr uint32_t kUsualMetric = 100;  // behind routes that people make, which have 0

struct ApplyOptions {
    std::string interface;
    bool dryRun = false, once = false, keep = false;
    std::optional<uint32_t> metric{};
};

void Declare(CLI::App& command, ApplyOptions& options) {
    AddInterface(command, options.interface)->required();
    command.add_flag("--dry-run", options.dryRun, "Print commands that would do it, and do nothing");
    command.add_flag("--once", options.once, "Apply the first lease and end; it stays until the lease ends");
    command.add_flag("--keep", options.keep, "Leave what was applied in place when stopped");
    AddParsed(command, "--metric", options.metric, ReadNumber, "a number", "Of the routes; 100 unless given")
        ->type_name("N");
}

// The domains to search: what the lease says of them, or else its own one. What is no domain name is left out.
std::vector<std::string> SearchOf(const ClientLease& lease, Applier& applier) {
    std::vector<std::string> search = lease.searchDomains;
    if (search.empty() && !lease.domainName.empty()) search.push_back(lease.domainName);
    std::erase_if(search, [&applier](const std::string& domain) {
        if (IsDomainName(domain)) return false;
        ComplainOnce(applier, "left out, since it is no domain name: '" + Printable(domain) + '\'', "");
        return true;
    });
    return search;
}

// With less, hardly anything works, and nobody has it.
uint32_t MTUFor(const ClientLease& lease, Applier& applier) {
    if (lease.mtu >= kLeastMTU || lease.mtu == 0) return static_cast<uint32_t>(lease.mtu);
    ComplainOnce(applier, "left out, since it is below 576: MTU " + std::to_string(lease.mtu), "");
    return 0;
}

// A link-local address has no router. The network's texts are not to be trusted; addresses are the kernel's to check.
Setting SettingFor(const Holding& holding, Applier& applier) {
    if (!holding.lease) return {};
    const ClientLease& lease = *holding.lease;
    Setting setting{.address = lease.address,
                    .prefixLength = PrefixLength(lease.mask),
                    .linkLocal = IsLinkLocal(lease.address),
                    .ends = holding.ends,
                    .routes = lease.routes,
                    .mtu = MTUFor(lease, applier),
                    .dns = {.servers = lease.dnsServers, .search = SearchOf(lease, applier)},
                    .unused = lease.others};
    if (setting.routes.empty() && !lease.routers.empty()) setting.routes.push_back({.router = lease.routers.front()});
    if (setting.linkLocal) setting.routes.clear();
    return setting;
}

void HearEvent(Holding& holding, const Event& event, const ApplyOptions& options, bool json) {
    if (json && event.origin != Origin::Question) PrintJson(event.text);
    const auto said = SaidOf(event, options.interface);
    if (said) Hear(holding, *said, event.hearing);
}

ExitStatus EndApplying(Applier& applier, const ApplyOptions& options) {
    if (!options.keep) Bring(applier, {});
    return applier.forbidden ? kExitRefused : kExitDone;
}

ExitStatus Apply(Follower& follower, Applier& applier, const ApplyOptions& options) {
    Holding holding{.grace = kGrace};
    for (;;) {
        const Event event = NextEvent(follower, NextEnd(holding));
        switch (event.news) {
            case News::Leases:
                HearEvent(holding, event, options, follower.session.json);
                break;
            case News::DaemonGone:
                Forget(holding, kNever);
                break;
            case News::DaemonBack:
                Forget(holding, Clock::now() + kGrace);
                break;
            case News::Deadline:
                GiveUpEnded(holding, Clock::now());
                break;
            case News::Interrupted:
                return EndApplying(applier, options);
            case News::Failed:
                return event.status;  // as when the daemon goes, leases stay until they end
        }
        Bring(applier, SettingFor(holding, applier));
        if (applier.forbidden) return kExitRefused;
        if (options.once && holding.lease) return applier.failed ? kExitRefused : kExitDone;
    }
}

ExitStatus Run(const ApplyOptions& options, const Settings& settings) {
    const ExitStatus checked = CheckInterface(options.interface);
    if (checked != kExitDone) return checked;
    const FileDescriptor lock = options.dryRun ? FileDescriptor() : LockInterface(options.interface);
    if (!options.dryRun && !lock.isOpen()) return kExitRefused;
    Follower follower{.interface = options.interface, .servers = false};
    const ExitStatus started = StartFollowing(follower, settings);
    if (started != kExitDone) return started;
    Applier applier{.interface = options.interface,
                    .metric = options.metric.value_or(kUsualMetric),
                    .dryRun = options.dryRun,
                    .quiet = settings.json,
                    .netlink = OpenNetlink(),
                    .bus = follower.session.bus.get()};
    if (applier.netlink == nullptr) return Refuse(kExitRefused, "the kernel takes no rtnetlink connection", "");
    return Apply(follower, applier, options);
}

}  // namespace

void AddApplyCommand(CommandLine& line) {
    AddCommand<ApplyOptions>(
        line, "apply", "Give an interface its address, routes, MTU and DNS servers as leased",
        "  ostrelctl apply eth0             until stopped, and then remove them again\n"
        "  ostrelctl apply eth0 --dry-run   print what would be done\n"
        "  ostrelctl apply eth0 --once      apply the first lease and end\n"
        "It needs root. What was on the interface before is left alone. The kernel ends the address with the lease, "
        "even\n"
        "when apply is killed. When the daemon goes, leases stay until they end. A lease that is lost before, by "
        "renew,\n"
        "halt or a new daemon, stays for 10 s, in which another can come. DNS servers go to systemd-resolved when it "
        "runs,\n"
        "else to the program resolvconf.\n",
        Declare, Run);
}

}  // namespace ostrelctl
