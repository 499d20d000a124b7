// ostrelctl debug: how much the daemon writes to its log.
//
// The daemon takes any word and ignores one that it does not know, so the word is checked here.
#include "Ostrel/Log.h"

#include "Bus.h"
#include "Command.h"

namespace ostrelctl {

namespace {

struct DebugOptions {
    std::string level;
};

std::string LevelNames() {
    std::string names;
    for (const Ostrel_DebugLevel& level : Ostrel_DebugLevels())
        names += (names.empty() ? "" : " ") + std::string(level.name);
    return names;
}

std::string CheckLevel(const std::string& word) {
    for (const Ostrel_DebugLevel& level : Ostrel_DebugLevels())
        if (level.name == word) return {};
    return "'" + word + "' is no level; these are, from the most output to the least:\n  " + LevelNames();
}

void Declare(CLI::App& command, DebugOptions& options) {
    command.add_option("LEVEL", options.level, "One of: " + LevelNames())->required()->check(CheckLevel);
}

ExitStatus Run(const DebugOptions& options, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json, true, session);
    if (opened != kExitDone) return opened;
    valdo::JValue request = valdo::Object();
    request.put("debugLevel", options.level.c_str());
    Answer answer;
    return AskOrComplain(session, kSetDebugLevel, request, "the daemon did not take the level", "", answer);
}

}  // namespace

void AddDebugCommand(CommandLine& line) {
    AddCommand<DebugOptions>(line, "debug", "Set how much the daemon writes to its log",
                             "  ostrelctl debug verbose   every frame\n"
                             "  ostrelctl debug info      every change of state\n"
                             "  ostrelctl debug notice    what the installed service starts with\n",
                             Declare, Run);
}

}  // namespace ostrelctl
