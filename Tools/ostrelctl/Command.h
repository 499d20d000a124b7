// The commands of ostrelctl: each file of them adds its own to the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>

#include "Bus.h"

namespace ostrelctl {

// What is left to do once the command line is read.
using Job = std::function<ExitStatus(const Settings&)>;

struct CommandLine {
    CLI::App app{};
    std::string json{};  // the value of --json; empty: it was not given
    Job job{};
};

void AddJsonFlag(CLI::App& app, std::string& json);

// Adds a command with its own options in an `Options` record, which begins as `initial`. `declare` adds the options,
// `run` does the work; examples are lines of a command and, after two spaces or more, what it does.
template <typename Options>
void AddCommand(CommandLine& line, const char* name, const char* description, const char* examples,
                void (*declare)(CLI::App&, Options&), ExitStatus (*run)(const Options&, const Settings&),
                Options initial = {}) {
    CLI::App* const command = line.app.add_subcommand(name, description);
    const auto options = std::make_shared<Options>(std::move(initial));
    declare(*command, *options);
    AddJsonFlag(*command, line.json);
    command->footer(std::string("Examples:\n") + examples);
    command->callback([options, run, &line] {
        line.job = [options, run](const Settings& settings) { return run(*options, settings); };
    });
}

void AddClientCommand(CommandLine& line);
void AddServerCommand(CommandLine& line);
void AddActionCommands(CommandLine& line);  // release, renew, rebind, init, halt
void AddStatusCommand(CommandLine& line);
void AddLeasesCommand(CommandLine& line);
void AddConfigCommand(CommandLine& line);
void AddDebugCommand(CommandLine& line);
void AddWatchCommand(CommandLine& line);
void AddWaitCommand(CommandLine& line);
void AddApplyCommand(CommandLine& line);
void AddRunCommand(CommandLine& line);
void AddLogCommand(CommandLine& line);
void AddTraceCommand(CommandLine& line);
void AddStatsCommand(CommandLine& line);

}  // namespace ostrelctl
