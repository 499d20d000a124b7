// ostrelctl log: what happened, one line an event.
//
// The past is read from the daemon's log, the present from its posts; Happening.h has one set of words for both. Where
// the log is depends on how the daemon was started: its file and the journal are both looked at, and put in order. Its
// debug output must be at "info" or below for it to tell of states.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <deque>
#include <fstream>
#include <iterator>

#include "Ostrel/System.h"

#include "Arguments.h"
#include "Command.h"
#include "Fields.h"
#include "Follow.h"
#include "Happening.h"
#include "Lines.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

constexpr uint32_t kUsualCount = 100;  // events of the past
constexpr char kJournal[] =
    "journalctl --no-pager --quiet --output=json --output-fields=MESSAGE -t org.ostrel.dhcp 2>/dev/null";

struct LogOptions {
    std::string interface;
    bool follow = false;
    std::optional<uint32_t> count{};
};

struct Entry {
    int64_t time;  // milliseconds since 1970
    Happening happening;
};

struct Logger {
    const LogOptions& options;
    bool lines;
    Terminal terminal;
    Holdings holdings{};
};

void Declare(CLI::App& command, LogOptions& options) {
    AddInterface(command, options.interface)->description("Only this interface");
    command.add_flag("-f,--follow", options.follow, "Go on with what happens from now on");
    AddParsed(command, "-n,--count", options.count, ReadNumber, "a number", "Events of the past; 100 unless given")
        ->type_name("N");
}

// "2026-11-23 14:03:22.123" or, of an event of today, the time alone.
std::string TimeText(int64_t milliseconds) {
    std::array<char, 16> fraction{};
    (void)snprintf(fraction.data(), fraction.size(), ".%03d ", static_cast<int>(milliseconds % 1000));
    return ClockText(milliseconds / 1000, std::time(nullptr)) + fraction.data();
}

void Print(const Logger& logger, const Entry& entry) {
    const Happening& happening = entry.happening;
    if (!logger.options.interface.empty() && happening.interface != logger.options.interface) return;
    if (!logger.lines)
        return PrintEvent(logger.terminal, TimeText(entry.time) + Padded(happening.interface, 8) + ' ',
                          SignOf(happening), WordsOf(happening));
    valdo::JValue line = LineOf(happening.event.c_str(), happening.interface);
    line.put("time", entry.time / 1000);
    PutHappening(line, happening);
    line.put("text", std::string_view(WordsOf(happening)));
    PrintLine(line);
}

// --- The past ---

void Keep(const LogOptions& options, std::deque<Entry>& kept, int64_t time, std::string_view message) {
    std::optional<Happening> happening = ReadLogLine(message);
    if (!happening || (!options.interface.empty() && happening->interface != options.interface)) return;
    kept.push_back({time, std::move(*happening)});
    if (kept.size() > options.count.value_or(kUsualCount)) kept.pop_front();
}

// "2026-11-23 17:46:52.123 MESSAGE", in local time.
void KeepFileLine(const LogOptions& options, std::deque<Entry>& kept, const std::string& line) {
    tm broken{};
    broken.tm_isdst = -1;
    const char* const point = strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &broken);
    int milliseconds = 0;
    if (point == nullptr || *point != '.') return;
    const char* const end = line.data() + line.size();
    const auto [stop, failure] = std::from_chars(point + 1, end, milliseconds);
    if (failure != std::errc{} || stop == end || *stop != ' ') return;
    Keep(options, kept, int64_t{std::mktime(&broken)} * 1000 + milliseconds, {stop + 1, end});
}

bool ReadLogFile(const LogOptions& options, std::deque<Entry>& kept) {
    std::ifstream former(std::string(kLogFile) + ".1", std::ios::binary), current(kLogFile, std::ios::binary);
    std::string line;
    while (std::getline(former, line)) KeepFileLine(options, kept, line);
    while (std::getline(current, line)) KeepFileLine(options, kept, line);
    return current.eof();
}

void KeepJournalLine(const LogOptions& options, std::deque<Entry>& kept, const char* text) {
    valdo::JDomParser parser;
    if (!parser.parse(text, valdo::JSchemaFragment("{}"))) return;
    const std::string stamp = TextOf(parser.getDom(), "__REALTIME_TIMESTAMP");  // microseconds
    int64_t time = 0;
    (void)std::from_chars(stamp.data(), stamp.data() + stamp.size(), time);
    Keep(options, kept, time / 1000, TextOf(parser.getDom(), "MESSAGE"));
}

