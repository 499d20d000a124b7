// ostrelctl watch: each change as it comes.
//
// What the daemon says is compared with what it said last; the first look shows what there is, and is no change. A new
// daemon is asked anew and compared with what the old one said, so a restart shows as what was lost by it.
#include <cstdio>
#include <map>

#include "Arguments.h"
#include "Changes.h"
#include "Checks.h"
#include "Command.h"
#include "Follow.h"
#include "Lines.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

struct WatchOptions {
    std::string interface;
    std::optional<uint32_t> count{};  // of changes
};

struct Watcher {
    const WatchOptions& options;
    Settings settings;
    Palette palette;
    std::map<std::string, Holding> clients;
    std::map<std::string, std::vector<TableLine>> tables;
    unsigned changes = 0;
};

void Declare(CLI::App& command, WatchOptions& options) {
    AddInterface(command, options.interface);
    AddParsed(command, "--count", options.count, ReadCount, "a number above 0", "End after so many changes")
        ->type_name("N");
}

void PrintWords(const Watcher& watcher, const std::string& interface, char sign, const std::string& words) {
    const Palette& palette = watcher.palette;
    const std::string_view colour = sign == '+' ? palette.good : sign == '-' ? palette.bad : "";
    const std::string line = LineHead(interface) + std::string(colour) + sign + ' ' + words +
                             std::string(colour.empty() ? "" : palette.reset);
    puts(line.c_str());
    (void)fflush(stdout);
}

void Print(const Watcher& watcher, const std::string& interface, const Change& change, bool first) {
    if (!watcher.settings.json) return PrintWords(watcher, interface, change.sign, change.words);
    if (!watcher.settings.lines) return;
    valdo::JValue line = LineOf(first ? "present" : change.event, interface);
    std::visit([&line](const auto& lease) { PutLease(line, lease); }, change.lease);
    PrintLine(line);
}

bool HasEnough(const Watcher& watcher) {
    return watcher.options.count && watcher.changes >= *watcher.options.count;
}

void Print(Watcher& watcher, const std::string& interface, const std::vector<Change>& changes, bool first) {
    for (const Change& change : changes) {
        if (HasEnough(watcher)) return;
        Print(watcher, interface, change, first);
        if (!first) ++watcher.changes;
    }
}

// What leases say of the interfaces watched. A reply says of the one asked about that it has nothing, if it is missing.
template <typename Said>
void Complete(std::map<std::string, Said>& said, const Watcher& watcher, const Event& event) {
    const std::string& only = watcher.options.interface;
    if (event.origin != Origin::Post) said.try_emplace(event.interface);
    std::erase_if(said,
                  [&only](const auto& entry) { return entry.first.empty() || (!only.empty() && entry.first != only); });
}

// What is there when an interface is heard of first, by a reply, is no change.
template <typename Known>
bool IsFirstLook(const std::map<std::string, Known>& known, const std::string& interface, const Event& event) {
    return event.origin != Origin::Post && !known.contains(interface);
}

bool ShowClients(Watcher& watcher, const Event& event) {
    std::map<std::string, ClientLease> said;
    for (const ClientLease& lease : ReadClientLeases(event.root)) said[lease.interface] = lease;
    Complete(said, watcher, event);
    bool tells = false;
    for (const auto& [interface, lease] : said) {
        const bool first = IsFirstLook(watcher.clients, interface, event);
        Holding& holding = watcher.clients[interface];
        const Holding before = holding;
        Hear(holding, lease, event.hearing);
        const std::vector<Change> changes = ChangesOf(before, holding);
        Print(watcher, interface, changes, first);
        tells = tells || first || !changes.empty();
    }
    return tells;
}

bool ShowServers(Watcher& watcher, const Event& event) {
    std::map<std::string, std::vector<TableLine>> said;
    for (const ServerLease& lease : ReadServerLeases(event.root))
        said[lease.interface].push_back({lease, EndOf(lease.times.ends, event.hearing)});
    Complete(said, watcher, event);
    bool tells = false;
    for (auto& [interface, table] : said) {
        const bool first = IsFirstLook(watcher.tables, interface, event);
        std::vector<TableLine>& known = watcher.tables[interface];
        const std::vector<Change> changes = ChangesOf(known, table);
        Print(watcher, interface, changes, first);
        tells = tells || first || !changes.empty();
        known = std::move(table);
    }
    return tells;
}

// With --json a reply is shown when it is the first of its interface, or tells something new.
void ShowLeases(Watcher& watcher, const Event& event) {
    const bool tells = event.server ? ShowServers(watcher, event) : ShowClients(watcher, event);
    if (watcher.settings.json && !watcher.settings.lines && (tells || event.origin == Origin::Post))
        PrintJson(event.text);
}

void ShowDaemon(Watcher& watcher, bool back) {
    for (auto& [interface, holding] : watcher.clients) Forget(holding, kNever);
    ++watcher.changes;
    if (watcher.settings.lines)
        PrintLine(LineOf(back ? "daemon-back" : "daemon-gone", ""));
    else if (!watcher.settings.json)
        PrintWords(watcher, "-", back ? '+' : '-', back ? "daemon back" : "daemon gone");
}

ExitStatus Watch(Follower& follower, Watcher& watcher) {
    while (!HasEnough(watcher)) {
        const Event event = NextEvent(follower, kNever);
        switch (event.news) {
            case News::Leases:
                ShowLeases(watcher, event);
                break;
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
    Follower follower{.interface = options.interface, .servers = true};
    const ExitStatus started = StartFollowing(follower, settings);
    if (started != kExitDone) return started;
    Watcher watcher{.options = options,
                    .settings = settings,
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
