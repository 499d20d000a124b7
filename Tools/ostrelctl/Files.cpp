// The files of `ostrelctl run`, read.
//
// A table becomes a command line, and is read by the options of the command that it stands for: what is refused there
// is refused here, in the same words. Every table is looked at, so that all that is wrong is told at once.
#include "Files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fnmatch.h>
#include <map>
#include <net/if.h>

#include "FileWords.h"
#include "KeptFile.h"
#include "Lease.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

constexpr std::string_view kWildcards = "*?[";

struct Source {
    const std::string& file;
    Configuration& configuration;
    ComplaintSource::Places places{};
};

std::string Place(const std::string& file, toml::source_index line) {
    return Printable(file) + ':' + std::to_string(line);
}

ExitStatus RefuseAt(const Source& source, const toml::node& node, std::string_view problem, std::string_view next) {
    return Refuse(kExitUsage, Place(source.file, node.source().begin.line) + ": " + std::string(problem), next);
}

bool IsPattern(const std::string& name) {
    return name.find_first_of(kWildcards) != std::string::npos;
}

// The key that an error is about: the first option that it names. What follows is the problem.
ExitStatus ExplainEntry(const CLI::ParseError& error) {
    constexpr std::string_view kMark = "--", kNameEnd = ": ,=";
    const std::string words = error.what();
    const size_t mark = words.find(kMark);
    if (mark == std::string::npos) return RefuseKey("", words, "");
    const size_t begin = mark + kMark.size(), end = std::min(words.find_first_of(kNameEnd, begin), words.size());
    const std::string key = words.substr(begin, end - begin);
    const bool isItsOwn = mark == 0 && words.substr(end).starts_with(": ");
    return RefuseKey(key, isItsOwn ? words.substr(end + 2) : words, "");
}

ExitStatus ParseEntry(Entry& entry, CLI::App& command) {
    std::vector<std::string> words(entry.words.rbegin(), entry.words.rend());  // the order that the library wants
    try {
        command.parse(words);
    } catch (const CLI::ParseError& error) {
        return ExplainEntry(error);
    }
    if (const auto* const client = std::get_if<ClientOptions>(&entry.role)) return CheckClient(*client);
    return PlanServer(std::get<ServerOptions>(entry.role), entry.plan);
}

ExitStatus ReadRole(const Source& source, const toml::table& table, Entry& entry) {
    const toml::node* const role = table.get("role");
    if (role == nullptr)
        return Refuse(kExitUsage, source.places.at("") + ": role is missing", "it is \"client\" or \"server\"");
    const std::string word = role->value_or(std::string());
    if (word == "server")
        entry.role = ServerOptions{};
    else if (word != "client")
        return Refuse(kExitUsage, source.places.at("role") + ": is neither \"client\" nor \"server\"", "");
    return kExitDone;
}

ExitStatus CollectWords(const Source& source, const toml::table& table, const CLI::App& command, Entry& entry) {
    ExitStatus status = kExitDone;
    for (const auto& [name, value] : table) {
        const std::string key(name.str());
        if (key == "role") continue;
        const CLI::Option* const option = command.get_option_no_throw("--" + key);
        std::string problem = "there is no such key for a ";
        problem += entry.role.index() == 0 ? "client" : "server";
        if (option != nullptr) problem = AddWords(*option, key, value, entry.words);
        if (!problem.empty()) status = Refuse(kExitUsage, source.places.at(key) + ": " + problem, "");
    }
    std::stable_sort(entry.words.begin(), entry.words.end(), [](const std::string& one, const std::string& other) {
        return one.substr(0, one.find('=')) < other.substr(0, other.find('='));
    });
    return status;
}

ComplaintSource::Places PlacesOf(const Source& source, const std::string& name, const toml::table& table) {
    ComplaintSource::Places places;
    const std::string head = ": [" + Printable(name) + ']';
    places[""] = Place(source.file, table.source().begin.line) + head;
    for (const auto& [key, value] : table)
        places[std::string(key.str())] =
            Place(source.file, key.source().begin.line) + head + ' ' + Printable(key.str());
    return places;
}

ExitStatus CheckName(const Source& source, const std::string& name, const toml::table& table) {
    const bool isName = !name.empty() && (name.size() < IF_NAMESIZE || IsPattern(name)) &&
                        name.find_first_of("/ \t\n") == std::string::npos;
    if (!isName)
        return Refuse(kExitUsage, source.places.at("") + ": no interface is called so",
                      "a name has 1 to 15 characters");
    for (const Entry& other : source.configuration.entries)
        if (other.pattern == name)
            return Refuse(kExitUsage, source.places.at("") + ": it is there already",
                          Place(other.file, other.line) + " has it");
    for (const auto& [key, value] : table)
        if (value.is_table() && key != "option")
            return Refuse(kExitUsage, source.places.at(std::string(key.str())) + ": is a table",
                          "a name with a dot in it stands between quotes: [\"" + Printable(name) + '.' +
                              Printable(key.str()) + "\"]");
    return kExitDone;
}

ExitStatus ReadEntry(Source& source, const std::string& name, const toml::table& table) {
    source.places = PlacesOf(source, name, table);
    Entry entry{
        .pattern = name, .file = source.file, .line = static_cast<unsigned>(table.source().begin.line), .words = {}};
    ExitStatus status = CheckName(source, name, table);
    if (status == kExitDone) status = ReadRole(source, table, entry);
    if (status != kExitDone) return status;
    CLI::App command;
    command.set_help_flag();
    AddEntryOptions(command, entry);
    status = CollectWords(source, table, command, entry);
    if (status != kExitDone) return status;
    {
        const ComplaintSource about(source.places);
        status = ParseEntry(entry, command);
    }
    if (status == kExitDone) source.configuration.entries.push_back(std::move(entry));
    return status;
}

