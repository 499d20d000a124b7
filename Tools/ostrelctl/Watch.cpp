// ostrelctl watch: each change of leases as it comes.
//
// The first look shows what there is, and is no change. A new daemon is asked anew and compared with what the old one
// said, so a restart shows as what was lost by it.
#include <cstdio>

#include "Arguments.h"
#include "Changes.h"
#include "Checks.h"
#include "Command.h"
#include "Follow.h"
#include "Happening.h"
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
    Terminal terminal;
    Holdings holdings{.grace = kGraceOfNewDaemon};
    std::set<std::string> firstLooks{};  // interfaces that had a lease at the first look, whose details are to come
    unsigned changes = 0;
};

void Declare(CLI::App& command, WatchOptions& options) {
    AddInterface(command, options.interface);
    AddParsed(command, "--count", options.count, ReadCount, "a number above 0", "End after so many changes")
        ->type_name("N");
}

void Print(const Watcher& watcher, const std::string& interface, char sign, const std::string& words) {
    if (!watcher.settings.json) PrintEvent(watcher.terminal, LineHead(interface), sign, words);
}

void PrintChange(Watcher& watcher, const std::string& interface, const Change& change, bool isFirst) {
    if (!isFirst) ++watcher.changes;
    Print(watcher, interface, change.sign, change.words);
    if (!watcher.settings.lines) return;
    valdo::JValue line = LineOf(isFirst ? "present" : change.event, interface);
    PutLease(line, change.lease);
    if (!change.reason.empty()) line.put("reason", std::string_view(change.reason));
    PrintLine(line);
}

// The table as it is at the first look.
void ShowTable(const Watcher& watcher, const Event& event) {
    for (const ServerLease& lease : ReadServerLeases(event.root)) {
        if (lease.interface != event.interface) continue;
        Print(watcher, lease.interface, '+', WordsOf(lease));
        if (!watcher.settings.lines) continue;
        valdo::JValue line = LineOf("present", lease.interface);
        PutLease(line, lease);
        PrintLine(line);
    }
}

void ShowLeaseEvent(Watcher& watcher, const Event& event) {
    const std::optional<Happening> happening = event.posted ? ReadLeaseEvent(event.root) : std::nullopt;
    if (!happening) return;
    ++watcher.changes;
    Print(watcher, happening->interface, SignOf(*happening), WordsOf(*happening));
    if (!watcher.settings.lines) return;
    valdo::JValue line = LineOf(happening->event.c_str(), happening->interface);
    PutHappening(line, *happening);
    PrintLine(line);
}

void ShowDaemon(Watcher& watcher, bool isBack) {
    ++watcher.changes;
    Print(watcher, "-", isBack ? '+' : '-', isBack ? "daemon back" : "daemon gone");
    if (watcher.settings.lines) PrintLine(LineOf(isBack ? "daemon-back" : "daemon-gone", ""));
}

void AskForTables(const Watcher& watcher, Follower& follower) {
    for (const auto& [interface, holding] : watcher.holdings.each)
        if (holding.state && holding.state->server) AskFor(follower, kServerLeaseInformation, interface);
}

// What is there when the daemon first answers is no change; its details come a moment later.
bool IsFirstLook(Watcher& watcher, const std::string& interface, const Holding& before, const Event& event) {
    const Holding& now = watcher.holdings.each[interface];
    const bool isAnswer = event.method == &kInterfaceState && !event.posted;
    if (isAnswer && !before.lease && now.state && now.state->client && now.state->client->held)
        watcher.firstLooks.insert(interface);
    if (event.method == &kClientLeaseInformation) return watcher.firstLooks.erase(interface) > 0;
    return isAnswer;
}

void ShowHoldings(Watcher& watcher, Follower& follower, const Event& event) {
    for (const auto& [interface, before] : HearEvent(watcher.holdings, follower, event)) {
        const bool isFirst = IsFirstLook(watcher, interface, before, event) && !before.lease;
        const std::optional<Change> change = ChangeOf(before, watcher.holdings.each[interface]);
        if (change) PrintChange(watcher, interface, *change, isFirst);
    }
}

void Show(Watcher& watcher, Follower& follower, const Event& event) {
    const bool isBack = event.news == News::DaemonBack;
    if (event.news == News::Told && watcher.settings.json && !watcher.settings.lines) PrintJson(event.text);
    if (event.method == &kServerLeaseInformation) return ShowTable(watcher, event);
    if (event.method == &kLeaseEvents) return ShowLeaseEvent(watcher, event);
    ShowHoldings(watcher, follower, event);
    if (event.method == &kInterfaceState && !event.posted) AskForTables(watcher, follower);
    if (isBack || event.news == News::DaemonGone) ShowDaemon(watcher, isBack);
}

ExitStatus Watch(Follower& follower, Watcher& watcher) {
    const auto& most = watcher.options.count;
    while (!most || watcher.changes < *most) {
        const Event event = NextEvent(follower, NextEnd(watcher.holdings));
        if (event.news == News::Failed) return event.status;
        if (event.news == News::Interrupted) return kExitDone;
        Show(watcher, follower, event);
    }
    return kExitDone;
}

ExitStatus Run(const WatchOptions& options, const Settings& settings) {
    const ExitStatus checked = options.interface.empty() ? kExitDone : CheckInterface(options.interface);
    if (checked != kExitDone) return checked;
    Watcher watcher{.options = options, .settings = settings, .terminal = DescribeStandardOutput()};
    if (!options.interface.empty()) watcher.holdings.only.insert(options.interface);
    Follower follower{.subscriptions = {SubscriptionFor(watcher.holdings),
                                        {.method = &kLeaseEvents, .interface = options.interface}}};
    const ExitStatus started = StartFollowing(follower, settings);
    return started == kExitDone ? Watch(follower, watcher) : started;
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
