// ostrelctl apply: the kernel does as the daemon says.
//
// The daemon learns addresses and configures none; this is a complete subscriber that does, and the one to start from
// for another. It follows what the daemon tells (Follow.h), keeps what each interface may use of that (Holding.h), and
// each time anything has happened makes the kernel and the resolver have it (Applying.h, Steps.h).
//
// An address is in the kernel exactly while the daemon says that it is held. What came with it goes with it. When the
// daemon goes, its leases stay good until they end: a restart does not cut the network. The new daemon knows nothing
// until somebody hands it the interface again; if within ten seconds it has no lease for it, what is there is removed.
// Killed, apply removes nothing, but the kernel ends the address and the route when the lease ends.
#include <algorithm>

#include "Applying.h"
#include "Arguments.h"
#include "Checks.h"
#include "Command.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

struct ApplyOptions {
    std::vector<std::string> interfaces{};
    bool all = false, dryRun = false, once = false, keep = false;
    std::optional<uint32_t> metric{};
};

void Declare(CLI::App& command, ApplyOptions& options) {
    CLI::Option* const names = AddInterfaces(command, options.interfaces);
    command.add_flag("--all", options.all, "All client interfaces, also those to come")->excludes(names);
    command.add_flag("--dry-run", options.dryRun, "Print commands that would do it, and do nothing");
    command.add_flag("--once", options.once, "Apply the first lease and end; it stays until the lease ends");
    command.add_flag("--keep", options.keep, "Leave what was applied in place when stopped");
    AddParsed(command, "--metric", options.metric, ReadNumber, "a number", "Of the routes; 100 unless given")
        ->type_name("N");
}

// With --all: what the daemon has been handed as a client since. One that another process applies is left to it.
void BeginNew(Applying& applying, const Follower& follower, const ApplyOptions& options,
              std::set<std::string>& refused) {
    if (!options.all) return;
    for (const auto& [interface, holding] : applying.holdings.each) {
        const bool isClient = holding.state && (holding.state->client || holding.state->linkLocal);
        if (!isClient || applying.interfaces.contains(interface) || refused.contains(interface)) continue;
        const uint32_t metric = options.metric.value_or(kUsualMetric);
        if (BeginApplying(applying, follower, interface, metric) != kExitDone) refused.insert(interface);
    }
}

ExitStatus EndAll(Applying& applying, bool keep) {
    while (!applying.interfaces.empty()) EndApplying(applying, std::string(applying.interfaces.begin()->first), keep);
    return applying.forbidden ? kExitRefused : kExitDone;
}

bool HasAll(const Applying& applying) {
    return applying.holdings.isTold && !applying.interfaces.empty() &&
           std::ranges::all_of(applying.interfaces, [&applying](const auto& applied) {
               return applying.holdings.each.at(applied.first).lease.has_value();
           });
}

bool HasFailed(const Applying& applying) {
    return std::ranges::any_of(applying.interfaces, [](const auto& applied) { return applied.second.applier.failed; });
}

ExitStatus GoOn(Follower& follower, Applying& applying, const ApplyOptions& options) {
    std::set<std::string> refused;
    for (;;) {
        const Event event = NextEvent(follower, NextEnd(applying));
        if (event.news == News::Failed) return event.status;  // as when the daemon goes, leases stay until they end
        if (event.news == News::Interrupted) return EndAll(applying, options.keep);
        if (event.news == News::Told && follower.session.json) PrintJson(event.text);
        Apply(applying, follower, event);
        BeginNew(applying, follower, options, refused);
        if (applying.forbidden) return kExitRefused;
        if (options.once && HasAll(applying)) return HasFailed(applying) ? kExitRefused : kExitDone;
    }
}

ExitStatus Run(const ApplyOptions& options, const Settings& settings) {
    if (options.interfaces.empty() && !options.all)
        return Refuse(kExitUsage, "IFACE is required, or --all", "'ostrelctl apply --help' shows how it is used");
    Applying applying{.dryRun = options.dryRun, .quiet = settings.json, .lines = settings.lines};
    for (const std::string& interface : options.interfaces) {
        const ExitStatus checked = CheckInterface(interface);
        if (checked != kExitDone) return checked;
        applying.holdings.only.insert(interface);
    }
    Follower follower;
    ExitStatus status = PrepareApplying(applying, follower);
    if (status == kExitDone) status = StartFollowing(follower, {.json = settings.json && !settings.lines});
    for (const std::string& interface : applying.holdings.only) {
        applying.holdings.each[interface];
        if (status == kExitDone)
            status = BeginApplying(applying, follower, interface, options.metric.value_or(kUsualMetric));
    }
    return status == kExitDone ? GoOn(follower, applying, options) : status;
}

}  // namespace

void AddApplyCommand(CommandLine& line) {
    AddCommand<ApplyOptions>(
        line, "apply", "Give interfaces their addresses, routes, MTU and DNS servers as leased",
        "  ostrelctl apply eth0             until stopped, and then remove them again\n"
        "  ostrelctl apply eth0 wlan0       several in one process\n"
        "  ostrelctl apply --all            every client interface that the daemon manages, also later\n"
        "  ostrelctl apply eth0 --dry-run   print what would be done\n"
        "  ostrelctl apply eth0 --once      apply the first lease and end\n"
        "It needs root. What was on the interface before is left alone. An address is there exactly while the daemon\n"
        "holds it, and the kernel ends it with the lease, even when apply is killed. When the daemon goes, leases "
        "stay\n"
        "until they end; a new one has 10 s to have them again. DNS servers go to systemd-resolved when it runs, else\n"
        "to the program resolvconf.\n",
        Declare, Run);
}

}  // namespace ostrelctl
