// A server's leases in a file.
//
// What the daemon shows of the leases is written as it is, and given back as it is: it knows its own texts. The file is
// written beside its place, brought onto the disk, and put there in one step, so that it is whole whatever happens. A
// request has room for some hundred leases; those beyond are left out, and their clients are asked with ARP before an
// address is given to others.
#include "KeptLeases.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>

#include "Fields.h"
#include "FileDescriptor.h"
#include "Follow.h"
#include "Managed.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr size_t kRequestRoom = 60'000;  // bytes of 65,536, the rest for what else it says

bool ToText(const JValue& value, std::string& text) {
    return valdo::JGenerator::toString(value, valdo::JSchemaFragment("{}"), text);
}

ExitStatus Complain(const std::string& file, const char* what) {
    return Refuse(kExitRefused, '\'' + Printable(file) + "' cannot be " + what + ": " + std::strerror(errno), "");
}

// Empty without a file.
ExitStatus ReadFile(const std::string& file, std::string& text) {
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    if (!stream.is_open() && errno == ENOENT) return kExitDone;
    if (!stream.is_open()) return Complain(file, "read");
    text.assign(std::istreambuf_iterator<char>(stream), {});
    return stream.bad() ? Complain(file, "read") : kExitDone;
}

ExitStatus ReadLeases(const std::string& file, JValue& leases) {
    std::string text;
    const ExitStatus read = ReadFile(file, text);
    leases = valdo::Array();
    if (read != kExitDone || text.empty()) return read;
    valdo::JDomParser parser;
    const bool isOurs = parser.parse(text, valdo::JSchemaFragment("{}")) && parser.getDom()["leases"].isArray();
    if (!isOurs)
        return Refuse(kExitRefused, '\'' + Printable(file) + "' does not hold leases", "move it away to begin without");
    leases = parser.getDom()["leases"];
    return kExitDone;
}

// As many as there is room for.
JValue Fitting(const JValue& leases) {
    JValue fitting = valdo::Array();
    size_t length = 0;
    for (size_t i = 0; i < leases.arraySize(); ++i) {
        std::string text;
        if (!ToText(leases[i], text) || length + text.size() > kRequestRoom) continue;
        length += text.size() + 1;
        fitting.append(leases[i]);
    }
    if (fitting.arraySize() < leases.arraySize())
        ostrelctl::Complain("warning: " + std::to_string(leases.arraySize() - fitting.arraySize()) +
                                " leases are too many for one request, and are not given back",
                            "");
    return fitting;
}

bool WriteWhole(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) text.remove_prefix(static_cast<size_t>(written));
    }
    return fsync(fd) == 0;
}

bool SyncDirectoryOf(const std::string& file) {
    const size_t slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    const FileDescriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return opened.isOpen() && fsync(opened.get()) == 0;
}

ExitStatus WriteFile(const std::string& file, const std::string& text) {
    const std::string beside = file + ".new";
    {
        const FileDescriptor opened(open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!opened.isOpen() || !WriteWhole(opened.get(), text)) return Complain(beside, "written");
    }
    if (rename(beside.c_str(), file.c_str()) != 0 || !SyncDirectoryOf(file)) return Complain(file, "written");
    return kExitDone;
}

// The leases that a reply or a post shows of the interface; null when it does not list it.
JValue LeasesOf(const JValue& root, const std::string& interface) {
    const JValue list = root[root.hasKey("leases") ? "leases" : "interfaceList"];
    for (size_t i = 0; i < list.arraySize(); ++i)
        if (TextOf(list[i], "interface") == interface) return list[i]["leases"];
    return {};
}

ExitStatus WriteIfChanged(const KeptLeases& kept, const JValue& leases, std::string& written) {
    JValue content = valdo::Object();
    content.put("leases", leases);
    std::string text;
    if (!ToText(content, text)) return Refuse(kExitRefused, "no memory for the leases", "");
    if (text == written) return kExitDone;
    const ExitStatus status = WriteFile(kept.file, text + '\n');
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

ExitStatus Keep(const Event& event, const KeptLeases& kept, std::string& written) {
    const JValue leases = LeasesOf(event.root, kept.interface);
    return leases.isArray() ? WriteIfChanged(kept, leases, written) : kExitDone;
}

}  // namespace

ExitStatus HandOverWithLeases(const Session& session, const KeptLeases& kept) {
    JValue leases;
    const ExitStatus read = ReadLeases(kept.file, leases);
    if (read != kExitDone) return read;
    std::string text;
    valdo::JDomParser copy;  // a value is shared, and the request is used again
    if (!ToText(kept.request, text) || !copy.parse(text, valdo::JSchemaFragment("{}"))) return kExitRefused;
    JValue request = copy.getDom();
    request.put("leases", Fitting(leases));
    return HandOver(session, kept.interface, request);
}

ExitStatus KeepLeases(const KeptLeases& kept, const Settings& settings) {
    Follower follower{.subscriptions = {{.method = &kLeaseEvents, .interface = kept.interface},
                                        {.method = &kInterfaceState, .interface = kept.interface}}};
    const ExitStatus started = StartFollowing(follower, {});
    if (started != kExitDone) return started;
    std::string written;
    for (;;) {
        const Event event = NextEvent(follower, kNever);
        ExitStatus status = kExitDone;
        if (event.news == News::Interrupted) return kExitDone;
        if (event.news == News::Failed) return event.status;
        if (event.news == News::DaemonBack) status = HandOverAnew(kept, settings);
        if (WasReleased(event, kept)) return kExitDone;
        if (event.method == &kLeaseEvents) AskFor(follower, kServerLeaseInformation, kept.interface);
        if (event.method == &kServerLeaseInformation) status = Keep(event, kept, written);
        if (status != kExitDone) return status;
    }
}

}  // namespace ostrelctl
