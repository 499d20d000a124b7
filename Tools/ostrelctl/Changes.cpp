// What changed of a lease, in words.
//
// A lease that is told again has the same end, but for a second of rounding; one that ends later was renewed. Texts in
// it come from the network, and are made fit to be shown.
#include "Changes.h"

#include <algorithm>
#include <ctime>

#include "Happening.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

const std::string kRenewed = "lease renewed ";

std::string WordFor(const ClientLease& lease) {
    return lease.times ? "address " : "link-local address ";
}

std::string AddressOf(const ClientLease& lease) {
    return AddressWithPrefix(lease.address, lease.mask);
}

std::string OrNone(const std::string& text) {
    return text.empty() ? "none" : Printable(text);
}

// ", router 192.0.2.1 -> 192.0.2.2", or nothing.
std::string Difference(const char* what, const std::string& before, const std::string& now) {
    if (before == now) return {};
    return std::string(", ") + what + ' ' + (before.empty() ? "" : Printable(before) + " -> ") + OrNone(now);
}

std::string DifferencesBeside(const ClientLease& before, const ClientLease& now) {
    return Difference("router", AddressText(before.routers), AddressText(now.routers)) +
           Difference("DNS", AddressText(before.dnsServers), AddressText(now.dnsServers)) +
           Difference("domain", before.domainName, now.domainName);
}

Change Arrival(const Holding& now) {
    const ClientLease& lease = *now.lease;
    const std::string until = lease.times ? ", " + UntilText(lease.times->ends) : "";
    return {'+', "acquired", WordFor(lease) + AddressOf(lease) + DifferencesBeside({}, lease) + until, lease};
}

std::string DescribeDifference(const Holding& before, const Holding& now) {
    const ClientLease &had = *before.lease, &has = *now.lease;
    const bool moved = had.address != has.address || had.mask != has.mask;
    const bool changedKind = had.times.has_value() != has.times.has_value();
    std::string words;
    if (moved || changedKind) words = ", " + WordFor(had) + AddressOf(had) + " -> " + WordFor(has) + AddressOf(has);
    words += DifferencesBeside(had, has);
    if (has.times && (moved || !IsSameEnd(before.ends, now.ends)))
        words += (moved ? ", " : ", " + kRenewed) + UntilText(has.times->ends);
    return words.empty() ? words : words.substr(2);
}

// "192.168.10.100 02:11:22:33:44:55 camera"
std::string Who(const ServerLease& lease) {
    const std::string& name = lease.hostName.empty() ? lease.clientIdentifier : lease.hostName;
    return AddressText(lease.address) + ' ' + Printable(lease.mac) + (name.empty() ? "" : ' ' + Printable(name));
}

// Why the address is not held any more; of a daemon that has gone nothing is known.
std::string ReasonOf(const Holding& before, const Holding& now) {
    if (!now.state) return before.state && !before.isLeft ? "finalised" : "";
    const bool wasLinkLocal = before.lease && !before.lease->times;
    if (wasLinkLocal) return now.state->linkLocal ? now.state->linkLocal->reason : "";
    if (now.state->client && now.state->client->held) return "expired";  // by our clock, a moment before the daemon's
    return now.state->client ? now.state->client->reason : "";
}

Change Loss(const Holding& before, const Holding& now) {
    const ClientLease& lease = *before.lease;
    const std::string reason = ReasonOf(before, now), words = ReasonWords(reason);
    return {'-', "lost", WordFor(lease) + AddressOf(lease) + " lost" + (words.empty() ? "" : ": " + words), lease,
            reason};
}

}  // namespace

std::optional<Change> ChangeOf(const Holding& before, const Holding& now) {
    if (!before.lease && !now.lease) return std::nullopt;
    if (!before.lease) return Arrival(now);
    if (!now.lease) return Loss(before, now);
    std::string words = DescribeDifference(before, now);
    if (words.empty()) return std::nullopt;
    const char* const event = words.starts_with(kRenewed) ? "renewed" : "changed";
    return Change{' ', event, std::move(words), *now.lease};
}

std::string WordsOf(const ServerLease& lease) {
    return Who(lease) + ", " + UntilText(lease.times.ends);
}

std::string UntilText(int64_t ends) {
    if (ends == kForever) return "for ever";
    const int64_t now = std::time(nullptr);
    return "until " + ClockText(ends, now) + " (in " + SpanText(std::max<int64_t>(ends - now, 0)) + ')';
}

}  // namespace ostrelctl
