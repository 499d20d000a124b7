// The daemon as ostrelctl reaches it.
//
// A call ends in one of three ways: the daemon answers (and may refuse), the bus refuses, or there is no daemon. The
// bus has names for its refusals; here they become words, and what to do about them.
#include "Bus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Ostrel/OstrelJsonUtils.h"

#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

struct ErrorRelease {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    ~ErrorRelease() { sd_bus_error_free(&error); }
};

bool IsAbsence(const sd_bus_error& error) {
    constexpr std::array<std::string_view, 5> kNames{SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER,
                                                     SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_DISCONNECTED,
                                                     SD_BUS_ERROR_TIMEOUT};
    const std::string_view name = error.name == nullptr ? "" : error.name;
    return std::find(kNames.begin(), kNames.end(), name) != kNames.end() ||
           name.starts_with("org.freedesktop.DBus.Error.Spawn.") || name.starts_with("org.freedesktop.systemd1.");
}

const char* NextForAbsence(const sd_bus_error& error) {
    if (sd_bus_error_has_name(&error, "org.freedesktop.systemd1.UnitMasked") > 0)
        return "'systemctl unmask ostreld' lets it start again";
    return "start it with 'systemctl start ostreld', and see 'journalctl -u ostreld' if it does not stay";
}

}  // namespace

Answer ExplainRefusal(const sd_bus_error& error) {
    const std::string words = error.message == nullptr ? "no reason given" : Printable(error.message);
    if (IsAbsence(error))
        return {.status = kExitNoDaemon,
                .problem = "the daemon does not answer on the bus: " + words,
                .next = NextForAbsence(error)};
    if (sd_bus_error_has_name(&error, SD_BUS_ERROR_ACCESS_DENIED) > 0)
        return {.status = kExitRefused,
                .problem = "you may not talk to the daemon",
                .next = "become root, or a member of the group 'ostrel': sudo adduser NAME ostrel"};
    const bool isUnknown = sd_bus_error_has_names(&error, SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_OBJECT,
                                                  SD_BUS_ERROR_UNKNOWN_INTERFACE) > 0;
    return {.status = kExitRefused,
            .problem = "the bus refused the call: " + words,
            .next = "if the daemon was updated lately, restart it, and compare 'ostrelctl --version'",
            .isOfOldDaemon = isUnknown};
}

Answer ReadReply(sd_bus_message* message) {
    const char* text = nullptr;
    Answer answer{.status = kExitRefused};
    valdo::JDomParser parser;
    if (sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text) <= 0 ||
        !parser.parse(text, valdo::JSchemaFragment("{}"))) {
        answer.problem = "the daemon's reply is not understood";
        answer.next = "are ostrelctl and ostreld of one version?";
        return answer;
    }
    answer.text = text;
    answer.reply = parser.getDom();
    if (CheckJsonReply(answer.reply)) answer.status = kExitDone;
    return answer;
}

BusMessage MakeCall(const Session& session, const char* destination, const Method& method, const JValue& request) {
    std::string text;
    if (!valdo::JGenerator::toString(request, valdo::JSchemaFragment("{}"), text)) return nullptr;
    sd_bus_message* call = nullptr;
    int made = sd_bus_message_new_method_call(session.bus.get(), &call, destination, method.category,
                                              InterfaceOf(method).c_str(), method.name);
    if (made >= 0) made = sd_bus_message_append_basic(call, SD_BUS_TYPE_STRING, text.c_str());
    if (made >= 0) made = sd_bus_message_set_auto_start(call, session.startDaemon ? 1 : 0);
    BusMessage owned(call);
    return made >= 0 ? std::move(owned) : nullptr;
}

std::string InterfaceOf(const Method& method) {
    const std::string_view category = method.category;
    return category == "/" ? kService : std::string(kService) + '.' + std::string(category.substr(1));
}

ExitStatus OpenSession(bool json, bool startDaemon, Session& session) {
    sd_bus* bus = nullptr;
    int opened = sd_bus_open_system(&bus);
    BusConnection connection(opened < 0 ? nullptr : bus);
    // Which sends its greeting, too: the bus closes a connection that is silent for some seconds.
    const char* name = nullptr;
    if (opened >= 0) opened = sd_bus_get_unique_name(bus, &name);
    if (opened < 0) {
        return Refuse(kExitNoDaemon, std::string("the system bus cannot be reached: ") + std::strerror(-opened),
                      "is dbus-daemon running? DBUS_SYSTEM_BUS_ADDRESS, when set, must name its socket");
    }
    session = {.bus = std::move(connection), .json = json, .startDaemon = startDaemon};
    return kExitDone;
}

Answer AskQuietly(const Session& session, const Method& method, const JValue& request) {
    constexpr char kSilent[] = "the daemon does not answer";
    if (session.isSilent) return {.status = kExitNoDaemon, .problem = kSilent};
    const BusMessage call = MakeCall(session, kService, method, request);
    if (call == nullptr) return {.status = kExitRefused, .problem = "no memory for the call"};

    ErrorRelease failure;
    sd_bus_message* received = nullptr;
    const auto patience = static_cast<uint64_t>(std::chrono::microseconds(session.patience).count());
    const int called = sd_bus_call(session.bus.get(), call.get(), patience, &failure.error, &received);
    const BusMessage reply(received);
    session.isSilent = called == -ETIMEDOUT && session.patience != session.patience.zero();
    return called < 0 ? ExplainRefusal(failure.error) : ReadReply(reply.get());
}

Answer Ask(const Session& session, const Method& method, const JValue& request) {
    Answer answer = AskQuietly(session, method, request);
    if (session.json && !answer.text.empty()) PrintJson(answer.text);
    return answer;
}

ExitStatus AskOrComplain(const Session& session, const Method& method, const JValue& request, std::string_view problem,
                         std::string_view next, Answer& answer) {
    answer = Ask(session, method, request);
    if (answer.status == kExitDone) return kExitDone;
    if (answer.problem.empty()) return Refuse(answer.status, problem, next);
    return Refuse(answer.status, answer.problem, answer.next);
}

ExitStatus ComplainOfLostBus() {
    return Refuse(kExitNoDaemon, "the system bus is lost", "start the command again when the bus is back");
}

ExitStatus ComplainOfAge() {
    return Refuse(kExitRefused, "the daemon is older than this command, and does not tell what happens",
                  "restart it: 'systemctl restart ostreld', and hand its interfaces over again");
}

JValue RequestFor(const std::string& interface) {
    JValue request = valdo::Object();
    if (!interface.empty()) request.put("interface", interface.c_str());
    return request;
}

}  // namespace ostrelctl
