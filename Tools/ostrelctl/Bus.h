// The daemon as ostrelctl reaches it: one connection, calls, and what to say when a call fails.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>

#include "Exit.h"
#include "valdo.h"

namespace ostrelctl {

constexpr char kService[] = "org.ostrel.dhcp";

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageRelease {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusConnection = std::unique_ptr<sd_bus, BusCloser>;
using BusMessage = std::unique_ptr<sd_bus_message, MessageRelease>;

struct Method {
    const char* category;  // object path; the D-Bus interface follows from it
    const char* name;
};

inline constexpr Method kInterfaceInitialize{"/", "interfaceInitialize"};
inline constexpr Method kInterfaceFinalize{"/", "interfaceFinalize"};
inline constexpr Method kInterfaceConfigDump{"/", "interfaceConfigDump"};
inline constexpr Method kSetDebugLevel{"/", "setDebugLevel"};
inline constexpr Method kLeaseAction{"/client", "leaseAction"};
inline constexpr Method kClientLeaseInformation{"/client", "leaseInformation"};
inline constexpr Method kServerLeaseInformation{"/server", "leaseInformation"};
inline constexpr Method kInterfaceState{"/", "interfaceState"};
inline constexpr Method kTrace{"/", "trace"};
inline constexpr Method kLeaseEvents{"/server", "leaseEvents"};
inline constexpr Method kGiveLeases{"/server", "giveLeases"};

// "org.ostrel.dhcp", "org.ostrel.dhcp.client", "org.ostrel.dhcp.server".
[[nodiscard]] std::string InterfaceOf(const Method& method);

// What the command line says apart from the commands' own options.
struct Settings {
    bool json = false;
    bool lines = false;  // --json=lines: not the daemon's replies, but a line for each thing to tell
};

// What one run of ostrelctl works with.
struct Session {
    BusConnection bus;
    bool json;         // replies are printed as they come, and nothing else is
    bool startDaemon;  // a call may start the daemon

    // Who has more to do than to wait for an answer gives a call so long, and after one that was not answered none at
    // all, until `isSilent` is cleared; 0: as long as the bus gives it.
    std::chrono::milliseconds patience{};
    mutable bool isSilent = false;
};

// What became of a call. `status` is kExitDone when the daemon said "returnValue": true, kExitRefused when it did not
// or when the bus refused, kExitNoDaemon when nobody answered. `problem` and `next` say in words what the bus said;
// they are empty when the daemon answered, since it gives no reasons.
struct Answer {
    ExitStatus status;
    std::string text{};     // the reply as it came
    valdo::JValue reply{};  // null when there is none
    std::string problem{}, next{};
    bool isOfOldDaemon = false;  // which does not know the method
};

// Connects to the system bus; complains, and gives kExitNoDaemon, when there is none.
[[nodiscard]] ExitStatus OpenSession(bool json, bool startDaemon, Session& session);

// Calls and waits for the reply. With `session.json` Ask prints the reply; a question of our own is asked quietly.
[[nodiscard]] Answer Ask(const Session& session, const Method& method, const valdo::JValue& request);
[[nodiscard]] Answer AskQuietly(const Session& session, const Method& method, const valdo::JValue& request);

// Asks, and complains unless all went well: with the bus's words when the bus refused, else with `problem` and `next`.
[[nodiscard]] ExitStatus AskOrComplain(const Session& session, const Method& method, const valdo::JValue& request,
                                       std::string_view problem, std::string_view next, Answer& answer);

// Says that the connection is no more.
[[nodiscard]] ExitStatus ComplainOfLostBus();

// Says that the daemon is of before what this command needs.
[[nodiscard]] ExitStatus ComplainOfAge();

// The parts of a call. A refusal by the bus in words; the text that a reply or a post carries, read; a call that is
// ready to be sent, or null without memory. `destination` is the service's name or a connection's own.
[[nodiscard]] Answer ExplainRefusal(const sd_bus_error& error);
[[nodiscard]] Answer ReadReply(sd_bus_message* message);
[[nodiscard]] BusMessage MakeCall(const Session& session, const char* destination, const Method& method,
                                  const valdo::JValue& request);

// {} or {"interface": name}: what the methods that show something take.
[[nodiscard]] valdo::JValue RequestFor(const std::string& interface);

}  // namespace ostrelctl
