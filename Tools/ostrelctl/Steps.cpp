// From what an interface has to what it should have: the steps of apply.
//
// A lease's address is put beside the link-local one, the routes follow it, and only then does the old one go, so that
// there is no moment without. The DNS servers come last: their keeper is another program, and an address that must not
// be used any more does not wait for it. The kernel ends an address at its lifetime, and with it the route that has it
// as its source, even when nobody is left to remove them. Only what was put there is removed: an address that somebody
// set without end stays his, and routes are appended, never replaced.
//
// Each round begins anew: adding what is there already changes nothing, so an interface that was pulled out and put
// back, or set down and up, gets back what it has lost.
#include "Steps.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <endian.h>
#include <net/if.h>
#include <utility>

#include "Changes.h"
#include "Follow.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

using std::chrono::duration_cast;
using std::chrono::seconds;

constexpr std::string_view kRemove = "del";
constexpr uint32_t kLastSeconds = 2;  // of a lease

// --- Words ---

// A step that was done. This and ShowCommand are true, as what is done, and ComplainOf is false.
bool Note(Applier& applier, const std::string& step) {
    applier.steps += (applier.steps.empty() ? "" : ", ") + step;
    return true;
}

bool ShowCommand(const std::string& command) {
    puts(command.c_str());
    (void)fflush(stdout);
    return true;
}

void PrintSteps(Applier& applier) {
    if (!applier.steps.empty() && !applier.quiet) ShowCommand(LineHead(applier.interface) + applier.steps);
    applier.lastSteps = std::exchange(applier.steps, {});
}

// A step that has failed, in the kernel's words or better ones.
bool ComplainOf(Applier& applier, const std::string& step, int error) {
    applier.failed = true;
    if (error == EPERM || error == EACCES) {
        applier.forbidden = true;
        ComplainOnce(applier, step + ": not permitted", "changing addresses needs CAP_NET_ADMIN: run as root");
    } else if (error == ENODEV) {
        ComplainOnce(applier, step + ": the interface is not there", "waiting for it to come back");
    } else if (error == ENETDOWN) {
        ComplainOnce(applier, step + ": the interface is down", "ip link set " + applier.interface + " up");
    } else {
        ComplainOnce(applier, step + ": " + std::strerror(error), "");
    }
    return false;
}

// --- The address ---

bool IsSameAddress(const Setting& one, const Setting& other) {
    return one.address == other.address && one.prefixLength == other.prefixLength;
}

uint32_t SecondsLeft(const Setting& setting) {
    if (setting.ends == kNever) return kEndlessLifetime;
    const int64_t left = duration_cast<seconds>(setting.ends - Clock::now()).count();
    return static_cast<uint32_t>(std::clamp<int64_t>(left, 1, kEndlessLifetime - 1));
}

InterfaceAddress AddressFor(const Applier& applier, const Setting& setting) {
    return {.interface = applier.interface,
            .address = setting.address,
            .prefixLength = setting.prefixLength,
            .lifetime = SecondsLeft(setting),
            .linkScope = setting.linkLocal};
}

std::string TextOf(const Setting& setting) {
    return AddressText(setting.address) + '/' + std::to_string(setting.prefixLength);
}

std::string WordsFor(const Setting& setting) {
    return "address " + TextOf(setting);
}

std::string LifeText(const Setting& setting) {
    if (setting.ends == kNever) return setting.linkLocal ? "" : " for ever";
    return ' ' + UntilText(std::time(nullptr) + std::chrono::round<seconds>(setting.ends - Clock::now()).count());
}

std::string Command(std::string_view verb, const Applier& applier, const Setting& setting) {
    std::string command = "ip address " + std::string(verb) + ' ' + TextOf(setting);
    command += " broadcast + dev " + applier.interface + (setting.linkLocal ? " scope link" : "");
    if (setting.ends == kNever || verb == kRemove) return command;
    const std::string left = std::to_string(SecondsLeft(setting));
    return command + " valid_lft " + left + " preferred_lft " + left;
}

