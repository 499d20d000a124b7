// ostrelctl wait: until an interface has an address.
//
// The smallest follower of all, for a start-up script that needs the network: it waits for the daemon, too, and ends
// with the address as its only output. When an address counts is Holding.h's matter.
#include <cstdio>

#include "Arguments.h"
#include "Checks.h"
#include "Command.h"
#include "Follow.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

struct WaitOptions {
    std::string interface;
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
    AddInterface(command, options.interface)->required();
    AddParsed(command, "--timeout", options.timeout, ReadTimeout, "a time from 1 s to 365 d, such as 30, 90s or 5m",
              "Give up after so long")
        ->type_name("TIME");
}

bool Hold(Holding& holding, const Event& event, const std::string& interface) {
    const auto said = SaidOf(event, interface);
    if (said) Hear(holding, *said, event.hearing);
    return holding.lease.has_value();
}

void Show(const ClientLease& lease) {
    puts(AddressWithPrefix(lease.address, lease.mask).c_str());
}

ExitStatus GiveUpWaiting(const Follower& follower, const WaitOptions& options) {
    const std::string problem =
        '\'' + options.interface + "' has had no address for " + SpanText(options.timeout.value_or(0));
    if (follower.owner.empty())
        return Refuse(kExitNoDaemon, problem + ", and there is no daemon", "start it with 'systemctl start ostreld'");
    return Refuse(kExitRefused, problem, "'ostrelctl status " + options.interface + "' shows what it is doing");
}

ExitStatus Wait(Follower& follower, const WaitOptions& options, const Settings& settings) {
    const TimePoint deadline = options.timeout ? Clock::now() + std::chrono::seconds(*options.timeout) : kNever;
    Holding holding;
    for (;;) {
        const Event event = NextEvent(follower, deadline);
        if (event.news == News::Leases && Hold(holding, event, options.interface)) {
            settings.json ? PrintJson(event.text) : Show(*holding.lease);
            return kExitDone;
        }
        if (event.news == News::DaemonGone || event.news == News::DaemonBack) Forget(holding, kNever);
        if (event.news == News::Deadline) return GiveUpWaiting(follower, options);
        if (event.news == News::Interrupted) return Refuse(kExitRefused, "interrupted before there was an address", "");
        if (event.news == News::Failed) return event.status;
    }
}

ExitStatus Run(const WaitOptions& options, const Settings& settings) {
    const ExitStatus checked = CheckInterface(options.interface);
    if (checked != kExitDone) return checked;
    Follower follower{.interface = options.interface, .servers = false};
    const ExitStatus started = StartFollowing(follower, settings);
    return started == kExitDone ? Wait(follower, options, settings) : started;
}

}  // namespace

void AddWaitCommand(CommandLine& line) {
    AddCommand<WaitOptions>(
        line, "wait", "Wait until an interface has an address, and print it",
        "  ostrelctl wait eth0                until there is one\n"
        "  ostrelctl wait eth0 --timeout 30   for half a minute at most\n"
        "It does not start the daemon, but waits for it. An address that a server gave counts when\n"
        "its ARP check is over, a link-local one when it has been seen for 6 s.\n",
        Declare, Run);
}

}  // namespace ostrelctl
