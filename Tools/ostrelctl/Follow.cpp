// The daemon's leases as they change: what watch, wait and apply share.
//
// One connection, and a loop that sleeps until something comes: a post, an answer, a change of the daemon's name on the
// bus, a signal, or the time of the next question. The loss of a lease and link-local addresses are not posted, which
// is why the daemon is asked every two seconds beside the posts. Questions go to the connection that owns the daemon's
// name, so nothing here starts the daemon; and only what that connection sends counts, since any process on the bus may
// send a signal that looks like a post. The bus itself vouches for senders.
//
// To the daemon a request without the name of a managed interface is an error, which it logs although it answers. So it
// is asked for each interface by name, and what it manages is looked up once, and then only while there is an interface
// that it might have been given meanwhile: every two seconds at first, every half minute later. A post tells, too.
#include "Follow.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <poll.h>
#include <sys/signalfd.h>
#include <utility>

#include "Changes.h"
#include "Device.h"
#include "Fields.h"
#include "Managed.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

using std::chrono::seconds;

constexpr char kBusDriver[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr seconds kQuestionInterval{2};
constexpr seconds kLongQuestionInterval{30};  // of a table so long that telling it is work
constexpr seconds kLongestLookupPause{30};
constexpr size_t kLongText = 65536;  // bytes; some 400 leases of a server
constexpr seconds kLongStop{20};     // the daemon gives up a silent subscriber after a minute
constexpr seconds kPatience{10};     // before it is said that the daemon does not answer

int64_t WallMilliseconds() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

Event Fail(ExitStatus status) {
    return {.news = News::Failed, .status = status};
}

Event LoseBus() {
    return Fail(Refuse(kExitNoDaemon, "the system bus is lost", "start the command again when the bus is back"));
}

bool IsFrom(sd_bus_message* message, std::string_view sender) {
    const char* const stamped = sd_bus_message_get_sender(message);
    return stamped != nullptr && stamped == sender;
}

// --- The daemon's name ---

ExitStatus CannotFollow(int error) {
    return Refuse(kExitNoDaemon, std::string("the bus does not tell who the daemon is: ") + strerror(-error),
                  "is this the system bus? DBUS_SYSTEM_BUS_ADDRESS, when set, must name its socket");
}

// What was known of a daemon, which the next one does not know.
void ForgetDaemon(Follower& follower) {
    follower.lookup = {.method = &kInterfaceConfigDump, .interface = follower.interface};
    follower.lookupPause = kQuestionInterval;
    follower.questions.clear();
    follower.subscriptions.clear();
    follower.saidNoClient = false;
}

// The signals are asked for first, so that no change of the owner is missed.
ExitStatus FindOwner(Follower& follower) {
    sd_bus* const bus = follower.session.bus.get();
    const std::string rule =
        std::string("type='signal',sender='") + kBusDriver + "',member='NameOwnerChanged',arg0='" + kService + '\'';
    const int asked =
        sd_bus_call_method(bus, kBusDriver, kBusPath, kBusDriver, "AddMatch", nullptr, nullptr, "s", rule.c_str());
    if (asked < 0) return CannotFollow(asked);

    sd_bus_message* received = nullptr;
    const int called =
        sd_bus_call_method(bus, kBusDriver, kBusPath, kBusDriver, "GetNameOwner", nullptr, &received, "s", kService);
    const BusMessage reply(received);
    if (called == -ENXIO || called == -EHOSTUNREACH) return kExitDone;  // nobody owns it
    if (called < 0) return CannotFollow(called);
    const char* owner = nullptr;
    const int read = sd_bus_message_read_basic(reply.get(), SD_BUS_TYPE_STRING, &owner);
    if (read <= 0) return CannotFollow(read);
    follower.owner = owner;
    return kExitDone;
}

std::optional<Event> OnOwnerChanged(Follower& follower, sd_bus_message* message) {
    const char *name = nullptr, *before = nullptr, *owner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &owner) <= 0) return std::nullopt;
    if (std::string_view(name) != kService || follower.owner == owner) return std::nullopt;
    follower.owner = owner;
    ForgetDaemon(follower);
    return Event{.news = follower.owner.empty() ? News::DaemonGone : News::DaemonBack};
}

// --- What is managed ---

bool IsFollowed(const Follower& follower, const std::string& interface) {
    return !interface.empty() && (follower.interface.empty() || follower.interface == interface);
}

bool IsAskedAbout(const Follower& follower, const std::string& interface) {
    return std::any_of(follower.questions.begin(), follower.questions.end(),
                       [&interface](const Question& other) { return !other.once && other.interface == interface; });
}

