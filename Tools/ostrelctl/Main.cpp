// ostrelctl: the address daemon for people.
//
// Each command is a file of its own, which adds its options to the command line and leaves a job to be done; here the
// line is read, wrong ones are explained, and the job is run. Nothing is asked of the daemon before the whole line is
// known to make sense, and for a mistyped command none is proposed that changes anything.
#include <algorithm>
#include <array>
#include <clocale>
#include <cstdio>
#include <iostream>
#include <numeric>
#include <utility>

#include "Ostrel/Log.h"

#include "Command.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

constexpr size_t kNameColumns = 10;  // of a command
constexpr size_t kHelpColumns = 36;  // of an option and its value
// How the library is told what --json and --link-local mean without a value.
constexpr std::array<std::string_view, 2> kUnsaid{"{raw}", "{always}"};

// Help with less noise: which options exclude each other stands in their descriptions, or is said when it matters.
class PlainHelp : public CLI::Formatter {
public:
    std::string make_option_name(const CLI::Option* option, bool positional) const override {
        std::string name = CLI::Formatter::make_option_name(option, positional);
        for (const std::string_view unsaid : kUnsaid)
            for (size_t value = 0; (value = name.find(unsaid)) != std::string::npos;) name.erase(value, unsaid.size());
        return name;
    }
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string type = option->get_type_name();
        if (option->get_positional() || type.empty()) return {};
        return ' ' + type + (option->get_required() ? " (required)" : "");
    }
};

void Describe(CommandLine& line) {
    const auto help = std::make_shared<PlainHelp>();
    help->column_width(kHelpColumns);
    line.app.formatter(help);
    line.app.name("ostrelctl");
    line.app.description("Tells the IPv4 address daemon what to do, and shows what it knows.");
    line.app.set_version_flag("-V,--version", "ostrelctl " OSTREL_VERSION);
    AddJsonFlag(line.app, line.json);
    line.app.require_subcommand(1);
    line.app.footer(
        "'ostrelctl COMMAND --help' shows a command's options and examples.\n"
        "Exit status: 0 done, 1 refused, 2 wrong usage, 3 no daemon.");
    AddClientCommand(line);
    AddServerCommand(line);
    AddActionCommands(line);
    AddStatusCommand(line);
    AddLeasesCommand(line);
    AddConfigCommand(line);
    AddWatchCommand(line);
    AddWaitCommand(line);
    AddApplyCommand(line);
    AddRunCommand(line);
    AddLogCommand(line);
    AddTraceCommand(line);
    AddStatsCommand(line);
    AddDebugCommand(line);
}

// How many letters to insert, remove or replace for one word to become the other.
size_t Distance(std::string_view from, std::string_view to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t corner = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t replaced = corner + (from[i] == to[j] ? 0 : 1);
            corner = row[j + 1];
            row[j + 1] = std::min({replaced, corner + 1, row[j] + 1});
        }
    }
    return row.back();
}

// The word that was meant, for a slip of two letters at most; empty: none.
std::string Nearest(const std::string& word, const std::vector<std::string>& known) {
    constexpr size_t kSlip = 2;  // letters
    std::string nearest;
    size_t least = kSlip + 1;
    for (const std::string& candidate : known) {
        const size_t distance = Distance(word, candidate);
        if (distance < least) nearest = candidate;
        least = std::min(least, distance);
    }
    return nearest;
}

std::vector<CLI::App*> CommandsOf(CLI::App& app) {
    return app.get_subcommands([](CLI::App*) { return true; });
}

bool IsOption(const std::string& word) {
    return word.starts_with('-');
}

ExitStatus ExplainUnknown(CommandLine& line, const std::string& word) {
    const std::string nearest =
        Nearest(word, IsOption(word) ? std::vector<std::string>{"--help", "--version", "--json"}
                                     : std::vector<std::string>{"status", "leases", "config", "watch", "wait", "help"});
    std::string all;
    for (const CLI::App* command : CommandsOf(line.app)) all += (all.empty() ? "" : ", ") + command->get_name();
    return Refuse(kExitUsage, (IsOption(word) ? "no option '" : "no command '") + Printable(word) + '\'',
                  nearest.empty() ? "the commands are " + all : "did you mean '" + nearest + "'?");
}

ExitStatus ExplainOption(const CLI::App& command, const std::string& word) {
    std::vector<std::string> known;
    for (const CLI::Option* option : command.get_options())
        if (!option->get_lnames().empty()) known.push_back("--" + option->get_lnames().front());
    const std::string nearest = Nearest(word.substr(0, word.find('=')), known);
    std::string next = "did you mean '" + nearest + "'?";
    if (nearest.empty()) next = "'ostrelctl " + command.get_name() + " --help' shows how it is used";
    return Refuse(kExitUsage, '\'' + command.get_name() + "' has no option '" + Printable(word) + '\'', next);
}