ExitStatus ReadGeneral(Source& source, const std::string& key, const toml::node& value) {
    if (key != "resolv-conf")
        return RefuseAt(source, value, "no key '" + Printable(key) + "' outside a table",
                        "an interface's keys follow its [name]");
    const std::string path = value.value_or(std::string());
    if (!path.starts_with('/')) return RefuseAt(source, value, "resolv-conf: is no absolute path", "");
    source.configuration.resolvConf = path;
    return kExitDone;
}

ExitStatus ReadTables(Source& source, const toml::table& root) {
    std::multimap<toml::source_index, std::pair<std::string, const toml::node*>> inOrder;
    for (const auto& [key, value] : root)
        inOrder.emplace(key.source().begin.line, std::pair{std::string(key.str()), &value});
    ExitStatus status = kExitDone;
    for (const auto& [line, named] : inOrder) {
        const auto& [name, value] = named;
        const toml::table* const table = value->as_table();
        const ExitStatus read = table != nullptr ? ReadEntry(source, name, *table) : ReadGeneral(source, name, *value);
        if (read != kExitDone) status = read;
    }
    return status;
}

ExitStatus ReadOne(const std::string& file, Configuration& configuration) {
    std::string text;
    if (!ReadWhole(file, text))
        return Refuse(kExitUsage, Printable(file) + ": cannot be read: " + std::strerror(errno), "");
    Source source{.file = file, .configuration = configuration};
    try {
        return ReadTables(source, toml::parse(text));
    } catch (const toml::parse_error& error) {
        const std::string problem = Printable(error.description());
        const bool isPattern = problem.find("saw '*'") != std::string::npos;
        return Refuse(kExitUsage, Place(file, error.source().begin.line) + ": is no TOML: " + problem,
                      isPattern ? "a name with * in it stands between quotes: [\"usb*\"]" : "");
    }
}

bool Matches(const Entry& entry, const std::string& interface) {
    if (entry.pattern == interface) return true;
    return IsPattern(entry.pattern) && fnmatch(entry.pattern.c_str(), interface.c_str(), 0) == 0;
}

std::string ClientText(const ClientOptions& client) {
    std::string text = "client by DHCP";
    if (client.fixed) text = "client with the address " + AddressWithPrefix(client.fixed->address, client.fixed->mask);
    if (client.address) text += ", " + AddressText(*client.address) + " until then";
    if (client.linkLocal == "fallback") text += ", else link-local";
    if (client.linkLocal == "always") text += ", link-local as well";
    return text + (client.plain ? ", plain rules" : "");
}

std::string ServerText(const ServerPlan& plan) {
    const uint32_t count = CountOf(plan.range);
    return "server of " + std::to_string(count) + (count == 1 ? " address, " : " addresses, ") +
           AddressText(plan.range.first) + " to " + AddressText(plan.range.last) + ", for " +
           SpanText(plan.leaseSeconds) + " each; its own is " +
           AddressWithPrefix(plan.network.address, plan.network.mask) + (plan.plain ? ", plain rules" : "");
}

}  // namespace

std::vector<std::string> UsualFiles() {
    std::vector<std::string> files;
    std::error_code error;
    for (std::filesystem::directory_iterator each(kFileDirectory, error), end; !error && each != end;
         each.increment(error))
        if (each->path().extension() == ".toml") files.push_back(each->path());
    std::sort(files.begin(), files.end());
    return files;
}

ExitStatus ReadFiles(const std::vector<std::string>& files, Configuration& configuration) {
    Configuration read;
    ExitStatus status = kExitDone;
    for (const std::string& file : files) {
        const ExitStatus one = ReadOne(file, read);
        if (one != kExitDone) status = one;
    }
    if (status == kExitDone) configuration = std::move(read);
    return status;
}

const Entry* EntryFor(const Configuration& configuration, const std::string& interface) {
    const Entry* best = nullptr;
    for (const Entry& entry : configuration.entries) {
        if (entry.pattern == interface) return &entry;
        if (Matches(entry, interface) && (best == nullptr || entry.pattern.size() > best->pattern.size()))
            best = &entry;
    }
    return best;
}

bool IsSame(const Entry& one, const Entry& other) {
    return one.role.index() == other.role.index() && one.words == other.words;
}

std::string RoleText(const Entry& entry) {
    const auto* const client = std::get_if<ClientOptions>(&entry.role);
    return client != nullptr ? ClientText(*client) : ServerText(entry.plan);
}

valdo::JValue RequestFor(const Entry& entry, const std::string& interface) {
    if (const auto* const client = std::get_if<ClientOptions>(&entry.role)) {
        ClientOptions named = *client;
        named.interface = interface;
        return RequestOf(named);
    }
    ServerOptions named = std::get<ServerOptions>(entry.role);
    named.interface = interface;
    return RequestOf(named, entry.plan);
}

void AddEntryOptions(CLI::App& command, Entry& entry) {
    if (auto* const server = std::get_if<ServerOptions>(&entry.role)) {
        AddServerOptions(command, *server);
        return;
    }
    AddClientOptions(command, std::get<ClientOptions>(entry.role));
    AddParsed(command, "--metric", entry.metric, ReadNumber, "a number", "Of the routes; 100 unless given")
        ->type_name("N");
    command.add_flag("--release", entry.release, "Give the lease back to its server when the table goes");
}

}  // namespace ostrelctl
