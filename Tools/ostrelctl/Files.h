// The files of `ostrelctl run`: what every interface is to be.
//
// A file is TOML with a table for each interface. Its keys are the options of the commands `client` and `server`, and
// go through the same readers; there is no second list of them.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "Roles.h"

namespace ostrelctl {

constexpr char kFileDirectory[] = "/etc/ostrel";

// A table.
struct Entry {
    std::string pattern;             // an interface's name, or what the shell would match several with
    std::string file;                // where it stands
    unsigned line = 0;               // of the file, from 1
    std::vector<std::string> words;  // the options with their values, as the command has them
    std::variant<ClientOptions, ServerOptions> role{};
    ServerPlan plan{};                 // of a server
    std::optional<uint32_t> metric{};  // of a client's routes
    bool release = false;              // a client tells its server when it ends for good
};

struct Configuration {
    std::vector<Entry> entries;
    std::string resolvConf;  // empty: no file is written
};

// The files of kFileDirectory that end in ".toml", by name.
[[nodiscard]] std::vector<std::string> UsualFiles();

// Reads them all, and says of each table that can't be meant so what is wrong, with file, line and key. With kExitUsage
// the configuration is untouched.
[[nodiscard]] ExitStatus ReadFiles(const std::vector<std::string>& files, Configuration& configuration);

// The table that counts for an interface: its own, or the one whose pattern is the longest; null without one.
[[nodiscard]] const Entry* EntryFor(const Configuration& configuration, const std::string& interface);

// Whether two tables mean the same.
[[nodiscard]] bool IsSame(const Entry& one, const Entry& other);

// "client by DHCP, else link-local", "server of 20 addresses, ...".
[[nodiscard]] std::string RoleText(const Entry& entry);

// What hands such an interface over.
[[nodiscard]] valdo::JValue RequestFor(const Entry& entry, const std::string& interface);

// The options that a table has by its role, which are bound to the entry.
void AddEntryOptions(CLI::App& command, Entry& entry);

// A file with every key in it, each with a word on what it does. All but the usual ones are commented out.
[[nodiscard]] std::string ExampleFile();

}  // namespace ostrelctl
