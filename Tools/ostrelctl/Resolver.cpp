// Where the device's DNS servers are written down.
//
// systemd-resolved keeps them by interface and is told over the bus, never started by that. The resolvconf program
// keeps them by a name, "eth0.ostrel", and reads them in the form of resolv.conf on its standard input; no shell is
// between, so nothing in them is expanded. A resolvconf that hangs is ended after ten seconds.
#include "Resolver.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <net/if.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "Bus.h"
#include "FileDescriptor.h"
#include "Lease.h"

namespace ostrelctl {

namespace {

constexpr char kResolved[] = "org.freedesktop.resolve1";
constexpr char kResolvedPath[] = "/org/freedesktop/resolve1";
constexpr char kResolvedManager[] = "org.freedesktop.resolve1.Manager";
constexpr uint64_t kResolvedTimeout = 5'000'000;  // microseconds
constexpr int kProgramTimeout = 10'000;           // milliseconds
constexpr size_t kMaxLabel = 63, kMaxName = 253;  // bytes

// --- systemd-resolved ---

bool IsResolvedThere(sd_bus* bus) {
    sd_bus_creds* owner = nullptr;
    const int found = sd_bus_get_name_creds(bus, kResolved, 0, &owner);
    sd_bus_creds_unref(owner);
    return found >= 0;
}

BusMessage NewResolvedCall(sd_bus* bus, const char* method, const std::string& interface) {
    const auto index = static_cast<int32_t>(if_nametoindex(interface.c_str()));
    sd_bus_message* made = nullptr;
    if (sd_bus_message_new_method_call(bus, &made, kResolved, kResolvedPath, kResolvedManager, method) < 0)
        return nullptr;
    BusMessage call(made);
    const bool filled = sd_bus_message_set_auto_start(made, 0) >= 0 && sd_bus_message_append(made, "i", index) >= 0;
    return filled ? std::move(call) : nullptr;
}

std::string Send(sd_bus* bus, const BusMessage& call, bool filled) {
    if (call == nullptr || !filled) return "no memory";
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int called = sd_bus_call(bus, call.get(), kResolvedTimeout, &error, nullptr);
    std::string problem;
    if (called < 0) problem = error.message == nullptr ? std::strerror(-called) : error.message;
    sd_bus_error_free(&error);
    return problem;
}

// a(iay): family and address.
bool AppendServers(sd_bus_message* call, const std::vector<Ostrel_IPv4>& servers) {
    bool good = sd_bus_message_open_container(call, 'a', "(iay)") >= 0;
    for (const Ostrel_IPv4 server : servers) {
        good = good && sd_bus_message_open_container(call, 'r', "iay") >= 0 &&
               sd_bus_message_append(call, "i", AF_INET) >= 0 &&
               sd_bus_message_append_array(call, 'y', &server, sizeof server) >= 0 &&
               sd_bus_message_close_container(call) >= 0;
    }
    return good && sd_bus_message_close_container(call) >= 0;
}

// a(sb): name, and whether it only routes.
bool AppendDomains(sd_bus_message* call, const std::vector<std::string>& search) {
    bool good = sd_bus_message_open_container(call, 'a', "(sb)") >= 0;
    for (const std::string& domain : search) good = good && sd_bus_message_append(call, "(sb)", domain.c_str(), 0) >= 0;
    return good && sd_bus_message_close_container(call) >= 0;
}

std::string TellResolved(sd_bus* bus, const std::string& interface, const DnsSettings& settings) {
    const BusMessage servers = NewResolvedCall(bus, "SetLinkDNS", interface);
    std::string problem = Send(bus, servers, servers && AppendServers(servers.get(), settings.servers));
    if (!problem.empty()) return problem;
    const BusMessage domains = NewResolvedCall(bus, "SetLinkDomains", interface);
    if (domains == nullptr) return "no memory";
    return Send(bus, domains, AppendDomains(domains.get(), settings.search));
}

// --- resolvconf ---

std::string RecordName(const std::string& interface) {
    return interface + ".ostrel";
}

bool IsInPath(const std::string& program) {
    const char* const path = std::getenv("PATH");
    std::istringstream directories(path == nullptr ? "" : path);
    for (std::string directory; std::getline(directories, directory, ':');)
        if (access((std::filesystem::path(directory) / program).c_str(), X_OK) == 0) return true;
    return false;
}

std::string ResolvConf(const DnsSettings& settings) {
    std::string text;
    for (const Ostrel_IPv4 server : settings.servers) text += "nameserver " + AddressText(server) + '\n';
    if (!settings.search.empty()) text += "search " + Joined(settings.search, " ") + '\n';
    return text;
}

FileDescriptor FileHolding(const std::string& text) {
    FileDescriptor file(memfd_create("resolv.conf", MFD_CLOEXEC));
    if (!file.isOpen() || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) return {};
    return lseek(file.get(), 0, SEEK_SET) == 0 ? std::move(file) : FileDescriptor();
}

// With the signals that this program has blocked as the child expects them, and its output as our complaints.
int Spawn(std::array<const char*, 4> words, int input, pid_t& child) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    int error = posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    if (error == 0) error = posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    if (error == 0) error = posix_spawnattr_setsigmask(&attributes, &none);
    if (error == 0) error = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    if (error == 0)
        error = posix_spawnp(&child, words[0], &actions, &attributes, const_cast<char* const*>(words.data()), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

std::string AwaitEnd(pid_t child) {
    const FileDescriptor watched(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    pollfd file{.fd = watched.get(), .events = POLLIN, .revents = 0};
    const bool hangs = !watched.isOpen() || poll(&file, 1, kProgramTimeout) == 0;
    if (hangs) kill(child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (hangs) return "resolvconf did not end, and was killed";
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "" : "resolvconf failed";
}

std::string RunResolvconf(const char* option, const std::string& interface, const std::string& text) {
    const FileDescriptor input = FileHolding(text);
    if (!input.isOpen()) return "no memory for the text of resolvconf";
    const std::string record = RecordName(interface);
    pid_t child = 0;
    const int error = Spawn({"resolvconf", option, record.c_str(), nullptr}, input.get(), child);
    return error == 0 ? AwaitEnd(child) : std::string("resolvconf cannot be run: ") + std::strerror(error);
}

bool IsLabel(std::string_view label) {
    const auto fits = [](unsigned char byte) {
        return byte < 0x80 && (std::isalnum(byte) || byte == '-' || byte == '_');
    };
    return !label.empty() && label.size() <= kMaxLabel && label.front() != '-' &&
           std::all_of(label.begin(), label.end(), fits);
}

// --- The file ---

struct DnsFile {
    std::string path;
    std::map<std::string, DnsSettings> each;  // by interface
};

DnsFile dnsFile;

// It may be a link or a mount, and its directory not ours to write in, so nothing is put in its place. Nobody finds it
// empty: what it had is cut off when the new text stands.
std::string WriteInPlace(const std::string& path, const std::string& text) {
    constexpr int kMode = 0644;
    const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kMode));
    const auto length = static_cast<ssize_t>(text.size());
    const bool written =
        file.isOpen() && write(file.get(), text.data(), text.size()) == length && ftruncate(file.get(), length) == 0;
    return written ? "" : path + " cannot be written: " + std::strerror(errno);
}

// A resolver uses the first three servers, and one line of domains.
std::string WriteDnsFile() {
    constexpr size_t kMostServers = 3;
    DnsSettings all;
    for (const auto& [interface, settings] : dnsFile.each) {
        for (const Ostrel_IPv4 server : settings.servers)
            if (all.servers.size() < kMostServers) all.servers.push_back(server);
        all.search.insert(all.search.end(), settings.search.begin(), settings.search.end());
    }
    return WriteInPlace(dnsFile.path, "# Written by ostrelctl run\n" + ResolvConf(all));
}

}  // namespace

void KeepDnsInFile(const std::string& file) {
    dnsFile.path = file;
}

std::string Joined(const std::vector<std::string>& texts, const char* between) {
    std::string all;
    for (const std::string& text : texts) all += (all.empty() ? "" : between) + text;
    return all;
}

DnsKeeper FindDnsKeeper(sd_bus* bus) {
    if (IsResolvedThere(bus)) return DnsKeeper::Resolved;
    if (IsInPath("resolvconf")) return DnsKeeper::Resolvconf;
    return dnsFile.path.empty() ? DnsKeeper::Nobody : DnsKeeper::File;
}

const char* NameOf(DnsKeeper keeper) {
    switch (keeper) {
        case DnsKeeper::Nobody:
            return "nobody";
        case DnsKeeper::Resolved:
            return "systemd-resolved";
        case DnsKeeper::Resolvconf:
            return "resolvconf";
        case DnsKeeper::File:
            return dnsFile.path.c_str();
    }
    return "?";
}

std::string WriteDns(sd_bus* bus, DnsKeeper keeper, const std::string& interface, const DnsSettings& settings) {
    switch (keeper) {
        case DnsKeeper::Nobody:
            return {};
        case DnsKeeper::Resolved:
            return TellResolved(bus, interface, settings);
        case DnsKeeper::Resolvconf:
            return RunResolvconf("-a", interface, ResolvConf(settings));
        case DnsKeeper::File:
            dnsFile.each[interface] = settings;
            return WriteDnsFile();
    }
    return {};
}

std::string RemoveDns(sd_bus* bus, DnsKeeper keeper, const std::string& interface) {
    switch (keeper) {
        case DnsKeeper::Nobody:
            return {};
        case DnsKeeper::Resolved: {
            const BusMessage call = NewResolvedCall(bus, "RevertLink", interface);
            return Send(bus, call, true);
        }
        case DnsKeeper::Resolvconf:
            return RunResolvconf("-d", interface, "");
        case DnsKeeper::File:
            dnsFile.each.erase(interface);
            return WriteDnsFile();
    }
    return {};
}

std::string WriteDnsCommand(DnsKeeper keeper, const std::string& interface, const DnsSettings& settings) {
    std::string servers;
    for (const Ostrel_IPv4 server : settings.servers) servers += ' ' + AddressText(server);
    if (keeper == DnsKeeper::Resolved) {
        const std::string domain = settings.search.empty() ? "''" : Joined(settings.search, " ");
        return "resolvectl dns " + interface + servers + "\nresolvectl domain " + interface + ' ' + domain;
    }
    std::string text = ResolvConf(settings);
    std::replace(text.begin(), text.end(), '\n', ';');
    return "resolvconf -a " + RecordName(interface) + "  # " + text;
}

std::string RemoveDnsCommand(DnsKeeper keeper, const std::string& interface) {
    if (keeper == DnsKeeper::Resolved) return "resolvectl revert " + interface;
    return "resolvconf -d " + RecordName(interface);
}

bool IsDomainName(std::string_view name) {
    if (!name.empty() && name.back() == '.') name.remove_suffix(1);
    if (name.size() > kMaxName) return false;
    while (name.find('.') != std::string_view::npos) {
        if (!IsLabel(name.substr(0, name.find('.')))) return false;
        name.remove_prefix(name.find('.') + 1);
    }
    return IsLabel(name);
}

}  // namespace ostrelctl