// The journal belongs to a program of its own, which knows who may read it.
bool ReadJournal(const LogOptions& options, std::deque<Entry>& kept) {
    FILE* const journal = popen(kJournal, "re");  // NOLINT(cert-env33-c): the command is a constant
    if (journal == nullptr) return false;
    char* line = nullptr;
    size_t room = 0;
    while (getline(&line, &room, journal) > 0) KeepJournalLine(options, kept, line);
    free(line);
    return pclose(journal) == 0;
}

ExitStatus ShowPast(const Logger& logger) {
    std::deque<Entry> kept, fromJournal;
    const bool hasFile = ReadLogFile(logger.options, kept);
    const bool hasJournal = ReadJournal(logger.options, fromJournal);
    if (!hasFile && !hasJournal)
        return Refuse(kExitRefused, "there is no log to read: neither /var/log/ostrel.log nor the journal",
                      "become root; 'ostrelctl log -f' shows what happens from now on");
    std::ranges::move(fromJournal, std::back_inserter(kept));
    std::ranges::stable_sort(kept, {}, &Entry::time);
    const size_t most = logger.options.count.value_or(kUsualCount);
    for (size_t i = kept.size() > most ? kept.size() - most : 0; i < kept.size(); ++i) Print(logger, kept[i]);
    return kExitDone;
}

// --- The present ---

void ShowNow(Logger& logger, Happening happening) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    Print(logger, {std::chrono::duration_cast<std::chrono::milliseconds>(now).count(), std::move(happening)});
}

// What there is when the daemon first answers is no event.
void ShowEvent(Logger& logger, Follower& follower, const Event& event) {
    const bool wasTold = logger.holdings.isTold;
    if (event.news == News::DaemonGone || event.news == News::DaemonBack)
        ShowNow(logger, {.interface = logger.options.interface,
                         .event = event.news == News::DaemonBack ? "daemon-back" : "daemon-gone"});
    const auto before = HearEvent(logger.holdings, follower, event);
    if (event.method == &kLeaseEvents && event.posted) {
        const std::optional<Happening> happening = ReadLeaseEvent(event.root);
        if (happening) ShowNow(logger, *happening);
    }
    if (event.method != &kInterfaceState || !wasTold) return;
    for (const InterfaceState& now : ReadStates(event.root)) {
        const auto known = before.find(now.interface);
        for (const Happening& happening :
             HappeningsBetween(known == before.end() ? std::nullopt : known->second.state, now))
            ShowNow(logger, happening);
    }
}

ExitStatus FollowLog(Logger& logger, const Settings& settings) {
    if (!logger.options.interface.empty()) logger.holdings.only.insert(logger.options.interface);
    Follower follower{.subscriptions = {SubscriptionFor(logger.holdings),
                                        {.method = &kLeaseEvents, .interface = logger.options.interface}}};
    const ExitStatus started = StartFollowing(follower, settings);
    if (started != kExitDone) return started;
    for (;;) {
        const Event event = NextEvent(follower, NextEnd(logger.holdings));
        if (event.news == News::Failed) return event.status;
        if (event.news == News::Interrupted) return kExitDone;
        if (event.news == News::Told && settings.json && !settings.lines)
            PrintJson(event.text);
        else
            ShowEvent(logger, follower, event);
    }
}

ExitStatus Run(const LogOptions& options, const Settings& settings) {
    if (settings.json && !settings.lines && !options.follow)
        return Refuse(kExitUsage, "the past is no reply of the daemon's", "--json=lines prints it as JSON");
    Logger logger{.options = options, .lines = settings.lines, .terminal = DescribeStandardOutput()};
    const ExitStatus past = settings.json && !settings.lines ? kExitDone : ShowPast(logger);
    return options.follow ? FollowLog(logger, settings) : past;
}

}  // namespace

void AddLogCommand(CommandLine& line) {
    AddCommand<LogOptions>(
        line, "log", "Show what happened, one line an event",
        "  ostrelctl log            the past, of every interface\n"
        "  ostrelctl log eth0 -f    and what happens from now on\n"
        "The past is in the daemon's log, which has to be at 'info' or below: 'ostrelctl debug info'.\n",
        Declare, Run);
}

}  // namespace ostrelctl