// An address that is there and ends was left by one of us; one without end is somebody's.
int TakeOverAddress(Applier& applier, const Setting& wanted) {
    const InterfaceAddress address = AddressFor(applier, wanted);
    applier.addressIsForeign = IsPermanent(applier.netlink.get(), address).value_or(true);
    return applier.addressIsForeign ? 0 : RenewAddress(applier.netlink.get(), address);
}

bool AddNewAddress(Applier& applier, const Setting& wanted) {
    applier.addressIsForeign = false;
    if (applier.dryRun) return ShowCommand(Command("add", applier, wanted));
    int error = AddAddress(applier.netlink.get(), AddressFor(applier, wanted));
    if (error == EEXIST) error = TakeOverAddress(applier, wanted);
    if (error != 0) return ComplainOf(applier, WordsFor(wanted), error);
    if (applier.addressIsForeign) return Note(applier, WordsFor(wanted) + " was there already, and is left as it is");
    return Note(applier, "+ " + WordsFor(wanted) + LifeText(wanted));
}

bool RenewOurAddress(Applier& applier, const Setting& wanted) {
    if (applier.dryRun) return ShowCommand(Command("change", applier, wanted));
    const int error = RenewAddress(applier.netlink.get(), AddressFor(applier, wanted));
    if (error != 0) return ComplainOf(applier, WordsFor(wanted), error);
    return Note(applier, WordsFor(wanted) + " renewed" + LifeText(wanted));
}

bool KeepAddress(Applier& applier, const Setting& wanted) {
    if (applier.dryRun) return true;
    const int error = AddAddress(applier.netlink.get(), AddressFor(applier, wanted));
    if (error == EEXIST) return true;
    if (error != 0) return ComplainOf(applier, WordsFor(wanted), error);
    applier.addressIsForeign = false;
    return Note(applier, "+ " + WordsFor(wanted) + LifeText(wanted));
}

// Whether the address wanted is there now. The kernel's clock may end it a moment before ours, so in its last seconds
// one that has gone is not missed.
bool BringAddress(Applier& applier, const Setting& had, const Setting& wanted) {
    if (wanted.address == kAnyIPv4) return true;
    if (!IsSameAddress(had, wanted)) return AddNewAddress(applier, wanted);
    if (!applier.addressIsForeign && !IsSameEnd(had.ends, wanted.ends)) return RenewOurAddress(applier, wanted);
    return SecondsLeft(wanted) >= kLastSeconds && KeepAddress(applier, wanted);
}

void DropAddress(Applier& applier, const Setting& had) {
    if (applier.dryRun) {
        ShowCommand(Command(kRemove, applier, had));
        return;
    }
    const int error = RemoveAddress(applier.netlink.get(), AddressFor(applier, had));
    if (error != 0 && error != EADDRNOTAVAIL && error != ENODEV)
        ComplainOf(applier, WordsFor(had), error);
    else
        Note(applier, "- " + WordsFor(had));
}

// --- Routes ---

InterfaceRoute RouteFor(const Applier& applier, const Setting& setting, const LeaseRoute& route) {
    const uint32_t mask = setting.prefixLength == 0 ? 0 : UINT32_MAX << (32 - setting.prefixLength);
    const bool isOutside = ((route.router ^ setting.address) & htobe32(mask)) != 0;
    return {.interface = applier.interface,
            .destination = route.destination,
            .prefixLength = route.prefixLength,
            .router = route.router,
            .source = setting.address,
            .metric = applier.metric,
            .onLink = isOutside && route.router != kAnyIPv4};
}

std::string DestinationOf(const InterfaceRoute& route) {
    if (route.prefixLength == 0) return "default";
    return AddressText(route.destination) + '/' + std::to_string(route.prefixLength);
}

std::string WordsFor(const InterfaceRoute& route) {
    const std::string what = route.prefixLength == 0 ? "default route" : "route to " + DestinationOf(route);
    return what + (route.router == kAnyIPv4 ? " on the link" : " via " + AddressText(route.router));
}

