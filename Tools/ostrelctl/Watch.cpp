// ostrelctl watch: each change as it comes.
//
// What the daemon says is compared with what it said last; the first look shows what there is, and is no change. A new
// daemon is asked anew and compared with what the old one said, so a restart shows as what was lost by it.
#include <cstdio>
#include <map>

#include "Changes.h"
#include "Checks.h"
#include "Command.h"
#include "Follow.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

struct WatchOptions {
    std::string interface;
    unsigned count = 0;  // changes; 0: no end
};

struct Watcher {
    const WatchOptions& options;
    bool json;
    Palette palette;
    std::map<std::string, Holding> clients;
    std::map<std::string, std::vector<TableLine>> tables;
    unsigned changes = 0;
};

void Declare(CLI::App& command, WatchOptions& options) {
    AddInterface(command, options.interface);
    command.add_option("--count", options.count, "End after so many changes")
        ->type_name("N")
        ->check(CLI::Range(1u, 1000000000u).description(""));
}

void Print(const Watcher& watcher, const std::string& interface, const Change& change) {
    if (watcher.json) return;
    const Palette& palette = watcher.palette;
    const std::string_view colour = change.sign == '+' ? palette.good : change.sign == '-' ? palette.bad : "";
    const std::string line = LineHead(interface) + std::string(colour) + change.sign + ' ' + change.words +
                             std::string(colour.empty() ? "" : palette.reset);
    puts(line.c_str());
    (void)fflush(stdout);
}

bool HasEnough(const Watcher& watcher) {
    return watcher.options.count != 0 && watcher.changes >= watcher.options.count;
}

void Print(Watcher& watcher, const std::string& interface, const std::vector<Change>& changes, bool first) {
    for (const Change& change : changes) {
        if (HasEnough(watcher)) return;
        Print(watcher, interface, change);
        if (!first) ++watcher.changes;
    }
}

// A reply lists all interfaces, so one that is missing is managed no more; a post lists the one that has news.
std::map<std::string, ClientLease> SaidOfClients(const Watcher& watcher, const Event& event) {
    std::map<std::string, ClientLease> said;
    for (const ClientLease& lease : ReadClientLeases(event.root)) said[lease.interface] = lease;
    if (event.origin == Origin::Post) return said;
    for (const auto& [interface, holding] : watcher.clients) said.try_emplace(interface);
    return said;
}

std::map<std::string, std::vector<TableLine>> SaidOfServers(const Watcher& watcher, const Event& event) {
    std::map<std::string, std::vector<TableLine>> said;
    for (const ServerLease& lease : ReadServerLeases(event.root))
        said[lease.interface].push_back({lease, EndOf(lease.times.ends, event.hearing)});
    if (event.origin == Origin::Post) return said;
    for (const auto& [interface, table] : watcher.tables) said.try_emplace(interface);
    return said;
}

bool IsWatched(const Watcher& watcher, const std::string& interface) {
    return watcher.options.interface.empty() || watcher.options.interface == interface;
}

void ShowClients(Watcher& watcher, const Event& event, bool first) {
    for (const auto& [interface, lease] : SaidOfClients(watcher, event)) {
        if (!IsWatched(watcher, interface)) continue;
        Holding& holding = watcher.clients[interface];
        const Holding before = holding;
        Hear(holding, lease, event.hearing);
        Print(watcher, interface, ChangesOf(before, holding), first);
    }
}

void ShowServers(Watcher& watcher, const Event& event, bool first) {
    for (auto& [interface, table] : SaidOfServers(watcher, event)) {
        if (!IsWatched(watcher, interface)) continue;
        std::vector<TableLine>& known = watcher.tables[interface];
        Print(watcher, interface, ChangesOf(known, table), first);
        known = std::move(table);
    }
}

// With --json a reply is shown when it is the first, or tells something new.
void ShowLeases(Watcher& watcher, const Event& event, bool first) {
    const unsigned before = watcher.changes;
    event.server ? ShowServers(watcher, event, first) : ShowClients(watcher, event, first);
    const bool tells = event.origin != Origin::Question || watcher.changes != before;
    if (watcher.json && tells) PrintText(event);
}

void ShowDaemon(Watcher& watcher, bool back) {
    for (auto& [interface, holding] : watcher.clients) Forget(holding, {});
    Print(watcher, "-", {{back ? '+' : '-', back ? "daemon back" : "daemon gone"}}, false);
}

ExitStatus Watch(Follower& follower, Watcher& watcher) {
    bool clientsKnown = false, serversKnown = false;
    if (follower.owner.empty() && !watcher.json) Print(watcher, "-", {' ', "no daemon yet"});
    while (!HasEnough(watcher)) {
        const Event event = NextEvent(follower, kNever);
        switch (event.news) {
            case News::Leases: {
                bool& known = event.server ? serversKnown : clientsKnown;
                ShowLeases(watcher, event, !known);
                known = true;
                break;
            }
            case News::DaemonGone:
            case News::DaemonBack:
                ShowDaemon(watcher, event.news == News::DaemonBack);
                break;
            case News::Failed:
                return event.status;
            case News::Interrupted:
            case News::Deadline:
                return kExitDone;
        }
    }
    return kExitDone;
}

ExitStatus Run(const WatchOptions& options, const Settings& settings) {
    const ExitStatus checked = options.interface.empty() ? kExitDone : CheckInterface(options.interface);
    if (checked != kExitDone) return checked;
    Follower follower;
    const ExitStatus started = StartFollowing(follower, settings, options.interface, true);
    if (started != kExitDone) return started;
    Watcher watcher{.options = options,
                    .json = settings.json,
                    .palette = DescribeStandardOutput().palette,
                    .clients = {},
                    .tables = {}};
    return Watch(follower, watcher);
}

}  // namespace

void AddWatchCommand(CommandLine& line) {
    AddCommand<WatchOptions>(line, "watch", "Show each change of leases as it comes",
                             "  ostrelctl watch                  every interface, until interrupted\n"
                             "  ostrelctl watch eth0 --count 1   until the first change\n"
                             "It begins with what there is, survives a restart of the daemon, and does not start it.\n",
                             Declare, Run);
}

}  // namespace ostrelctl
