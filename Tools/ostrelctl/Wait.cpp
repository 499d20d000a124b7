// ostrelctl wait: until interfaces have addresses.
//
// The smallest follower of all, for a start-up script that needs the network: it waits for the daemon, too, and ends
// with the addresses as its only output.
#include <algorithm>
#include <cstdio>

#include "Arguments.h"
#include "Checks.h"
#include "Command.h"
#include "Follow.h"
#include "Lines.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

struct WaitOptions {
    std::vector<std::string> interfaces{};
    bool any = false, all = false;
    std::optional<int64_t> timeout{};  // seconds
};

bool ReadTimeout(const std::string& text, int64_t& seconds) {
    constexpr int64_t kLongest = int64_t{365} * 86400;
    int64_t parsed = 0;
    if (!ReadSpan(text, parsed) || parsed < 1 || parsed > kLongest) return false;
    seconds = parsed;
    return true;
}

void Declare(CLI::App& command, WaitOptions& options) {
    AddInterfaces(command, options.interfaces);
    CLI::Option* const any = command.add_flag("--any", options.any, "Until one of them has an address");
    command.add_flag("--all", options.all, "Until each of them has one (the default)")->excludes(any);
    AddParsed(command, "--timeout", options.timeout, ReadTimeout, "a time from 1 s to 365 d, such as 30, 90s or 5m",
              "Give up after so long")
        ->type_name("TIME");
}

// A server waits for no address.
bool IsWaitedFor(const Holdings& holdings, const Holding& holding) {
    return !holdings.only.empty() || (holding.state && (holding.state->client || holding.state->linkLocal));
}

bool IsOver(const Holdings& holdings, const WaitOptions& options) {
    size_t held = 0, waitedFor = 0;
    for (const auto& [interface, holding] : holdings.each) {
        if (!IsWaitedFor(holdings, holding)) continue;
        ++waitedFor;
        held += holding.lease ? 1 : 0;
    }
    return options.any ? held > 0 : held > 0 && held == waitedFor && holdings.isTold;
}

// One interface's address stands alone, for scripts; of several, the interface is said.
void Show(const Holdings& holdings, const WaitOptions& options, bool lines) {
    for (const auto& [interface, holding] : holdings.each) {
        if (!holding.lease) continue;
        std::string address = options.interfaces.size() == 1 ? "" : interface + ' ';
        address += AddressWithPrefix(holding.lease->address, holding.lease->mask);
        valdo::JValue line = LineOf("present", interface);
        PutLease(line, *holding.lease);
        if (lines)
            PrintLine(line);
        else
            puts(address.c_str());
    }
}

std::string NamesOf(const WaitOptions& options) {
    std::string names;
    for (const std::string& interface : options.interfaces) names += (names.empty() ? "'" : ", '") + interface + '\'';
    return names.empty() ? "what is managed" : names;
}

ExitStatus GiveUpWaiting(const Follower& follower, const WaitOptions& options) {
    const std::string problem = NamesOf(options) + " has had no address for " + SpanText(options.timeout.value_or(0));
    if (follower.owner.empty())
        return Refuse(kExitNoDaemon, problem + ", and there is no daemon", "start it with 'systemctl start ostreld'");
    const std::string about = options.interfaces.size() == 1 ? ' ' + options.interfaces.front() : "";
    return Refuse(kExitRefused, problem, "'ostrelctl status" + about + "' shows what it is doing");
}

ExitStatus Wait(Follower& follower, Holdings& holdings, const WaitOptions& options, const Settings& settings) {
    const TimePoint deadline = options.timeout ? Clock::now() + std::chrono::seconds(*options.timeout) : kNever;
    for (;;) {
        const Event event = NextEvent(follower, deadline);
        if (event.news == News::Deadline) return GiveUpWaiting(follower, options);
        if (event.news == News::Interrupted) return Refuse(kExitRefused, "interrupted before there was an address", "");
        if (event.news == News::Failed) return event.status;
        (void)HearEvent(holdings, follower, event);
        if (!IsOver(holdings, options)) continue;
        if (settings.json && !settings.lines)
            PrintJson(event.text);
        else
            Show(holdings, options, settings.lines);
        return kExitDone;
    }
}

ExitStatus Run(const WaitOptions& options, const Settings& settings) {
    Holdings holdings;
    for (const std::string& interface : options.interfaces) {
        const ExitStatus checked = CheckInterface(interface);
        if (checked != kExitDone) return checked;
        holdings.only.insert(interface);
        holdings.each[interface];
    }
    Follower follower{.subscriptions = {SubscriptionFor(holdings)}};
    const ExitStatus started = StartFollowing(follower, settings);
    return started == kExitDone ? Wait(follower, holdings, options, settings) : started;
}

}  // namespace

void AddWaitCommand(CommandLine& line) {
    AddCommand<WaitOptions>(line, "wait", "Wait until interfaces have addresses, and print them",
                            "  ostrelctl wait eth0                until there is one\n"
                            "  ostrelctl wait eth0 --timeout 30   for half a minute at most\n"
                            "  ostrelctl wait eth0 wlan0 --any    until one of them has one\n"
                            "  ostrelctl wait --all               until every client that is managed has one\n"
                            "It does not start the daemon, but waits for it. An address counts once it may be used:\n"
                            "when its check for conflicts is over.\n",
                            Declare, Run);
}

}  // namespace ostrelctl