std::string Command(std::string_view verb, const InterfaceRoute& route) {
    const std::string via = route.router == kAnyIPv4 ? "" : " via " + AddressText(route.router);
    return "ip route " + std::string(verb) + ' ' + DestinationOf(route) + via + " dev " + route.interface + " src " +
           AddressText(route.source) + " proto dhcp metric " + std::to_string(route.metric) +
           (route.onLink ? " onlink" : "");
}

void BringRoute(Applier& applier, const InterfaceRoute& route, bool known) {
    if (applier.dryRun) {
        if (!known) ShowCommand(Command("append", route));
        return;
    }
    const int error = AddRoute(applier.netlink.get(), route);
    if (error != 0 && error != EEXIST)
        ComplainOf(applier, WordsFor(route), error);
    else if (error == 0 || !known)
        Note(applier, "+ " + WordsFor(route));
}

bool HasRoute(const Setting& setting, const LeaseRoute& route) {
    return std::find(setting.routes.begin(), setting.routes.end(), route) != setting.routes.end();
}

// `had` is what there was with the same address.
void BringRoutes(Applier& applier, const Setting& had, const Setting& wanted) {
    for (const LeaseRoute& route : wanted.routes)
        BringRoute(applier, RouteFor(applier, wanted, route), HasRoute(had, route));
}

void DropRoute(Applier& applier, const InterfaceRoute& route) {
    if (applier.dryRun) {
        ShowCommand(Command(kRemove, route));
        return;
    }
    const int error = RemoveRoute(applier.netlink.get(), route);
    if (error != 0 && error != ESRCH && error != ENODEV)
        ComplainOf(applier, WordsFor(route), error);
    else
        Note(applier, "- " + WordsFor(route));
}

// Those that `kept` does not have. The last first: the way to a router may be an earlier one.
void DropRoutes(Applier& applier, const Setting& had, const Setting& kept) {
    for (size_t i = had.routes.size(); i-- > 0;)
        if (!HasRoute(kept, had.routes[i])) DropRoute(applier, RouteFor(applier, had, had.routes[i]));
}

// --- The MTU ---

bool ChangeMTU(Applier& applier, uint32_t mtu, const std::string& step) {
    if (applier.dryRun) return ShowCommand("ip link set " + applier.interface + " mtu " + std::to_string(mtu));
    const int error = SetMTU(applier.netlink.get(), applier.interface, mtu);
    if (error != 0) return ComplainOf(applier, step, error);
    return Note(applier, step);
}

// The interface gets back what it had, unless somebody has changed it since.
void DropMTU(Applier& applier, uint32_t had) {
    const bool isOurs = applier.dryRun || MTUOf(applier.netlink.get(), applier.interface) == had;
    const uint32_t before = std::exchange(applier.mtuBefore, 0);
    if (before != 0 && isOurs) ChangeMTU(applier, before, "- MTU " + std::to_string(had));
}

void BringMTU(Applier& applier, const Setting& had, const Setting& wanted) {
    if (wanted.mtu == 0) return;
    const uint32_t now = MTUOf(applier.netlink.get(), applier.interface);
    if (now == wanted.mtu || now == 0 || (applier.dryRun && had.mtu == wanted.mtu)) return;
    const bool isChanged = ChangeMTU(applier, wanted.mtu, "+ MTU " + std::to_string(wanted.mtu));
    if (isChanged && applier.mtuBefore == 0) applier.mtuBefore = now;
}

// --- DNS servers ---

std::string WordsFor(const DnsSettings& dns) {
    const std::string servers = dns.servers.empty() ? "" : ' ' + AddressText(dns.servers);
    return "DNS" + servers + (dns.search.empty() ? "" : " (" + Joined(dns.search, ", ") + ')');
}

void ComplainOf(Applier& applier, const DnsSettings& dns, const std::string& problem) {
    applier.failed = true;
    ComplainOnce(applier, WordsFor(dns) + ": " + Printable(problem), "");
}

// Without a keeper all else is worth having, so that is said once and is no failure.
void SayNobodyKeepsDns(Applier& applier, const DnsSettings& dns) {
    if (!applier.saidNobody)
        Complain("nothing here keeps " + WordsFor(dns),
                 "install systemd-resolved or resolvconf; for 'ostrelctl run' also resolv-conf in its file");
    applier.saidNobody = true;
}

