// ostrelctl trace: frames as the daemon sends and gets them, with what became of each.
//
// A line has the time, the interface, an arrow, whom the frame is from or to, what it says, and for a frame that was
// dropped why. The daemon decodes; here its words are laid out, the names of what matters before the rest.
#include <charconv>
#include <cstdio>
#include <ctime>

#include "Arguments.h"
#include "Capture.h"
#include "Command.h"
#include "Fields.h"
#include "Follow.h"
#include "Lines.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr size_t kLongestFrame = 65535;  // bytes
constexpr size_t kStationColumns = 17;   // an Ethernet address
constexpr size_t kTypeColumns = 12;
constexpr int64_t kSecond = 1'000'000;  // microseconds
constexpr int64_t kSameFrame = 1000;    // microseconds in which the roles of an interface see one and the same frame

struct TraceOptions {
    std::string interface;
    bool verbose = false;
    std::optional<uint32_t> count{};
    std::optional<std::string> file{};
};

struct Tracer {
    const TraceOptions& options;
    Settings settings;
    Terminal terminal;
    CaptureFile capture{};
    uint32_t shown = 0;
    std::vector<uint8_t> lastFrame{};  // that was captured
    int64_t lastTime = 0;
    bool isFull = false;  // the capture could not be written
};

void Declare(CLI::App& command, TraceOptions& options) {
    constexpr size_t kLongestPath = 4096;
    AddInterface(command, options.interface)->description("Only this interface");
    command.add_flag("-v,--verbose", options.verbose, "Options by name below each frame, and frames of no concern");
    AddParsed(command, "--count", options.count, ReadCount, "a number above 0", "End after so many frames")
        ->type_name("N");
    AddText(command, "--pcap", options.file, kLongestPath, "Write the frames to this file, for tshark")
        ->type_name("FILE");
}

// --- A line ---

std::string MemberText(const JValue& object, const char* group, const char* name) {
    return Printable(TextOf(object[group], name));
}

// "3:04:05.123456" as the device's clock shows it.
std::string TimeText(int64_t time) {
    std::array<char, 16> fraction{};
    (void)snprintf(fraction.data(), fraction.size(), ".%06d ", static_cast<int>(time % kSecond));
    return ClockText(time / kSecond, std::time(nullptr)) + fraction.data();
}

std::string StationOf(const JValue& frame, bool isIn) {
    const std::string station = Printable(TextOf(frame, isIn ? "source" : "destination"));
    return station == "ff:ff:ff:ff:ff:ff" ? "everybody" : station;
}

void Append(std::string& words, const char* label, const std::string& text) {
    if (!text.empty()) words += (words.empty() ? "" : ", ") + std::string(label) + text;
}

// What a reader looks for first; all of it stands below with -v.
std::string WordsOfDHCP(const JValue& frame) {
    const auto option = [&frame](const char* name) { return MemberText(frame, "options", name); };
    const auto address = [&frame](const char* name) { return MemberText(frame, "addresses", name); };
    std::string words = address("yiaddr");
    if (words.empty()) words = option("requestedAddress");
    if (words.empty()) words = address("ciaddr");
    const std::string server = option("serverIdentifier");
    if (!server.empty()) words += (words.empty() ? "of " : " of ") + server;
    Append(words, "lease ", option("leaseTime"));
    Append(words, "name ", option("hostName"));
    Append(words, "for ", TextOf(frame, "direction") == "in" && !address("yiaddr").empty() ? address("chaddr") : "");
    Append(words, "", option("message"));
    return words;
}

std::string WordsOfARP(const JValue& frame) {
    const std::string sender = MemberText(frame, "addresses", "sender");
    const std::string target = MemberText(frame, "addresses", "target");
    if (TextOf(frame, "type") == "ARP reply") return sender + " is at " + MemberText(frame, "addresses", "senderMac");
    if (sender.empty()) return "does anybody have " + target + "?";
    return sender == target ? sender + " is mine" : sender + " asks for " + target;
}

std::string WordsOf(const JValue& frame) {
    const std::string type = TextOf(frame, "type");
    if (type.starts_with("DHCP")) return WordsOfDHCP(frame);
    return type == "ARP request" || type == "ARP reply" ? WordsOfARP(frame) : Printable(TextOf(frame, "text"));
}