void AskAbout(Follower& follower, const Method& method, const std::string& interface, TimePoint due, bool once) {
    follower.questions.push_back({.method = &method, .interface = interface, .once = once, .due = due});
}

// Whether a look would show something that is not known yet. The daemon only manages what the device has.
bool MayBeManaged(const Follower& follower) {
    if (!follower.interface.empty()) return !IsAskedAbout(follower, follower.interface);
    const std::vector<std::string> there = EthernetInterfaces();
    return std::any_of(there.begin(), there.end(),
                       [&follower](const std::string& interface) { return !IsAskedAbout(follower, interface); });
}

void SayNoClient(Follower& follower, bool isServer) {
    const std::string& name = follower.interface;
    if (std::exchange(follower.saidNoClient, true)) return;
    Complain('\'' + name + (isServer ? "' is a server, and gets no address" : "' is not managed yet"),
             "waiting; 'ostrelctl client " + name + "' hands it over" + (isServer ? " when it is released" : ""));
}

// A subscription is to the leases of all clients, or servers, whichever interface is named with it.
void Subscribe(Follower& follower, const Method& method, const std::string& anyManaged) {
    if (follower.subscriptions.contains(&method)) return;
    const bool isAsked = std::any_of(follower.questions.begin(), follower.questions.end(),
                                     [&method](const Question& question) { return question.method == &method; });
    if (!isAsked) AskAbout(follower, method, anyManaged, {}, true);
}

void TakeManaged(Follower& follower, const std::vector<Managed>& interfaces) {
    std::string anyManaged = follower.interface;
    bool isServer = false;
    for (const Managed& managed : interfaces) {
        anyManaged = managed.interface;
        if (!IsFollowed(follower, managed.interface)) continue;
        isServer = managed.server;
        const Method& method = managed.server ? kServerLeaseInformation : kClientLeaseInformation;
        if ((managed.server && !follower.servers) || IsAskedAbout(follower, managed.interface)) continue;
        AskAbout(follower, method, managed.interface, {}, false);
    }
    Subscribe(follower, kClientLeaseInformation, anyManaged);
    if (follower.servers) Subscribe(follower, kServerLeaseInformation, anyManaged);
    if (!follower.interface.empty() && !IsAskedAbout(follower, follower.interface)) SayNoClient(follower, isServer);
}

// The interfaces that a reply or a post lists.
std::set<std::string> InterfacesIn(const valdo::JValue& root) {
    std::set<std::string> names;
    const valdo::JValue list = root[root.hasKey("leases") ? "leases" : "interfaceList"];
    for (size_t i = 0; i < list.arraySize(); ++i) names.insert(TextOf(list[i], "interface"));
    return names;
}

// --- Questions ---

bool Put(Follower& follower, Question& question, TimePoint now) {
    valdo::JValue request = RequestFor(question.interface);
    const bool isLookup = question.method == &kInterfaceConfigDump;
    question.subscribes = !isLookup && follower.subscriptions.insert(question.method).second;
    if (question.subscribes) request.put("subscribe", true);
    const BusMessage call = MakeCall(follower.session, follower.owner.c_str(), *question.method, request);
    if (call == nullptr || sd_bus_send(follower.session.bus.get(), call.get(), &question.cookie) < 0) return false;
    question.asked = WallMilliseconds() / 1000;
    question.overdue = false;
    question.due = now + kPatience;
    return true;
}

// One question of a kind is open at a time, so a daemon that hangs is not buried in them.
bool PutWhenDue(Follower& follower, Question& question, TimePoint now) {
    if (now < question.due) return true;
    if (question.cookie == 0) return Put(follower, question, now);
    Complain("the daemon has not answered for 10 s", "waiting; its log may tell why");
    question.overdue = true;
    question.due = kNever;
    return true;
}

bool PutDueQuestions(Follower& follower) {
    if (follower.owner.empty()) return true;
    const TimePoint now = Clock::now();
    Question& lookup = follower.lookup;
    const bool isIdle = lookup.cookie == 0 && lookup.asked != 0 && now >= lookup.due;
    if (isIdle && !MayBeManaged(follower)) lookup.due = now + kLongestLookupPause;
    if (!PutWhenDue(follower, lookup, now)) return false;
    for (Question& question : follower.questions)
        if (!PutWhenDue(follower, question, now)) return false;
    return true;
}

