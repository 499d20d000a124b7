// ostrelctl leases: what the servers have handed out.
//
// Names and identifiers are what clients cared to send. The order by address and by hardware address is that of the
// numbers; the daemon writes the latter in two digits a byte, so there text and number agree.
#include <algorithm>
#include <ctime>
#include <endian.h>
#include <iterator>

#include "Arguments.h"
#include "Bus.h"
#include "Command.h"
#include "Lease.h"
#include "Managed.h"
#include "Page.h"

namespace ostrelctl {

namespace {

struct LeasesOptions {
    std::string interface;
    std::string sort = "address";
};

void Declare(CLI::App& command, LeasesOptions& options) {
    AddInterface(command, options.interface)->description("Only this interface's server");
    command.add_option("--sort", options.sort, "By address (the default), expiry, name or mac")
        ->type_name("KEY")
        ->check([](const std::string& key) -> std::string {
            const bool known = key == "address" || key == "expiry" || key == "name" || key == "mac";
            return known ? "" : '\'' + Printable(key) + "' is none of address, expiry, name and mac";
        });
}

// Leases without a name come after those with one.
bool IsBefore(const std::string& key, const ServerLease& a, const ServerLease& b) {
    if (key == "expiry" && a.times.ends != b.times.ends) return a.times.ends < b.times.ends;
    if (key == "name" && a.hostName.empty() != b.hostName.empty()) return b.hostName.empty();
    if (key == "name" && a.hostName != b.hostName) return a.hostName < b.hostName;
    if (key == "mac" && a.mac != b.mac) return a.mac < b.mac;
    return be32toh(a.address) < be32toh(b.address);
}

Row RowOf(const ServerLease& lease, const Terminal& terminal, int64_t now) {
    const bool ends = lease.times.ends != kForever;
    const bool ended = ends && lease.times.ends <= now;
    const std::string left = !ends ? "no end" : ended ? "ended" : SpanText(lease.times.ends - now);
    const std::string clock = ends ? ClockText(lease.times.ends, now) : "-";
    const auto text = [](const std::string& word) { return word.empty() ? "-" : Printable(word); };
    return {.cells = {Printable(lease.interface), AddressText(lease.address), lease.mac, text(lease.hostName),
                      text(lease.clientIdentifier), left, clock},
            .colour = ended ? terminal.palette.faint : std::string_view{}};
}

// Which columns there is nothing to say in.
void DropColumn(size_t index, std::vector<Column>& columns, std::vector<Row>& rows) {
    columns.erase(columns.begin() + static_cast<std::ptrdiff_t>(index));
    for (Row& row : rows) row.cells.erase(row.cells.begin() + static_cast<std::ptrdiff_t>(index));
}

void Show(const std::vector<ServerLease>& leases, bool severalServers) {
    constexpr size_t kWhole = 100, kName = 8;
    const Terminal terminal = DescribeStandardOutput();
    const int64_t now = std::time(nullptr);
    std::vector<Column> columns{{"IFACE", kWhole, 1},    {"ADDRESS", kWhole, 0}, {"MAC", kWhole, 4}, {"NAME", kName, 3},
                                {"CLIENT ID", kName, 5}, {"LEFT", kWhole, 2},    {"ENDS", kWhole, 6}};
    std::vector<Row> rows;
    std::transform(leases.begin(), leases.end(), std::back_inserter(rows),
                   [&terminal, now](const ServerLease& lease) { return RowOf(lease, terminal, now); });
    const bool identified = std::any_of(leases.begin(), leases.end(),
                                        [](const ServerLease& lease) { return !lease.clientIdentifier.empty(); });
    if (!identified) DropColumn(4, columns, rows);
    if (!severalServers) DropColumn(0, columns, rows);
    PrintTable(terminal, std::move(columns), std::move(rows));
}

// The servers to show. The daemon lists every one when the one asked for does not exist, so that is found out first.
ExitStatus FindServers(const Session& session, const std::string& name, std::vector<std::string>& servers) {
    const Answer dump = AskQuietly(session, kInterfaceConfigDump, RequestFor(name));
    if (dump.status != kExitDone) return Refuse(dump.status, dump.problem, dump.next);
    for (const Managed& interface : ReadManaged(dump.reply))
        if (interface.server && (name.empty() || interface.interface == name)) servers.push_back(interface.interface);
    if (!servers.empty()) return kExitDone;
    if (name.empty())
        return Refuse(kExitRefused, "no interface has a server", "'ostrelctl server --help' shows how to start one");
    return Refuse(kExitRefused, '\'' + Printable(name) + "' has no server",
                  "'ostrelctl status' shows what is managed, and as what");
}

ExitStatus Run(const LeasesOptions& options, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json, true, session);
    if (opened != kExitDone) return opened;
    std::vector<std::string> servers;
    const ExitStatus found = FindServers(session, options.interface, servers);
    if (found != kExitDone) return found;
    std::vector<ServerLease> leases;
    for (const std::string& server : servers) {
        Answer answer;
        const ExitStatus asked = AskOrComplain(session, kServerLeaseInformation, RequestFor(server),
                                               "the daemon does not show its leases", "", answer);
        if (asked != kExitDone) return asked;
        std::ranges::move(ReadServerLeases(answer.reply), std::back_inserter(leases));
    }
    if (settings.json) return kExitDone;
    std::sort(leases.begin(), leases.end(),
              [&options](const ServerLease& a, const ServerLease& b) { return IsBefore(options.sort, a, b); });
    Show(leases, servers.size() > 1);
    return kExitDone;
}

}  // namespace

void AddLeasesCommand(CommandLine& line) {
    AddCommand<LeasesOptions>(line, "leases", "Show what the servers have handed out",
                              "  ostrelctl leases                 every server's\n"
                              "  ostrelctl leases usb0 --sort expiry\n"
                              "  ostrelctl leases --json | jq '.interfaceList[].leases[].ipv4Address'\n",
                              Declare, Run);
}

}  // namespace ostrelctl