// What became of the frame, for people who do not know the daemon's checks.
std::string FateOf(const JValue& frame, bool isIn) {
    struct Fate {
        const char* verdict;
        const char* words;
    };
    static constexpr std::array<Fate, 7> kFates{{{"taken", ""},
                                                 {"xid", "xid: it answers another question"},
                                                 {"not for us", "not for us: another client's"},
                                                 {"another server", "another server than ours"},
                                                 {"no such lease", "the client has no such lease"},
                                                 {"left out: too many frames", "too many frames"},
                                                 {"failed", "the device failed"}}};
    const std::string verdict = Printable(TextOf(frame, "verdict"));
    std::string words = verdict;
    for (const Fate& fate : kFates)
        if (verdict == fate.verdict) words = fate.words;
    if (verdict.starts_with("state ")) words = "not waited for in " + verdict;
    return words.empty() ? words : (isIn ? "dropped: " : "not sent: ") + words;
}

std::string Coloured(std::string_view colour, const std::string& text, const Palette& palette) {
    return colour.empty() ? text : std::string(colour) + text + std::string(palette.reset);
}

void PrintFrame(const Tracer& tracer, const JValue& frame, int64_t time) {
    const Palette& palette = tracer.terminal.palette;
    const bool isIn = TextOf(frame, "direction") == "in";
    const bool isThere = !TextOf(frame, "frame").empty();  // one that was not sent may not even have been made
    const std::string fate = FateOf(frame, isIn), type = Printable(TextOf(frame, isThere ? "type" : "role"));
    const bool isOfConcern = TextOf(frame, "verdict") != "does not concern us";
    const std::string_view colour = !isOfConcern                                 ? palette.faint
                                    : !fate.empty()                              ? palette.bad
                                    : type == "DHCPNAK" || type == "DHCPDECLINE" ? palette.warning
                                    : isIn                                       ? palette.good
                                                                                 : std::string_view{};
    const char* const arrow = tracer.terminal.unicode ? (isIn ? "\u2190" : "\u2192") : (isIn ? "<-" : "->");
    std::string line = Coloured(palette.faint, TimeText(time), palette) +
                       Padded(Printable(TextOf(frame, "interface")), 6) + ' ' + arrow + ' ' +
                       Padded(StationOf(frame, isIn), kStationColumns) + "  " +
                       Coloured(colour, Padded(type, kTypeColumns), palette) + ' ' + (isThere ? WordsOf(frame) : "");
    if (!fate.empty()) line += "  " + Coloured(colour, '[' + fate + ']', palette);
    puts(line.c_str());
}

void PrintDetails(const Tracer& tracer, const JValue& frame) {
    const Palette& palette = tracer.terminal.palette;
    const auto put = [&palette](const std::string& name, const std::string& text) {
        const std::string label = Coloured(palette.faint, Padded(Printable(name), 22), palette);
        puts(("        " + label + ' ' + Printable(text)).c_str());
    };
    const std::string xid = TextOf(frame, "xid");
    if (!xid.empty()) put("xid", xid);
    for (const char* const group : {"addresses", "options"})
        for (size_t i = 0; i < frame[group].objectSize(); ++i) {
            const std::string name(frame[group].memberName(i));
            put(name, TextOf(frame[group], name.c_str()));
        }
    put("role", TextOf(frame, "role"));
}

// --- The capture ---

bool ReadHex(const std::string& text, std::vector<uint8_t>& bytes) {
    if (text.empty() || text.size() % 2 != 0 || text.size() > 2 * kLongestFrame) return false;
    bytes.resize(text.size() / 2);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char* const digits = text.data() + 2 * i;
        const auto [stop, failure] = std::from_chars(digits, digits + 2, bytes[i], 16);
        if (failure != std::errc{} || stop != digits + 2) return false;
    }
    return true;
}

// Each role that sees a frame tells of it; the network had it once.
void Capture(Tracer& tracer, const JValue& frame, int64_t time) {
    std::vector<uint8_t> bytes;
    if (tracer.capture == nullptr || !ReadHex(TextOf(frame, "frame"), bytes)) return;
    const bool isSame = bytes == tracer.lastFrame && time - tracer.lastTime < kSameFrame;
    tracer.lastTime = time;
    if (isSame) return;
    tracer.isFull = !WriteFrame(tracer.capture.get(), time, bytes);
    tracer.lastFrame = std::move(bytes);
}

// --- Events ---

