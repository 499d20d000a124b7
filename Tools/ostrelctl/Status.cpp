// ostrelctl status: what a person wants to see at a glance.
//
// The configuration says which roles there are; the leases are asked for of those roles only. The daemon sets no
// address itself, so an address that the kernel does not have is worth a word. What a client holds is coloured by the
// age of its lease: it should have been renewed at half of it (T1), and at seven eighths (T2) any server is asked,
// RFC 2131 section 4.4.5.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iterator>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/OstrelJsonUtils.h"

#include "Arguments.h"
#include "Bus.h"
#include "Command.h"
#include "Counters.h"
#include "Device.h"
#include "Lease.h"
#include "Lines.h"
#include "Managed.h"
#include "Page.h"
#include "Situation.h"
#include "State.h"

namespace ostrelctl {

namespace {

constexpr double kRenewsAt = 0.5, kRebindsAt = 0.875;  // parts of a lease
constexpr double kFillingUp = 0.75, kFull = 0.95;      // parts of a range

struct StatusOptions {
    std::string interface;
    bool verbose = false;
};

// What status shows, as of `now`.
struct Picture {
    std::vector<Managed> interfaces{};
    std::vector<ClientLease> clients{};
    std::vector<ServerLease> servers{};
    std::vector<InterfaceState> states{};  // empty: the daemon is older than this
    bool verbose = false;
    int64_t now = 0;
    Terminal terminal{};
};

void Declare(CLI::App& command, StatusOptions& options) {
    AddInterface(command, options.interface)->description("Only this interface");
    command.add_flag("-v,--verbose", options.verbose, "Counters as well");
}

void Put(Block& block, const char* label, const std::string& value) {
    if (!value.empty()) block.fields.push_back({.label = label, .value = Printable(value)});
}

std::string_view ColourOf(const Picture& picture, double part, double warning, double bad) {
    const Palette& palette = picture.terminal.palette;
    return part < warning ? palette.good : part < bad ? palette.warning : palette.bad;
}

std::string Trouble(const std::string& interface) {
    switch (StateOfLink(interface)) {
        case LinkState::Absent:
            return "gone";
        case LinkState::NotEthernet:
            return "not Ethernet any more";
        case LinkState::Down:
            return "down";
        case LinkState::NoCarrier:
            return "no carrier";
        case LinkState::Running:
            return {};
    }
    return {};
}

std::string_view ColourOf(const Palette& palette, Grade grade) {
    switch (grade) {
        case Grade::Good:
            return palette.good;
        case Grade::Waiting:
            return palette.warning;
        case Grade::Bad:
            return palette.bad;
        case Grade::Idle:
            return palette.faint;
    }
    return {};
}

const InterfaceState* StateOf(const Picture& picture, const Managed& interface) {
    const auto found = std::ranges::find(picture.states, interface.interface, &InterfaceState::interface);
    return found == picture.states.end() ? nullptr : &*found;
}

void PutSituation(Block& block, const Picture& picture, const Managed& interface) {
    const InterfaceState* const state = StateOf(picture, interface);
    if (state == nullptr) return;
    for (const Situation& situation : SituationsOf(*state, picture.now))
        block.fields.push_back({.label = situation.label,
                                .value = Printable(situation.words),
                                .colour = ColourOf(picture.terminal.palette, situation.grade)});
}

void PutCounters(Block& block, const Picture& picture, const Managed& interface) {
    const InterfaceState* const state = StateOf(picture, interface);
    if (state == nullptr || !picture.verbose) return;
    for (const CounterGroup& group : CountersOf(*state)) Put(block, group.name, group.words);
}

std::string SourceOf(const Managed& interface, const ClientLease& lease, int64_t now) {
    if (!lease.times) return "link-local";
    if (interface.addressing == "static") return "static";
    if (lease.mask == kAnyIPv4) return "as configured, no lease yet";  // "dhcpManualAddress"
    return !interface.rfc && now - lease.times->began < kARPCheckSeconds ? "by DHCP, being checked" : "by DHCP";
}

void PutAddress(Block& block, const Managed& interface, const std::string& address, Ostrel_IPv4 number) {
    const bool set = HasAddress(interface.interface, number);
    const std::string next =
        interface.server ? " on " + interface.interface : ": 'ostrelctl apply " + interface.interface + "' sets it";
    Put(block, "address", set ? address : address + ", not set" + next);
}

void PutClientAddress(Block& block, const Picture& picture, const Managed& interface, const ClientLease& lease) {
    if (lease.address == kAnyIPv4) {
        block.mark = Mark::Nothing;
        Put(block, "address", "none");
        return;
    }
    const std::string address =
        lease.mask == kAnyIPv4 ? AddressText(lease.address) : AddressWithPrefix(lease.address, lease.mask);
    PutAddress(block, interface, address + ' ' + SourceOf(interface, lease, picture.now), lease.address);
    block.mark = lease.times && lease.mask != kAnyIPv4 ? Mark::Good : Mark::Reserve;
}

std::string EndText(int64_t ends, int64_t now) {
    return ClockText(ends, now) + (ends <= now ? ", ended" : ", in " + SpanText(ends - now));
}

void PutLeaseTimes(Block& block, const Picture& picture, const LeaseTimes& times) {
    if (times.ends == kForever) return Put(block, "expires", "never");
    const int64_t whole = times.ends - times.began;
    const int64_t age = std::clamp(picture.now - times.began, int64_t{0}, whole);
    const double part = static_cast<double>(age) / static_cast<double>(std::max(whole, int64_t{1}));
    Put(block, "expires", EndText(times.ends, picture.now));
    block.fields.push_back({.label = "age",
                            .value = SpanText(age) + " of " + SpanText(whole),
                            .colour = {},
                            .gauge = Gauge{.part = part, .colour = ColourOf(picture, part, kRenewsAt, kRebindsAt)}});
}

ClientLease LeaseOf(const Picture& picture, const Managed& interface) {
    const auto found = std::find_if(picture.clients.begin(), picture.clients.end(),
                                    [&interface](const auto& lease) { return lease.interface == interface.interface; });
    return found == picture.clients.end() ? ClientLease{} : *found;
}

Block DescribeClient(const Picture& picture, const Managed& interface) {
    Block block{
        .name = Printable(interface.interface), .role = RoleText(interface), .trouble = Trouble(interface.interface)};
    const ClientLease lease = LeaseOf(picture, interface);
    PutSituation(block, picture, interface);
    PutClientAddress(block, picture, interface, lease);
    Put(block, "router", AddressText(lease.routers));
    Put(block, "DNS", AddressText(lease.dnsServers));
    Put(block, "domain", lease.domainName);
    const bool leased = lease.times && lease.mask != kAnyIPv4 && interface.addressing != "static";
    if (leased) PutLeaseTimes(block, picture, *lease.times);
    Put(block, "rules", RulesText(interface));
    PutCounters(block, picture, interface);
    return block;
}

struct Use {
    int64_t used = 0;
    int64_t next = kForever;  // when the first lease ends
};

Use UseOf(const Picture& picture, const Managed& interface) {
    Use use;
    for (const ServerLease& lease : picture.servers) {
        if (lease.interface != interface.interface || lease.times.ends <= picture.now) continue;
        ++use.used;
        use.next = std::min(use.next, lease.times.ends);
    }
    return use;
}

void PutUse(Block& block, const Picture& picture, const Managed& interface) {
    const auto [used, next] = UseOf(picture, interface);
    const double part = static_cast<double>(used) / static_cast<double>(std::max(interface.maxLeases, int64_t{1}));
    block.fields.push_back({.label = "leases",
                            .value = std::to_string(used) + " of " + std::to_string(interface.maxLeases),
                            .colour = {},
                            .gauge = Gauge{.part = part, .colour = ColourOf(picture, part, kFillingUp, kFull)}});
    if (next != kForever) Put(block, "next ends", EndText(next, picture.now));
}

Block DescribeServer(const Picture& picture, const Managed& interface) {
    Block block{.name = Printable(interface.interface),
                .role = "server, leases for " + SpanText(interface.leaseSeconds),
                .trouble = Trouble(interface.interface),
                .mark = Mark::Good};
    PutSituation(block, picture, interface);
    PutAddress(block, interface, AddressText(interface.address), interface.address);
    Put(block, "range", AddressText(interface.rangeFirst) + " to " + AddressText(interface.rangeLast));
    PutUse(block, picture, interface);
    Put(block, "router", AddressText(interface.routers));
    Put(block, "DNS", AddressText(interface.dnsServers));
    Put(block, "domain", interface.domainName);
    Put(block, "rules", RulesText(interface));
    PutCounters(block, picture, interface);
    return block;
}

// What is listed of the interface; a reply about one that has just been released lists the others.
template <typename Lease>
void Append(std::vector<Lease>& known, const std::vector<Lease>& listed, const std::string& interface) {
    std::copy_if(listed.begin(), listed.end(), std::back_inserter(known),
                 [&interface](const Lease& lease) { return lease.interface == interface; });
}

// One of before this is told plainly, and the rest is shown.
ExitStatus AskStates(const Session& session, const std::string& interface, Picture& picture) {
    const Answer answer = Ask(session, kInterfaceState, RequestFor(interface));
    if (answer.status == kExitDone) {
        picture.states = ReadStates(answer.reply);
        return kExitDone;
    }
    if (!answer.isOfOldDaemon) return Refuse(answer.status, answer.problem, answer.next);
    (void)ComplainOfAge();
    return kExitDone;
}

// Each by its name: to the daemon a request without one is an error, which it logs.
ExitStatus AskLeases(const Session& session, Picture& picture) {
    for (const Managed& managed : picture.interfaces) {
        Answer answer;
        const Method& method = managed.server ? kServerLeaseInformation : kClientLeaseInformation;
        const ExitStatus asked =
            AskOrComplain(session, method, RequestFor(managed.interface), "the daemon shows no leases", "", answer);
        if (asked != kExitDone) return asked;
        if (managed.server)
            Append(picture.servers, ReadServerLeases(answer.reply), managed.interface);
        else
            Append(picture.clients, ReadClientLeases(answer.reply), managed.interface);
    }
    return kExitDone;
}

void PutClient(valdo::JValue& line, const Picture& picture, const Managed& interface) {
    const ClientLease lease = LeaseOf(picture, interface);
    line.put("ipv4Config", interface.addressing.c_str());
    PutLease(line, lease);
    if (lease.address != kAnyIPv4) line.put("set", HasAddress(interface.interface, lease.address));
}

void PutServer(valdo::JValue& line, const Picture& picture, const Managed& interface) {
    const auto [used, next] = UseOf(picture, interface);
    line.put("role", "server");
    OstrelJsonUtilsIPv4Put(line, "ipv4Address", interface.address);
    line.put("set", HasAddress(interface.interface, interface.address));
    line.put("used", used);
    line.put("maxLeases", interface.maxLeases);
    if (next != kForever) line.put("nextExpires", next);
}

void PutState(valdo::JValue& line, const Picture& picture, const Managed& interface) {
    const InterfaceState* const state = StateOf(picture, interface);
    if (state == nullptr) return;
    std::string words;
    for (const Situation& situation : SituationsOf(*state, picture.now))
        words += (words.empty() ? "" : "; " + std::string(situation.label) + ' ') + situation.words;
    line.put("situation", std::string_view(words));
    line.put("state", state->told);
}

void Show(const Picture& picture) {
    std::vector<Block> blocks;
    for (const Managed& interface : picture.interfaces)
        blocks.push_back(interface.server ? DescribeServer(picture, interface) : DescribeClient(picture, interface));
    PrintBlocks(picture.terminal, blocks);
    if (blocks.empty()) puts(kNothingManaged);
}

void PrintLines(const Picture& picture) {
    for (const Managed& interface : picture.interfaces) {
        valdo::JValue line = LineOf("status", interface.interface);
        const std::string trouble = Trouble(interface.interface);
        line.put("link", trouble.empty() ? "running" : trouble.c_str());
        line.put("rules", RulesText(interface));
        PutState(line, picture, interface);
        if (interface.server)
            PutServer(line, picture, interface);
        else
            PutClient(line, picture, interface);
        PrintLine(line);
    }
}

ExitStatus Run(const StatusOptions& options, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json && !settings.lines, true, session);
    if (opened != kExitDone) return opened;
    Picture picture{.verbose = options.verbose};
    ExitStatus asked = AskManaged(session, options.interface, picture.interfaces);
    if (asked == kExitDone) asked = AskStates(session, options.interface, picture);
    if (asked == kExitDone) asked = AskLeases(session, picture);
    if (asked != kExitDone || session.json) return asked;
    picture.now = std::time(nullptr);
    if (settings.lines) {
        PrintLines(picture);
        return kExitDone;
    }
    picture.terminal = DescribeStandardOutput();
    Show(picture);
    return kExitDone;
}

}  // namespace

void AddStatusCommand(CommandLine& line) {
    AddCommand<StatusOptions>(line, "status", "Show what is managed, and what it has",
                              "  ostrelctl status           every managed interface\n"
                              "  ostrelctl status eth0 -v   with counters\n"
                              "  watch ostrelctl status eth0   again every two seconds\n",
                              Declare, Run);
}

}  // namespace ostrelctl