Event Heard(const Question& question, Origin origin, Answer&& answer) {
    return {.news = News::Leases,
            .server = question.method == &kServerLeaseInformation,
            .origin = origin,
            .interface = origin == Origin::Post ? "" : question.interface,
            .text = std::move(answer.text),
            .root = std::move(answer.reply),
            .hearing = {.posted = origin == Origin::Post,
                        .asked = question.asked,
                        .wall = WallMilliseconds(),
                        .heard = Clock::now()}};
}

// A question that fails may succeed the next time, and what was learnt before stays. Only who may not ask at all gives
// up. Without a daemon to answer, the bus will soon tell that its name has gone.
std::optional<Event> OnRefusal(Follower& follower, const Question& question, bool isForbidden, const Answer& refusal) {
    if (question.subscribes) follower.subscriptions.erase(question.method);
    if (refusal.status == kExitNoDaemon) return std::nullopt;
    if (isForbidden && !follower.answered) return Fail(Refuse(refusal.status, refusal.problem, refusal.next));
    const std::string problem = refusal.problem.empty() ? "the daemon does not tell" : refusal.problem;
    if (std::exchange(follower.refusal, problem) != problem) Complain(problem, "asking again every 2 s");
    return std::nullopt;
}

// Somebody has released the interface when the reply does not list it; it may come back.
Event OnLeases(Follower& follower, Question& question, Answer&& answer) {
    if (answer.text.size() > kLongText) question.due = Clock::now() + kLongQuestionInterval;
    if (question.once) question.due = kNever;
    Event event = Heard(question, question.subscribes ? Origin::Subscription : Origin::Question, std::move(answer));
    if (question.once || InterfacesIn(event.root).contains(question.interface)) return event;
    std::erase_if(follower.questions,
                  [&event](const Question& other) { return !other.once && other.interface == event.interface; });
    follower.lookupPause = kQuestionInterval;
    follower.lookup.due = std::min(follower.lookup.due, Clock::now() + follower.lookupPause);
    if (!follower.interface.empty()) SayNoClient(follower, false);
    return event;
}

std::optional<Event> OnAnswer(Follower& follower, Question& question, sd_bus_message* message) {
    question.cookie = 0;
    question.due = Clock::now() + kQuestionInterval;
    const sd_bus_error* const error = sd_bus_message_get_error(message);
    if (error != nullptr) {
        const bool isForbidden = sd_bus_error_has_name(error, SD_BUS_ERROR_ACCESS_DENIED) > 0;
        return OnRefusal(follower, question, isForbidden, ExplainRefusal(*error));
    }
    Answer answer = ReadReply(message);
    if (answer.status != kExitDone) return OnRefusal(follower, question, false, answer);
    follower.answered = true;
    follower.refusal.clear();
    if (question.method != &kInterfaceConfigDump) return OnLeases(follower, question, std::move(answer));
    TakeManaged(follower, ReadManaged(answer.reply));
    question.due = Clock::now() + follower.lookupPause;
    follower.lookupPause = std::min<Clock::duration>(follower.lookupPause * 2, kLongestLookupPause);
    return std::nullopt;
}

// --- What comes ---

bool IsAnswerTo(const Question& question, uint64_t cookie) {
    return question.cookie != 0 && question.cookie == cookie;
}

bool IsPostOf(const Method& method, sd_bus_message* message) {
    const std::string member = std::string(method.name) + "Update";
    const char* const path = sd_bus_message_get_path(message);
    return path != nullptr && std::string_view(path) == method.category &&
           sd_bus_message_is_signal(message, InterfaceOf(method).c_str(), member.c_str()) > 0;
}

// What is posted about is managed, and asked about from now on.
Event OnPost(Follower& follower, const Method& method, Answer&& answer) {
    for (const std::string& name : InterfacesIn(answer.reply))
        if (IsFollowed(follower, name) && !IsAskedAbout(follower, name))
            AskAbout(follower, method, name, Clock::now() + kQuestionInterval, false);
    return Heard({.method = &method}, Origin::Post, std::move(answer));
}

std::optional<Event> OnSignal(Follower& follower, sd_bus_message* message) {
    if (sd_bus_message_is_signal(message, kBusDriver, "NameOwnerChanged") > 0 && IsFrom(message, kBusDriver))
        return OnOwnerChanged(follower, message);
    if (!IsFrom(message, follower.owner)) return std::nullopt;
    for (const Method* method : {&kClientLeaseInformation, &kServerLeaseInformation}) {
        if (!follower.subscriptions.contains(method) || !IsPostOf(*method, message)) continue;
        Answer answer = ReadReply(message);
        if (answer.status != kExitDone) return std::nullopt;  // not understood: the next question will tell
        return OnPost(follower, *method, std::move(answer));
    }
    return std::nullopt;
}

