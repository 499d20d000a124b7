// A server's leases in a file.
//
// What the daemon shows of the leases is written as it is, and given back as it is: it knows its own texts.
#include "KeptLeases.h"

#include <algorithm>

#include "Fields.h"
#include "Follow.h"
#include "GivenLeases.h"
#include "KeptFile.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

ExitStatus ReadLeases(const std::string& file, JValue& leases) {
    std::string text;
    const ExitStatus read = ReadKeptFile(file, text);
    leases = valdo::Array();
    if (read != kExitDone || text.empty()) return read;
    valdo::JDomParser parser;
    const bool isOurs = parser.parse(text, valdo::JSchemaFragment("{}")) && parser.getDom()["leases"].isArray();
    if (!isOurs)
        return Refuse(kExitRefused, '\'' + Printable(file) + "' does not hold leases", "move it away to begin without");
    leases = parser.getDom()["leases"];
    return kExitDone;
}

ExitStatus WriteIfChanged(const KeptLeases& kept, const JValue& leases, std::string& written) {
    JValue content = valdo::Object();
    content.put("leases", leases);
    std::string text;
    if (!ToText(content, text)) return Refuse(kExitRefused, "no memory for the leases", "");
    if (text == written) return kExitDone;
    const ExitStatus status = WriteKeptFile(kept.file, text + '\n');
    if (status == kExitDone) written = text;
    return status;
}

// To a daemon that has just come onto the bus.
ExitStatus HandOverAnew(const KeptLeases& kept, const Settings& settings) {
    Session session;
    const ExitStatus opened = OpenSession(settings.json, false, session);
    return opened == kExitDone ? HandOverWithLeases(session, kept) : opened;
}

// True when the interface is somebody else's matter from now on.
bool WasReleased(const Event& event, const KeptLeases& kept) {
    if (event.method != &kInterfaceState) return false;
    const std::vector<InterfaceState> states = ReadStates(event.root);
    if (event.posted && states.empty()) return false;
    return std::ranges::none_of(states, [&kept](const InterfaceState& state) {
        return state.interface == kept.interface && state.server.has_value();
    });
}

// What is written, and when more is asked for.
struct Writing {
    std::string written{};
    bool isStale = false;  // the leases have changed since they were asked for
    TimePoint nextAsk{};
};

ExitStatus Keep(const Event& event, const KeptLeases& kept, Writing& writing) {
    const JValue leases = LeasesOf(event.root, kept.interface);
    if (!leases.isArray()) return kExitDone;
    writing.nextAsk = Clock::now() + TablePause(leases.arraySize());
    return WriteIfChanged(kept, leases, writing.written);
}

void AskWhenDue(Writing& writing, Follower& follower, const KeptLeases& kept) {
    if (!writing.isStale || Clock::now() < writing.nextAsk) return;
    AskFor(follower, kServerLeaseInformation, kept.interface);
    writing.isStale = false;
}

}  // namespace

ExitStatus HandOverWithLeases(const Session& session, const KeptLeases& kept) {
    JValue leases;
    const ExitStatus read = ReadLeases(kept.file, leases);
    if (read != kExitDone) return read;
    std::string text;
    valdo::JDomParser copy;  // a value is shared, and the request is used again
    if (!ToText(kept.request, text) || !copy.parse(text, valdo::JSchemaFragment("{}"))) return kExitRefused;
    return HandOverServer(session, kept.interface, copy.getDom(), leases);
}

ExitStatus KeepLeases(const KeptLeases& kept, const Settings& settings) {
    Follower follower{.subscriptions = {{.method = &kLeaseEvents, .interface = kept.interface},
                                        {.method = &kInterfaceState, .interface = kept.interface}}};
    const ExitStatus started = StartFollowing(follower, {});
    if (started != kExitDone) return started;
    Writing writing;
    for (;;) {
        const Event event = NextEvent(follower, writing.isStale ? writing.nextAsk : kNever);
        ExitStatus status = kExitDone;
        if (event.news == News::Interrupted) return kExitDone;
        if (event.news == News::Failed) return event.status;
        if (event.news == News::DaemonBack) status = HandOverAnew(kept, settings);
        if (WasReleased(event, kept)) return kExitDone;
        if (event.method == &kLeaseEvents) writing.isStale = true;
        if (event.method == &kServerLeaseInformation) status = Keep(event, kept, writing);
        AskWhenDue(writing, follower, kept);
        if (status != kExitDone) return status;
    }
}

}  // namespace ostrelctl
