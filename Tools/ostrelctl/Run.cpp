// ostrelctl run: the device is as its files say. And ostrelctl reload, which has a running one read them again.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Command.h"
#include "Control.h"
#include "Device.h"
#include "KeptFile.h"
#include "Lock.h"
#include "Notify.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

constexpr char kStateDirectory[] = "/var/lib/ostrel";
constexpr std::chrono::seconds kPatience{2};  // with one call: files, links and addresses don't wait for the daemon

struct RunOptions {
    std::vector<std::string> files;
    std::string stateDirectory;
    bool check = false, example = false;
};

struct ReloadOptions {};

void Declare(CLI::App& command, RunOptions& options) {
    command.add_option("FILE", options.files, "The files; otherwise /etc/ostrel/*.toml")->type_name("");
    command.add_flag("--check", options.check, "Say what the files mean and what is wrong with them, and do nothing");
    command.add_flag("--example", options.example, "Print a file with every key");
    command
        .add_option("--state", options.stateDirectory, "Where leases and addresses are kept; otherwise /var/lib/ostrel")
        ->type_name("DIR");
}

// --- run --check ---

void PrintRequest(const valdo::JValue& request) {
    std::string text;
    if (ToText(request, text)) PrintJson(text);
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

// --- run ---

// What is there stays: the daemon goes on, and the kernel ends each address with its lease.
ExitStatus End(Controller& controller, ExitStatus status) {
    NotifyManager("STOPPING=1");
    Save(controller);
    return status;
}

ExitStatus GoOn(Controller& controller, const FileDescriptor& lock) {
    for (;;) {
        const Event event = NextEvent(controller.follower, NextEnd(controller));
        if (event.news == News::Failed) return End(controller, event.status);
        if (event.news == News::Interrupted && event.signal != SIGHUP) return End(controller, kExitDone);
        if (event.news == News::Interrupted) {
            SeeCallersOff(lock);
            Reload(controller);
        }
        Control(controller, event);
        if (sd_bus_is_open(controller.calls.bus.get()) <= 0) return End(controller, ComplainOfLostBus());
        if (controller.applying.forbidden) return End(controller, kExitRefused);
    }
}

std::string StateFileIn(const std::string& directory) {
    const char* const told = std::getenv("STATE_DIRECTORY");  // by systemd
    const std::string usual = told != nullptr && *told != '\0' ? told : kStateDirectory;
    return (directory.empty() ? usual : directory) + "/state.json";
}

ExitStatus Start(Controller& controller) {
    controller.netlink = OpenNetlink();
    if (controller.netlink == nullptr) return Refuse(kExitRefused, "the kernel takes no rtnetlink connection", "");
    ExitStatus status = PrepareApplying(controller.applying, controller.follower);
    controller.follower.subscriptions.push_back({.method = &kLeaseEvents, .interface = {}});
    if (status == kExitDone) status = OpenSession(false, true, controller.calls);
    controller.calls.patience = kPatience;
    if (status == kExitDone) status = StartFollowing(controller.follower, {});
    return status;
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
    Controller controller{.files = options.files, .stateFile = StateFileIn(options.stateDirectory)};
    const ExitStatus read = ReadFiles(files, controller.configuration);
    if (read != kExitDone) return read;
    if (options.check) return Check(controller.configuration, settings.json);
    const FileDescriptor lock = LockRun();
    if (!lock.isOpen()) return kExitRefused;
    KeepDnsInFile(controller.configuration.resolvConf);
    controller.kept = LoadState(controller.stateFile);
    const ExitStatus started = Start(controller);
    return started == kExitDone ? GoOn(controller, lock) : started;
}

// --- reload ---

void DeclareReload(CLI::App&, ReloadOptions&) {}

ExitStatus RunReload(const ReloadOptions&, const Settings&) {
    const pid_t process = ProcessOfRun();
    if (process == 0) return Refuse(kExitRefused, "'ostrelctl run' does not run", "systemctl start ostrel");
    if (kill(process, SIGHUP) == 0) return kExitDone;
    return Refuse(kExitRefused, "process " + std::to_string(process) + " cannot be told: " + std::strerror(errno), "");
}

}  // namespace

void AddRunCommand(CommandLine& line) {
    AddCommand<RunOptions>(
        line, "run", "Make the interfaces what files say, and keep them so",
        "  ostrelctl run --example          a file to begin with\n"
        "  ostrelctl run --check lan.toml   what it means, without doing it\n"
        "  ostrelctl run                    until stopped; addresses then stay until their leases end\n"
        "'systemctl enable --now ostrel' runs it from boot on. A changed file is read on SIGHUP, 'ostrelctl reload'.\n",
        Declare, Run);
    AddCommand<ReloadOptions>(line, "reload", "Have 'ostrelctl run' read its files again",
                              "  ostrelctl reload   only interfaces whose table has changed are touched\n",
                              DeclareReload, RunReload);
}

}  // namespace ostrelctl
