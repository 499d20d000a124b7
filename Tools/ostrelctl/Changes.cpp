// What changed of a lease, in words.
//
// A lease that is told again has the same end, but for a second of rounding; one that ends later was renewed. Texts in
// it come from the network, and are made fit to be shown.
#include "Changes.h"

#include <algorithm>
#include <ctime>
#include <endian.h>

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

Change Ended(const TableLine& line) {
    return {'-', "ended", Who(line.lease), line.lease};
}

Change Granted(const TableLine& line) {
    return {'+', "leased", Who(line.lease) + ", " + UntilText(line.lease.times.ends), line.lease};
}

void Compare(const TableLine& before, const TableLine& now, std::vector<Change>& changes) {
    if (before.lease.mac != now.lease.mac) {
        changes.push_back(Ended(before));
        changes.push_back(Granted(now));
    } else if (!IsSameEnd(before.ends, now.ends)) {
        changes.push_back({' ', "renewed", Who(now.lease) + ", renewed " + UntilText(now.lease.times.ends), now.lease});
    }
}

}  // namespace

std::vector<Change> ChangesOf(const Holding& before, const Holding& now) {
    if (!before.lease && !now.lease) return {};
    if (!before.lease) return {Arrival(now)};
    if (!now.lease) return {{'-', "lost", WordFor(*before.lease) + AddressOf(*before.lease) + " lost", *before.lease}};
    std::string words = DescribeDifference(before, now);
    if (words.empty()) return {};
    const char* const event = words.starts_with(kRenewed) ? "renewed" : "changed";
    return {{' ', event, std::move(words), *now.lease}};
}

// A merge of two sorted tables.
std::vector<Change> ChangesOf(const std::vector<TableLine>& before, const std::vector<TableLine>& now) {
    std::vector<Change> changes;
    auto had = before.begin();
    auto has = now.begin();
    while (had != before.end() || has != now.end()) {
        const auto key = [](const auto& at, const auto& table) {
            return at == table.end() ? uint64_t{UINT64_MAX} : uint64_t{be32toh(at->lease.address)};
        };
        const uint64_t old = key(had, before), fresh = key(has, now);
        if (old == fresh)
            Compare(*had++, *has++, changes);
        else if (old < fresh)
            changes.push_back(Ended(*had++));
        else
            changes.push_back(Granted(*has++));
    }
    return changes;
}

std::string UntilText(int64_t ends) {
    if (ends == kForever) return "for ever";
    const int64_t now = std::time(nullptr);
    return "until " + ClockText(ends, now) + " (in " + SpanText(std::max<int64_t>(ends - now, 0)) + ')';
}

}  // namespace ostrelctl
