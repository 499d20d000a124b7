// ostrelctl release, renew, rebind, init, halt: one word to the daemon about an interface that it manages.
//
// To the daemon "init", "renew" and "rebind" are one: drop what there is and acquire anew. A server takes each of the
// words and does nothing, which people should be told.
#include <array>
#include <cstdio>

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
    const char* done;  // what is said when the daemon has done it
    const char* examples;
};

constexpr char kAcquiring[] = "address dropped, acquiring anew; 'apply' keeps it for 10 s meanwhile";

constexpr Action kRelease{
    "release", "Stop managing an interface", "not managed any more",
    "  ostrelctl release eth0   its client or server ends; nothing is sent, the kernel keeps its addresses\n"};

constexpr std::array<Action, 4> kLeaseActions{{
    {"renew", "Drop the address and acquire one anew", kAcquiring,
     "  ostrelctl renew eth0     servers give the same again if they can; 'apply' keeps it for 10 s meanwhile\n"},
    {"rebind", "Drop the address and acquire one anew, as renew", kAcquiring,
     "  ostrelctl rebind eth0    of whichever server; 'apply' keeps the address for 10 s meanwhile\n"},
    {"init", "Start a client, or start it over", "started",
     "  ostrelctl init eth0      starts what 'client --no-start' or 'halt' left idle\n"},
    {"halt", "Stop a client, and keep it configured", "halted; 'init' starts it again",
     "  ostrelctl halt eth0      drops the address and asks for none until 'ostrelctl init eth0'\n"},
}};

struct ActionOptions {
    std::string interface;
    const Action* action = nullptr;
};

void Declare(CLI::App& command, ActionOptions& options) {
    AddInterface(command, options.interface)->required();
}

void Confirm(const ActionOptions& options, const Settings& settings) {
    if (!settings.json) printf("%s: %s\n", options.interface.c_str(), options.action->done);
}

ExitStatus Release(const ActionOptions& options, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json, true, session);
    if (opened != kExitDone) return opened;
    const ExitStatus done = ActOn(session, options.interface, kInterfaceFinalize, RequestFor(options.interface));
    if (done == kExitDone) Confirm(options, settings);
    return done;
}

bool IsServer(const Session& session, const std::string& name) {
    for (const Managed& interface : ReadManaged(AskQuietly(session, kInterfaceConfigDump, RequestFor(name)).reply))
        if (interface.interface == name) return interface.server;
    return false;
}

ExitStatus ActOnLease(const ActionOptions& options, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json, true, session);
    if (opened != kExitDone) return opened;
    JValue request = RequestFor(options.interface);
    request.put("leaseAction", options.action->name);
    const ExitStatus done = ActOn(session, options.interface, kLeaseAction, request);
    if (done != kExitDone) return done;
    if (IsServer(session, options.interface))
        Complain("warning: '" + options.interface + "' is a server, so this did nothing",
                 "'ostrelctl release " + options.interface + "' ends a server");
    else
        Confirm(options, settings);
    return kExitDone;
}

}  // namespace

void AddActionCommands(CommandLine& line) {
    AddCommand<ActionOptions>(line, kRelease.name, kRelease.description, kRelease.examples, Declare, Release,
                              {.interface = {}, .action = &kRelease});
    for (const Action& action : kLeaseActions)
        AddCommand<ActionOptions>(line, action.name, action.description, action.examples, Declare, ActOnLease,
                                  {.interface = {}, .action = &action});
}

}  // namespace ostrelctl