void WriteServers(Applier& applier, const DnsSettings& dns) {
    applier.dnsFailed = true;
    applier.dnsKeeper = FindDnsKeeper(applier.bus);
    applier.dnsIndex = if_nametoindex(applier.interface.c_str());
    if (applier.dnsKeeper == DnsKeeper::Nobody) return SayNobodyKeepsDns(applier, dns);
    if (applier.dryRun) {
        applier.dnsFailed = !ShowCommand(WriteDnsCommand(applier.dnsKeeper, applier.interface, dns));
        return;
    }
    const std::string problem = WriteDns(applier.bus, applier.dnsKeeper, applier.interface, dns);
    if (!problem.empty()) return ComplainOf(applier, dns, problem);
    applier.dnsFailed = false;
    Note(applier, "+ " + WordsFor(dns) + " by " + NameOf(applier.dnsKeeper));
}

void DropServers(Applier& applier, const DnsSettings& dns) {
    if (applier.dnsKeeper == DnsKeeper::Nobody) return;
    if (applier.dryRun) {
        ShowCommand(RemoveDnsCommand(applier.dnsKeeper, applier.interface));
        return;
    }
    const bool forgotten = applier.dnsKeeper == DnsKeeper::Resolved && if_nametoindex(applier.interface.c_str()) == 0;
    const std::string problem = forgotten ? "" : RemoveDns(applier.bus, applier.dnsKeeper, applier.interface);
    if (!problem.empty()) return ComplainOf(applier, dns, problem);
    Note(applier, "- " + WordsFor(dns));
}

// Their keeper forgets them with the interface, which has another number when it comes back.
void BringDns(Applier& applier, const Setting& had, const Setting& wanted) {
    const DnsSettings nothing;
    const unsigned index = if_nametoindex(applier.interface.c_str());
    const bool moved = index != 0 && index != applier.dnsIndex;
    const bool renewed = !IsSameEnd(had.ends, wanted.ends);
    if (wanted.dns == nothing && had.dns != nothing) return DropServers(applier, had.dns);
    if (wanted.dns == nothing) return;
    if (wanted.dns != had.dns || moved || (applier.dnsFailed && renewed)) WriteServers(applier, wanted.dns);
}

// Said once: a program that knows what to do with it finds it in the daemon's reply.
void TellUnused(Applier& applier, const Setting& had, const Setting& wanted) {
    if (wanted.unused.empty() || wanted.unused == had.unused) return;
    const std::string words = "not used: " + Printable(wanted.unused);
    if (applier.dryRun)
        ShowCommand("# " + words);
    else
        Note(applier, words);
}

}  // namespace

void ComplainOnce(Applier& applier, const std::string& problem, const std::string& next) {
    const std::string about = applier.interface + ": " + problem;
    applier.complaints.insert(about);
    if (!applier.lastComplaints.contains(about)) Complain(about, next);
}

void Bring(Applier& applier, const Setting& wanted) {
    const Setting had = applier.has;
    const bool sameAddress = IsSameAddress(had, wanted);
    const Setting none, &same = sameAddress ? had : none;
    const bool wasForeign = applier.addressIsForeign;
    applier.failed = false;
    const bool isThere = BringAddress(applier, had, wanted);
    if (isThere) {
        BringMTU(applier, had, wanted);
        BringRoutes(applier, same, wanted);
    }
    DropRoutes(applier, had, sameAddress ? wanted : none);
    if (had.address != kAnyIPv4 && !sameAddress && !wasForeign) DropAddress(applier, had);
    if (isThere) {
        BringDns(applier, had, wanted);
        TellUnused(applier, had, wanted);
    }
    if (had.mtu != 0 && wanted.mtu == 0) DropMTU(applier, had.mtu);
    applier.has = wanted;
    if (sameAddress && IsSameEnd(had.ends, wanted.ends)) applier.has.ends = had.ends;
    PrintSteps(applier);
    applier.lastComplaints = std::exchange(applier.complaints, {});
}

}  // namespace ostrelctl
