// ostrelctl: the address daemon for people.
//
// Each command is a file of its own, which adds its options to the command line and leaves a job to be done; here the
// line is read, wrong ones are explained, and the job is run. Nothing is asked of the daemon before the whole line is
// known to make sense.
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

// Help with less noise: which options exclude each other stands in their descriptions, or is said when it matters.
class PlainHelp : public CLI::Formatter {
public:
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
    line.app.set_version_flag("--version", "ostrelctl " OSTREL_VERSION);
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

ExitStatus ExplainUnknown(const CommandLine& line, const std::string& word) {
    constexpr size_t kSlip = 2;  // letters
    std::string nearest, all;
    size_t least = kSlip + 1;
    for (const CLI::App* command : line.app.get_subcommands([](const CLI::App*) { return true; })) {
        all += (all.empty() ? "" : ", ") + command->get_name();
        const size_t distance = Distance(word, command->get_name());
        if (distance < least) nearest = command->get_name();
        least = std::min(least, distance);
    }
    const bool isOption = word.starts_with('-');
    return Refuse(kExitUsage, (isOption ? "no option '" : "no command '") + Printable(word) + '\'',
                  nearest.empty() ? "the commands are " + all : "did you mean '" + nearest + "'?");
}

// Nothing was said, so everything that can be said.
ExitStatus ExplainUse(const CommandLine& line) {
    std::string text = "Usage: ostrelctl COMMAND [IFACE] [OPTION]...\n\n";
    for (const CLI::App* command : line.app.get_subcommands([](const CLI::App*) { return true; }))
        text += "  " + Padded(command->get_name(), kNameColumns) + command->get_description() + '\n';
    text += "\n'ostrelctl COMMAND --help' shows a command's options and examples.\n";
    (void)fputs(text.c_str(), stderr);
    return kExitUsage;
}

// The library counts values; people want to know which option it is about, and what is wrong with it.
std::string WordsFor(const CLI::ParseError& error) {
    std::string words = error.what();
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::ArgumentMismatch)) return words;
    const std::string option = words.substr(0, words.find(':'));
    return option + (words.ends_with("missing") ? " needs a value" : " is there more than once");
}

ExitStatus Explain(const CommandLine& line, const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
        (void)line.app.exit(error, std::cout, std::cerr);  // help or version
        return kExitDone;
    }
    const auto chosen = line.app.get_subcommands();
    const std::vector<std::string> unknown = line.app.remaining();
    if (chosen.empty()) return unknown.empty() ? ExplainUse(line) : ExplainUnknown(line, unknown.front());
    return Refuse(kExitUsage, WordsFor(error),
                  "'ostrelctl " + chosen.front()->get_name() + " --help' shows how it is used");
}

ExitStatus Run(int argc, char* argv[]) {
    CommandLine line;
    Describe(line);
    try {
        line.app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return Explain(line, error);
    }
    const ExitStatus status = line.job(line.settings);
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
