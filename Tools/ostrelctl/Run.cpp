// ostrelctl run: the device is as its files say.
#include <cstdio>

#include "Command.h"
#include "Device.h"
#include "Files.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

struct RunOptions {
    std::vector<std::string> files;
    bool check = false, example = false;
};

void Declare(CLI::App& command, RunOptions& options) {
    command.add_option("FILE", options.files, "The files; otherwise /etc/ostrel/*.toml")->type_name("");
    command.add_flag("--check", options.check, "Say what the files mean and what is wrong with them, and do nothing");
    command.add_flag("--example", options.example, "Print a file with every key");
}

void PrintRequest(const valdo::JValue& request) {
    std::string text;
    if (valdo::JGenerator::toString(request, valdo::JSchemaFragment("{}"), text)) PrintJson(text);
}

// What a table does on this device as it is now: a line for each interface that it is for.
void ShowEntry(const Configuration& configuration, const Entry& entry, bool json) {
    size_t count = 0;
    for (const std::string& interface : EthernetInterfaces()) {
        if (EntryFor(configuration, interface) != &entry) continue;
        ++count;
        if (json)
            PrintRequest(RequestFor(entry, interface));
        else
            printf("%s: %s\n", interface.c_str(), RoleText(entry).c_str());
    }
    if (count == 0 && !json)
        printf("%s, when it comes: %s\n", Printable(entry.pattern).c_str(), RoleText(entry).c_str());
}

ExitStatus Check(const Configuration& configuration, bool json) {
    for (const Entry& entry : configuration.entries) ShowEntry(configuration, entry, json);
    return kExitDone;
}

ExitStatus Run(const RunOptions& options, const Settings& settings) {
    if (options.example) {
        printf("%s", ExampleFile().c_str());
        return kExitDone;
    }
    const std::vector<std::string> files = options.files.empty() ? UsualFiles() : options.files;
    if (files.empty())
        return Refuse(kExitUsage, std::string("there is no file in ") + kFileDirectory,
                      "'ostrelctl run --example' prints one to begin with");
    Configuration configuration;
    const ExitStatus read = ReadFiles(files, configuration);
    if (read != kExitDone) return read;
    if (options.check) return Check(configuration, settings.json);
    return Refuse(kExitUsage, "files can only be checked yet", "ostrelctl run --check");
}

}  // namespace

void AddRunCommand(CommandLine& line) {
    AddCommand<RunOptions>(line, "run", "Make the interfaces what files say, and keep them so",
                           "  ostrelctl run --example          a file to begin with\n"
                           "  ostrelctl run --check lan.toml   what it means, without doing it\n",
                           Declare, Run);
}

}  // namespace ostrelctl