// Nothing was said, so everything that can be said.
ExitStatus ExplainUse(CommandLine& line) {
    std::string text = "Usage: ostrelctl COMMAND [IFACE] [OPTION]...\n\n";
    for (const CLI::App* command : CommandsOf(line.app))
        text += "  " + Padded(command->get_name(), kNameColumns) + command->get_description() + '\n';
    text += "\n'ostrelctl COMMAND --help' shows a command's options and examples.\n";
    (void)fputs(text.c_str(), stderr);
    return kExitUsage;
}

// The library counts values; people want to know which option it is about, and what is wrong with it.
std::string WordsFor(const CLI::ParseError& error) {
    std::string words = error.what();
    const auto is = [&error](CLI::ExitCodes code) { return error.get_exit_code() == static_cast<int>(code); };
    if (is(CLI::ExitCodes::ConversionError)) return words.substr(words.find("--")) + ": it takes no value";
    if (!is(CLI::ExitCodes::ArgumentMismatch)) return words;
    const std::string option = words.substr(0, words.find(':'));
    return option + (words.ends_with("missing") ? " needs a value" : " is there more than once");
}

ExitStatus Explain(CommandLine& line, const CLI::ParseError& error) {
    const auto chosen = line.app.get_subcommands();
    const std::vector<std::string> unknown = line.app.remaining();
    if (error.get_exit_code() == 0 && (unknown.empty() || !chosen.empty())) {
        (void)line.app.exit(error, std::cout, std::cerr);  // help or version
        return kExitDone;
    }
    if (chosen.empty()) return unknown.empty() ? ExplainUse(line) : ExplainUnknown(line, unknown.front());
    const std::vector<std::string> extras = chosen.front()->remaining();
    const auto option = std::find_if(extras.begin(), extras.end(), IsOption);
    if (option != extras.end()) return ExplainOption(*chosen.front(), *option);
    return Refuse(kExitUsage, extras.empty() ? WordsFor(error) : "not expected: " + Printable(extras.front()),
                  "'ostrelctl " + chosen.front()->get_name() + " --help' shows how it is used");
}

// "help", "help COMMAND" and "version" are words for options. What is left is in the order that the library wants.
std::vector<std::string> WordsOf(int argc, char* argv[]) {
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words.front() == "version") words.front() = "--version";
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    // The word behind --link-local is its value, and never an interface.
    for (size_t i = 1; i < words.size(); ++i) {
        if (words[i - 1] != "--link-local" || words[i] != "fallback") continue;
        words[i - 1] += "=fallback";
        words.erase(words.begin() + static_cast<std::ptrdiff_t>(i));
    }
    std::reverse(words.begin(), words.end());
    return words;
}

ExitStatus ReadSettings(const CommandLine& line, Settings& settings) {
    const std::string command = line.app.get_subcommands().front()->get_name();
    settings = {.json = !line.json.empty(), .lines = line.json == "lines"};
    constexpr std::array<std::string_view, 7> kTelling{"status", "watch", "wait", "apply", "log", "trace", "stats"};
    if (!settings.lines || std::ranges::find(kTelling, command) != kTelling.end()) return kExitDone;
    return Refuse(kExitUsage, "--json=lines is for 'status', 'watch' and what else tells what happens",
                  "--json prints the daemon's own replies");
}

ExitStatus Run(int argc, char* argv[]) {
    CommandLine line;
    Describe(line);
    try {
        line.app.parse(WordsOf(argc, argv));
    } catch (const CLI::ParseError& error) {
        return Explain(line, error);
    }
    Settings settings;
    const ExitStatus read = ReadSettings(line, settings);
    if (read != kExitDone) return read;
    const ExitStatus status = line.job(settings);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    return Refuse(kExitRefused, "what was to be shown could not be written", "is the disk full?");
}

}  // namespace

}  // namespace ostrelctl

int main(int argc, char* argv[]) {
    (void)std::setlocale(LC_CTYPE, "");            // to know what the terminal can show; times stay in English
    (void)QxLogGetContext("ostrelctl", &gLogCxt);  // the shared readers log, to a context that wants no debug lines
    try {
        return ostrelctl::Run(argc, argv);
    } catch (const std::exception& error) {
        ostrelctl::Complain(error.what(), "");
        return ostrelctl::kExitRefused;
    }
}