std::optional<Event> Understand(Follower& follower, sd_bus_message* message) {
    uint64_t cookie = 0;
    if (sd_bus_message_get_reply_cookie(message, &cookie) < 0) return OnSignal(follower, message);
    if (!IsFrom(message, follower.owner) && !IsFrom(message, kBusDriver)) return std::nullopt;
    if (IsAnswerTo(follower.lookup, cookie)) return OnAnswer(follower, follower.lookup, message);
    for (Question& question : follower.questions)
        if (IsAnswerTo(question, cookie)) return OnAnswer(follower, question, message);
    return std::nullopt;
}

// --- The loop ---

FileDescriptor CatchSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, number);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) return {};
    return FileDescriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool WasInterrupted(const Follower& follower) {
    signalfd_siginfo signal{};
    return read(follower.signals.get(), &signal, sizeof signal) > 0;
}

// Milliseconds, rounded up so that the time has come when they are over; -1: no end.
int MillisecondsUntil(TimePoint time) {
    if (time == kNever) return -1;
    constexpr std::chrono::milliseconds kLongest{3600 * 1000};
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(std::min(time - Clock::now(), Clock::duration(kLongest)));
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

TimePoint NextWake(const Follower& follower, TimePoint deadline) {
    TimePoint wake = deadline;
    if (follower.owner.empty()) return wake;
    wake = std::min(wake, follower.lookup.due);
    for (const Question& question : follower.questions) wake = std::min(wake, question.due);
    return wake;
}

// A process that was stopped for a while may have been unsubscribed as one that does not read; subscribing again does
// no harm.
bool Sleep(Follower& follower, TimePoint deadline) {
    sd_bus* const bus = follower.session.bus.get();
    const int events = sd_bus_get_events(bus);
    if (events < 0) return false;
    std::array<pollfd, 2> files{{{.fd = sd_bus_get_fd(bus), .events = static_cast<short>(events), .revents = 0},
                                 {.fd = follower.signals.get(), .events = POLLIN, .revents = 0}}};
    const TimePoint wake = NextWake(follower, deadline);
    const int ready = poll(files.data(), files.size(), MillisecondsUntil(wake));
    if (wake != kNever && Clock::now() - wake > kLongStop) follower.subscriptions.clear();
    return ready >= 0 || errno == EINTR;
}

}  // namespace

ExitStatus StartFollowing(Follower& follower, const Settings& settings) {
    const ExitStatus opened = OpenSession(settings.json, false, follower.session);
    if (opened != kExitDone) return opened;
    follower.signals = CatchSignals();
    if (!follower.signals.isOpen()) return Refuse(kExitRefused, "no file descriptor is left for signals", "");
    ForgetDaemon(follower);
    const ExitStatus found = FindOwner(follower);
    if (found == kExitDone && follower.owner.empty())
        Complain("there is no daemon yet", "waiting; 'ostrelctl client IFACE' or 'systemctl start ostreld' starts it");
    return found;
}

// The deadline and signals are looked at before each message, so that nobody on the bus can hold them off.
Event NextEvent(Follower& follower, TimePoint deadline) {
    for (;;) {
        if (WasInterrupted(follower)) return {.news = News::Interrupted};
        if (Clock::now() >= deadline) return {.news = News::Deadline};
        if (!PutDueQuestions(follower)) return LoseBus();
        sd_bus_message* received = nullptr;
        const int processed = sd_bus_process(follower.session.bus.get(), &received);
        const BusMessage message(received);
        if (processed < 0) return LoseBus();
        if (message != nullptr) {
            auto event = Understand(follower, message.get());
            if (event) return std::move(*event);
        } else if (processed == 0 && !Sleep(follower, deadline)) {
            return LoseBus();
        }
    }
}

std::optional<ClientLease> SaidOf(const Event& event, const std::string& interface) {
    std::vector<ClientLease> leases = ReadClientLeases(event.root);
    for (ClientLease& said : leases)
        if (said.interface == interface) return std::move(said);
    if (event.origin == Origin::Post) return std::nullopt;
    ClientLease nothing;
    nothing.interface = interface;
    return nothing;
}

std::string LineHead(const std::string& interface) {
    const int64_t now = std::time(nullptr);
    return ClockText(now, now) + ' ' + Padded(interface, 8) + ' ';
}

}  // namespace ostrelctl
