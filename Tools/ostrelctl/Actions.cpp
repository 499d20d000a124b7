// ostrelctl release, renew, rebind, init, halt: one word to the daemon about an interface that it manages.
//
// By the daemon's plain rules "init", "renew" and "rebind" are one: drop what there is and acquire anew. By those of
// the RFCs the latter two extend the lease that there is. A server takes each of the words and does nothing, which
// people should be told.
#include <array>
#include <cstdio>
#include <optional>
#include <utility>

#include "Ostrel/OstrelJsonUtils.h"

#include "Arguments.h"
#include "Bus.h"
#include "Command.h"
#include "Managed.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

struct Action {
    const char* name;
    const char* description;
    const char* done;       // what is said when the daemon has done it
    const char* donePlain;  // and by the plain rules; null: the same
    const char* examples;
};

constexpr char kExtending[] = "asked for the lease to be extended; the address stays";
constexpr char kAcquiring[] = "address dropped, acquiring anew";

constexpr Action kRelease{
    "release", "Stop managing an interface", "not managed any more", nullptr,
    "  ostrelctl release eth0             its client or server ends; nothing is sent, the kernel keeps its addresses\n"
    "  ostrelctl release eth0 --release   and the DHCP server is told that the lease is not needed any more\n"};

constexpr std::array<Action, 4> kLeaseActions{{
    {"renew", "Extend the lease now, at its server", kExtending, kAcquiring,
     "  ostrelctl renew eth0     a client with --plain drops its address and acquires one anew\n"},
    {"rebind", "Extend the lease now, at any server", kExtending, kAcquiring,
     "  ostrelctl rebind eth0    a client with --plain drops its address and acquires one anew\n"},
    {"init", "Start a client, or start it over", "started", nullptr,
     "  ostrelctl init eth0      starts what 'client --no-start' or 'halt' left idle\n"
     "  ostrelctl init eth0 --address 192.0.2.7   asks for that address first, which it had before\n"},
    {"halt", "Stop a client, and keep it configured", "halted; 'init' starts it again", nullptr,
     "  ostrelctl halt eth0      drops the address and asks for none until 'ostrelctl init eth0'\n"
     "  ostrelctl halt eth0 --release   and tells the server that the lease is not needed any more\n"},
}};

struct ActionOptions {
    std::string interface;
    const Action* action = nullptr;
    bool release = false;                // of release and halt
    std::optional<Ostrel_IPv4> address;  // of init
};

void Declare(CLI::App& command, ActionOptions& options) {
    AddInterface(command, options.interface)->required();
    const std::string_view name = options.action->name;
    if (name == "release" || name == "halt")
        command.add_flag("--release", options.release, "Tell the DHCP server that the lease is not needed any more");
    if (name == "init")
        AddAddress(command, "--address", options.address, "The address that it had, which is asked for first");
}

void Confirm(const ActionOptions& options, const Settings& settings, bool rfc) {
    const Action& action = *options.action;
    const char* const done = rfc || action.donePlain == nullptr ? action.done : action.donePlain;
    if (!settings.json) printf("%s: %s\n", options.interface.c_str(), done);
}

ExitStatus Release(const ActionOptions& options, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json, true, session);
    if (opened != kExitDone) return opened;
    JValue request = RequestFor(options.interface);
    if (options.release) request.put("release", true);
    const ExitStatus done = ActOn(session, options.interface, kInterfaceFinalize, request);
    if (done == kExitDone) Confirm(options, settings, false);
    return done;
}

Managed AskAbout(const Session& session, const std::string& name) {
    for (Managed& interface : ReadManaged(AskQuietly(session, kInterfaceConfigDump, RequestFor(name)).reply))
        if (interface.interface == name) return std::move(interface);
    return {};
}

ExitStatus ActOnLease(const ActionOptions& options, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json, true, session);
    if (opened != kExitDone) return opened;
    JValue request = RequestFor(options.interface);
    request.put("leaseAction", options.action->name);
    if (options.release) request.put("release", true);
    if (options.address) OstrelJsonUtilsIPv4Put(request, "address", *options.address);
    const ExitStatus done = ActOn(session, options.interface, kLeaseAction, request);
    if (done != kExitDone) return done;
    const Managed managed = AskAbout(session, options.interface);
    if (managed.server)
        Complain("warning: '" + options.interface + "' is a server, so this did nothing",
                 "'ostrelctl release " + options.interface + "' ends a server");
    else
        Confirm(options, settings, managed.rfc);
    return kExitDone;
}

}  // namespace

void AddActionCommands(CommandLine& line) {
    AddCommand<ActionOptions>(line, kRelease.name, kRelease.description, kRelease.examples, Declare, Release,
                              {.interface = {}, .action = &kRelease, .address = {}});
    for (const Action& action : kLeaseActions)
        AddCommand<ActionOptions>(line, action.name, action.description, action.examples, Declare, ActOnLease,
                                  {.interface = {}, .action = &action, .address = {}});
}

}  // namespace ostrelctl
