// Interfaces that do as the daemon says.
//
//     NextEvent -> HearEvent -> the lease that may be used, or none -> SettingFor -> Bring
//
// The kernel's own notices come as events, too: an interface that was pulled out and put back, or set down and up, gets
// back what it has lost, without anybody looking for it.
#include "Applying.h"

#include <algorithm>
#include <array>
#include <netlink/socket.h>
#include <sys/socket.h>

#include "Lines.h"
#include "Lock.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

constexpr int64_t kLeastMTU = 576;        // bytes: what every host can take (RFC 791 section 3.1)
constexpr std::chrono::seconds kRest{1};  // after putting something back: whoever has taken it may do so again

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

void PrintDone(const Applying& applying, const AppliedInterface& applied, const Holding& holding) {
    if (!applying.lines || applied.applier.lastSteps.empty()) return;
    valdo::JValue line = LineOf(holding.lease ? "applied" : "removed", applied.applier.interface);
    line.put("steps", std::string_view(applied.applier.lastSteps));
    if (holding.lease) PutLease(line, *holding.lease);
    PrintLine(line);
}

// True when there was something to do.
bool BringOne(Applying& applying, AppliedInterface& applied, const Holding& holding) {
    Bring(applied.applier, SettingFor(holding, applied.applier));
    PrintDone(applying, applied, holding);
    applying.forbidden = applying.forbidden || applied.applier.forbidden;
    return !applied.applier.lastSteps.empty();
}

// What the kernel has said does not matter: each step looks for itself at what there is.
void Drain(nl_sock* socket) {
    std::array<char, 16384> notices;
    while (recv(nl_socket_get_fd(socket), notices.data(), notices.size(), MSG_DONTWAIT) > 0) continue;
}

void HearKernel(Applying& applying, Follower& follower) {
    Drain(applying.changes.get());
    bool hasChanged = false;
    for (auto& [interface, applied] : applying.interfaces)
        hasChanged = BringOne(applying, applied, applying.holdings.each[interface]) || hasChanged;
    if (!hasChanged) return;
    applying.restsUntil = Clock::now() + kRest;
    follower.watched = -1;
}

void EndRest(Applying& applying, Follower& follower) {
    if (applying.changes == nullptr || Clock::now() < applying.restsUntil) return;
    applying.restsUntil = kNever;
    follower.watched = nl_socket_get_fd(applying.changes.get());
}

}  // namespace

ExitStatus PrepareApplying(Applying& applying, Follower& follower) {
    follower.subscriptions = {SubscriptionFor(applying.holdings)};
    if (applying.dryRun) return kExitDone;
    applying.changes = OpenNetlinkNotices();
    if (applying.changes == nullptr) return Refuse(kExitRefused, "the kernel takes no rtnetlink connection", "");
    follower.watched = nl_socket_get_fd(applying.changes.get());
    return kExitDone;
}

ExitStatus BeginApplying(Applying& applying, const Follower& follower, const std::string& interface, uint32_t metric) {
    AppliedInterface applied;
    if (!applying.dryRun) applied.lock = LockInterface(interface);
    if (!applying.dryRun && !applied.lock.isOpen()) return kExitRefused;
    applied.applier.interface = interface;
    applied.applier.metric = metric;
    applied.applier.dryRun = applying.dryRun;
    applied.applier.quiet = applying.quiet;
    applied.applier.netlink = OpenNetlink();
    applied.applier.bus = follower.session.bus.get();
    if (applied.applier.netlink == nullptr) return Refuse(kExitRefused, "the kernel takes no rtnetlink connection", "");
    AppliedInterface& begun = applying.interfaces[interface] = std::move(applied);
    const auto known = applying.holdings.each.find(interface);
    if (known != applying.holdings.each.end()) (void)BringOne(applying, begun, known->second);
    return kExitDone;
}

void EndApplying(Applying& applying, const std::string& interface, bool keep) {
    const auto found = applying.interfaces.find(interface);
    if (found == applying.interfaces.end()) return;
    if (!keep) (void)BringOne(applying, found->second, {});
    applying.interfaces.erase(found);
}

void Apply(Applying& applying, Follower& follower, const Event& event) {
    EndRest(applying, follower);
    if (event.news == News::Watched) return HearKernel(applying, follower);
    for (const auto& [interface, before] : HearEvent(applying.holdings, follower, event)) {
        const auto applied = applying.interfaces.find(interface);
        if (applied != applying.interfaces.end())
            (void)BringOne(applying, applied->second, applying.holdings.each[interface]);
    }
}

TimePoint NextEnd(const Applying& applying) {
    return std::min(NextEnd(applying.holdings), applying.restsUntil);
}

}  // namespace ostrelctl
