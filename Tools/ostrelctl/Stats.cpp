// ostrelctl stats: what the daemon has counted.
//
// For people a table of what is not 0. With --prometheus the text format that Prometheus reads, and node_exporter's
// textfile collector takes from a file: every metric with its help and type, once, and then its value of each
// interface. See https://prometheus.io/docs/instrumenting/exposition_formats/.
#include <cctype>
#include <cstdio>
#include <map>
#include <utility>

#include "Arguments.h"
#include "Command.h"
#include "Counters.h"
#include "Lines.h"
#include "Managed.h"
#include "Page.h"

namespace ostrelctl {

namespace {

struct StatsOptions {
    std::string interface;
    bool prometheus = false;
};

void Declare(CLI::App& command, StatsOptions& options) {
    AddInterface(command, options.interface)->description("Only this interface");
    command.add_flag("--prometheus", options.prometheus, "In the text format of Prometheus");
}

// --- For people ---

void ShowTable(const std::vector<InterfaceState>& states) {
    constexpr size_t kWhole = 100, kHelp = 10;
    std::vector<Row> rows;
    for (const InterfaceState& state : states)
        for (const CounterGroup& group : CountersOf(state))
            for (const Counter& counter : group.counters)
                if (counter.value != 0)
                    rows.push_back(
                        {.cells = {state.interface, group.name, (counter.isDrop ? "dropped " : "") + counter.name,
                                   std::to_string(counter.value), counter.help}});
    PrintTable(
        DescribeStandardOutput(),
        {{"IFACE", kWhole, 1}, {"ROLE", kWhole, 2}, {"COUNTER", kWhole, 0}, {"VALUE", kWhole, 0}, {"", kHelp, 3}},
        std::move(rows));
}

void PrintLines(const std::vector<InterfaceState>& states) {
    for (const InterfaceState& state : states) {
        valdo::JValue line = LineOf("stats", state.interface);
        line.put("counters", state.told["counters"]);
        PrintLine(line);
    }
}

// --- For Prometheus ---

// A metric with its samples, each of which is the labels and the value.
struct Metric {
    std::string help;
    const char* type;
    std::vector<std::pair<std::string, std::string>> samples{};
};
using Metrics = std::map<std::string, Metric>;

// "discoverSent" is discover_sent.
std::string SnakeCase(const std::string& name) {
    std::string snake;
    for (const char c : name) {
        const bool isCapital = std::isupper(static_cast<unsigned char>(c)) != 0;
        if (isCapital) snake += '_';
        snake += isCapital ? static_cast<char>(std::tolower(static_cast<unsigned char>(c))) : c;
    }
    return snake;
}

std::string Label(const char* name, const std::string& value) {
    std::string label = std::string(name) + "=\"";
    for (const char c : value) {
        if (c == '\\' || c == '"') label += '\\';
        label += c;
    }
    return label + '"';
}

void Put(Metrics& metrics, const std::string& name, const Metric& kind, const std::string& labels, int64_t value) {
    metrics.try_emplace("ostrel_" + name, kind).first->second.samples.emplace_back(labels, std::to_string(value));
}

void PutCounters(Metrics& metrics, const InterfaceState& state) {
    const std::string interface = Label("interface", state.interface);
    for (const CounterGroup& group : CountersOf(state)) {
        const std::string prefix = std::string(group.name) + '_';
        for (const Counter& counter : group.counters) {
            if (counter.isDrop)
                Put(metrics, prefix + "dropped_total", {"Frames that were dropped, by the check.", "counter"},
                    interface + ',' + Label("reason", counter.name), counter.value);
            else
                Put(metrics, prefix + SnakeCase(counter.name) + "_total", {counter.help + '.', "counter"}, interface,
                    counter.value);
        }
    }
}

void PutGauges(Metrics& metrics, const InterfaceState& state) {
    const std::string interface = Label("interface", state.interface);
    if (!state.link.empty())
        Put(metrics, "link_up", {"Whether the interface has its link.", "gauge"}, interface, state.link == "up");
    if (state.client)
        Put(metrics, "client_held", {"Whether the client's address may be used.", "gauge"}, interface,
            state.client->held);
    if (state.client && state.client->expires)
        Put(metrics, "client_expires_timestamp_seconds", {"When the client's lease ends, since 1970.", "gauge"},
            interface, *state.client->expires);
    if (state.linkLocal)
        Put(metrics, "link_local_held", {"Whether the link-local address may be used.", "gauge"}, interface,
            state.linkLocal->held);
    if (!state.server) return;
    const std::pair<const char*, int64_t> uses[] = {{"active", state.server->active},
                                                    {"offered", state.server->offered},
                                                    {"held", state.server->held},
                                                    {"free", state.server->free}};
    for (const auto& [use, number] : uses)
        Put(metrics, "server_addresses", {"Addresses of the server's range.", "gauge"},
            interface + ',' + Label("state", use), number);
}

void PrintMetrics(const std::vector<InterfaceState>& states) {
    Metrics metrics;
    for (const InterfaceState& state : states) {
        PutCounters(metrics, state);
        PutGauges(metrics, state);
    }
    for (const auto& [name, metric] : metrics) {
        (void)printf("# HELP %s %s\n# TYPE %s %s\n", name.c_str(), metric.help.c_str(), name.c_str(), metric.type);
        for (const auto& [labels, value] : metric.samples)
            (void)printf("%s{%s} %s\n", name.c_str(), labels.c_str(), value.c_str());
    }
}

ExitStatus Run(const StatsOptions& options, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json && !settings.lines, true, session);
    if (opened != kExitDone) return opened;
    const Answer answer = Ask(session, kInterfaceState, RequestFor(options.interface));
    if (answer.isOfOldDaemon) return ComplainOfAge();
    if (answer.status != kExitDone) return Refuse(answer.status, answer.problem, answer.next);
    const std::vector<InterfaceState> states = ReadStates(answer.reply);
    if (states.empty() && !options.interface.empty()) return ComplainOfUnmanaged(options.interface, true);
    if (session.json) return kExitDone;
    if (settings.lines)
        PrintLines(states);
    else if (options.prometheus)
        PrintMetrics(states);
    else if (states.empty())
        puts(kNothingManaged);
    else
        ShowTable(states);
    return kExitDone;
}

}  // namespace

void AddStatsCommand(CommandLine& line) {
    AddCommand<StatsOptions>(line, "stats", "Show what the daemon has counted",
                             "  ostrelctl stats          what is not 0\n"
                             "  ostrelctl stats eth0 --prometheus >/var/lib/node_exporter/ostrel.prom\n",
                             Declare, Run);
}

}  // namespace ostrelctl