int64_t NumberIn(const JValue& object, const char* key) {
    int64_t number = 0;
    return object[key].asNumber(number) == valdo::CONV_OK && number > 0 ? number : 0;
}

void Note(const Tracer& tracer, const char* event, const std::string& interface, int64_t count,
          const std::string& words) {
    if (tracer.options.file == "-") return;
    if (!tracer.settings.lines) return PrintEvent(tracer.terminal, LineHead(interface), '!', words);
    JValue line = LineOf(event, interface);
    if (count > 0) line.put("count", count);
    PrintLine(line);
}

void PrintJsonLine(const JValue& frame, int64_t time) {
    JValue line = LineOf("frame", Printable(TextOf(frame, "interface")));
    line.put("time", time / kSecond);
    line.put("microseconds", time % kSecond);
    for (const char* const key : {"direction", "role", "source", "destination", "type", "xid", "addresses", "options",
                                  "verdict", "text", "frame"})
        line.put(key, frame[key]);
    PrintLine(line);
}

void Show(Tracer& tracer, const JValue& frame, int64_t time) {
    if (tracer.options.file == "-") return;
    if (tracer.settings.lines) return PrintJsonLine(frame, time);
    PrintFrame(tracer, frame, time);
    if (tracer.options.verbose) PrintDetails(tracer, frame);
    (void)fflush(stdout);
}

void OnPost(Tracer& tracer, const Event& event) {
    if (tracer.settings.json && !tracer.settings.lines && tracer.options.file != "-") PrintJson(event.text);
    const int64_t missed = NumberIn(event.root, "missed");
    if (missed > 0)
        return Note(tracer, "missed", "-", missed, std::to_string(missed) + " frames missed: this did not keep up");
    const int64_t time = NumberIn(event.root, "time"), leftOut = NumberIn(event.root, "leftOut");
    const std::string interface = Printable(TextOf(event.root, "interface"));
    if (interface.empty()) return;
    if (leftOut > 0)
        Note(tracer, "left-out", interface, leftOut,
             std::to_string(leftOut) + " frames left out: more than 200 a second");
    Capture(tracer, event.root, time);
    const bool isOfConcern = tracer.options.verbose || TextOf(event.root, "verdict") != "does not concern us";
    if (!isOfConcern) return;
    ++tracer.shown;
    if (!tracer.settings.json || tracer.settings.lines) Show(tracer, event.root, time);
}

ExitStatus TraceFrames(Follower& follower, Tracer& tracer) {
    const auto& most = tracer.options.count;
    while (!most || tracer.shown < *most) {
        const Event event = NextEvent(follower, kNever);
        if (event.news == News::Failed) return event.status;
        if (event.news == News::Interrupted) return kExitDone;
        if (event.news == News::DaemonGone) Note(tracer, "daemon-gone", "-", 0, "daemon gone");
        if (event.news == News::DaemonBack) Note(tracer, "daemon-back", "-", 0, "daemon back");
        if (event.method == &kTrace && event.posted) OnPost(tracer, event);
        if (tracer.isFull) return Refuse(kExitRefused, "the frames cannot be written", "is the disk full?");
    }
    return kExitDone;
}

ExitStatus Run(const TraceOptions& options, const Settings& settings) {
    Tracer tracer{.options = options, .settings = settings, .terminal = DescribeStandardOutput()};
    if (options.file) {
        const ExitStatus opened = OpenCapture(*options.file, tracer.capture);
        if (opened != kExitDone) return opened;
    }
    Follower follower{.subscriptions = {{.method = &kTrace, .interface = options.interface}}};
    const ExitStatus started = StartFollowing(follower, settings);
    return started == kExitDone ? TraceFrames(follower, tracer) : started;
}

}  // namespace

void AddTraceCommand(CommandLine& line) {
    AddCommand<TraceOptions>(line, "trace", "Show frames as they come and go, and why one was dropped",
                             "  ostrelctl trace eth0                    a line a frame, until interrupted\n"
                             "  ostrelctl trace eth0 -v --count 4       with all options\n"
                             "  ostrelctl trace eth0 --pcap dhcp.pcap   for 'tshark -r dhcp.pcap', also meanwhile\n"
                             "  ostrelctl trace eth0 --pcap - | tshark -r -\n"
                             "It shows what reaches the daemon: what the kernel's filter keeps away is not seen.\n",
                             Declare, Run);
}

}  // namespace ostrelctl
