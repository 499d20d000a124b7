// The daemon's leases as they change: what watch, wait and apply share.
//
// One connection, and a loop that sleeps until something comes: a post, an answer, a change of the daemon's name on the
// bus, a signal, or the time of the next question. The loss of a lease and link-local addresses are not posted, which
// is why the daemon is asked every two seconds beside the posts. Questions go to the connection that owns the daemon's
// name, so nothing here starts the daemon; and only what that connection sends counts, since any process on the bus may
// send a signal that looks like a post. The bus itself vouches for senders.
#include "Follow.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <poll.h>
#include <sys/signalfd.h>

#include "Changes.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

using std::chrono::seconds;

constexpr char kBusDriver[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr seconds kQuestionInterval{2};
constexpr seconds kLongQuestionInterval{30};  // of a table so long that telling it is work
constexpr size_t kLongText = 65536;           // bytes; some 400 leases of a server
constexpr seconds kPatience{10};              // before it is said that the daemon does not answer

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
    for (Question& question : follower.questions) question = {.method = question.method};
    return Event{.news = follower.owner.empty() ? News::DaemonGone : News::DaemonBack};
}

// --- Questions ---

bool Put(Follower& follower, Question& question, TimePoint now) {
    valdo::JValue request = RequestFor(follower.interface);
    if (question.subscribes) request.put("subscribe", true);
    const BusMessage call = MakeCall(follower.session, follower.owner.c_str(), *question.method, request);
    if (call == nullptr || sd_bus_send(follower.session.bus.get(), call.get(), &question.cookie) < 0) return false;
    question.asked = WallMilliseconds() / 1000;
    question.overdue = false;
    question.due = now + kPatience;
    return true;
}

// One question at a time is open, so a daemon that hangs is not buried in them.
bool PutDueQuestions(Follower& follower) {
    if (follower.owner.empty()) return true;
    const TimePoint now = Clock::now();
    for (Question& question : follower.questions) {
        if (now < question.due) continue;
        if (question.cookie == 0) {
            if (!Put(follower, question, now)) return false;
        } else {
            Complain("the daemon has not answered for 10 s", "waiting; its log may tell why");
            question.overdue = true;
            question.due = kNever;
        }
    }
    return true;
}

Event Heard(const Question& question, Origin origin, Answer&& answer) {
    return {.news = News::Leases,
            .server = question.method == &kServerLeaseInformation,
            .origin = origin,
            .text = std::move(answer.text),
            .root = std::move(answer.reply),
            .hearing = {.posted = origin == Origin::Post,
                        .asked = question.asked,
                        .wall = WallMilliseconds(),
                        .heard = Clock::now()}};
}

// Without a daemon to answer, the bus will soon tell that its name has gone.
std::optional<Event> OnAnswer(Question& question, sd_bus_message* message) {
    question.cookie = 0;
    question.due = Clock::now() + kQuestionInterval;
    const sd_bus_error* const error = sd_bus_message_get_error(message);
    if (error != nullptr) {
        const Answer refusal = ExplainRefusal(*error);
        if (refusal.status == kExitNoDaemon) return std::nullopt;
        return Fail(Refuse(refusal.status, refusal.problem, refusal.next));
    }
    Answer answer = ReadReply(message);
    if (answer.status != kExitDone)
        return Fail(
            Refuse(answer.status, answer.problem.empty() ? "the daemon does not tell" : answer.problem, answer.next));
    if (answer.text.size() > kLongText) question.due = Clock::now() + kLongQuestionInterval;
    const Origin origin = question.subscribes ? Origin::Subscription : Origin::Question;
    question.subscribes = false;
    return Heard(question, origin, std::move(answer));
}

// --- What comes ---

bool IsAnswerTo(const Question& question, uint64_t cookie) {
    return question.cookie != 0 && question.cookie == cookie;
}

bool IsPostOf(const Question& question, sd_bus_message* message) {
    const std::string member = std::string(question.method->name) + "Update";
    const char* const path = sd_bus_message_get_path(message);
    return path != nullptr && std::string_view(path) == question.method->category &&
           sd_bus_message_is_signal(message, InterfaceOf(*question.method).c_str(), member.c_str()) > 0;
}

std::optional<Event> OnSignal(Follower& follower, sd_bus_message* message) {
    if (sd_bus_message_is_signal(message, kBusDriver, "NameOwnerChanged") > 0 && IsFrom(message, kBusDriver))
        return OnOwnerChanged(follower, message);
    if (!IsFrom(message, follower.owner)) return std::nullopt;
    for (const Question& question : follower.questions) {
        if (!IsPostOf(question, message)) continue;
        Answer answer = ReadReply(message);
        if (answer.status != kExitDone) return std::nullopt;  // not understood: the next question will tell
        return Heard(question, Origin::Post, std::move(answer));
    }
    return std::nullopt;
}

std::optional<Event> Understand(Follower& follower, sd_bus_message* message) {
    uint64_t cookie = 0;
    if (sd_bus_message_get_reply_cookie(message, &cookie) < 0) return OnSignal(follower, message);
    if (!IsFrom(message, follower.owner) && !IsFrom(message, kBusDriver)) return std::nullopt;
    for (Question& question : follower.questions)
        if (IsAnswerTo(question, cookie)) return OnAnswer(question, message);
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
    for (const Question& question : follower.questions) wake = std::min(wake, question.due);
    return wake;
}

bool Sleep(const Follower& follower, TimePoint deadline) {
    sd_bus* const bus = follower.session.bus.get();
    const int events = sd_bus_get_events(bus);
    if (events < 0) return false;
    std::array<pollfd, 2> files{{{.fd = sd_bus_get_fd(bus), .events = static_cast<short>(events), .revents = 0},
                                 {.fd = follower.signals.get(), .events = POLLIN, .revents = 0}}};
    const int ready = poll(files.data(), files.size(), MillisecondsUntil(NextWake(follower, deadline)));
    return ready >= 0 || errno == EINTR;
}

}  // namespace

ExitStatus StartFollowing(Follower& follower, const Settings& settings, const std::string& interface, bool servers) {
    const ExitStatus opened = OpenSession(settings.json, false, follower.session);
    if (opened != kExitDone) return opened;
    follower.signals = CatchSignals();
    if (!follower.signals.isOpen()) return Refuse(kExitRefused, "no file descriptor is left for signals", "");
    follower.interface = interface;
    follower.questions = {{.method = &kClientLeaseInformation}};
    if (servers) follower.questions.push_back({.method = &kServerLeaseInformation});
    return FindOwner(follower);
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

void PrintText(const Event& event) {
    puts(event.text.c_str());
    (void)fflush(stdout);
}

std::string LineHead(const std::string& interface) {
    const int64_t now = std::time(nullptr);
    return ClockText(now, now) + ' ' + Padded(interface, 8) + ' ';
}

}  // namespace ostrelctl
