// What the daemon tells, as it comes.
//
// One connection, and a loop that sleeps until something comes: a post, an answer, a change of the daemon's name on the
// bus, or a signal. Whenever there is a daemon it is subscribed to; the answer shows what there is, and posts tell all
// that changes. Questions go to the connection that owns the daemon's name, so nothing here starts the daemon; and only
// what that connection sends counts, since any process on the bus may send a signal that looks like a post. The bus
// itself vouches for senders.
//
// A subscriber that does not read for a minute is given up by the daemon. So who was stopped, or held up by whoever
// reads his output, subscribes anew, and sees in the answer what he has missed.
#include "Follow.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/signalfd.h>
#include <utility>

#include "Terminal.h"

namespace ostrelctl {

namespace {

using std::chrono::seconds;

constexpr char kBusDriver[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr seconds kRetryPause{5};  // before what has failed is asked again
constexpr seconds kLongPause{20};  // the daemon gives up a silent subscriber after a minute
constexpr seconds kPatience{10};   // before it is said that the daemon does not answer

Hearing HearNow() {
    const auto wall = std::chrono::system_clock::now().time_since_epoch();
    return {.wall = std::chrono::duration_cast<std::chrono::milliseconds>(wall).count(), .heard = Clock::now()};
}

Event Fail(ExitStatus status) {
    return {.news = News::Failed, .status = status};
}

Event LoseBus() {
    return Fail(ComplainOfLostBus());
}

bool IsFrom(sd_bus_message* message, std::string_view sender) {
    const char* const stamped = sd_bus_message_get_sender(message);
    return stamped != nullptr && stamped == sender;
}

void Subscribe(Follower& follower) {
    follower.questions.clear();
    for (const Subscription& wanted : follower.subscriptions)
        follower.questions.push_back({.method = wanted.method, .interface = wanted.interface, .subscribes = true});
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
    Subscribe(follower);
    return Event{.news = follower.owner.empty() ? News::DaemonGone : News::DaemonBack};
}

// --- Questions ---

bool Send(Follower& follower, const Question& question, const valdo::JValue& request, uint64_t* cookie) {
    const BusMessage call = MakeCall(follower.session, follower.owner.c_str(), *question.method, request);
    return call != nullptr && sd_bus_send(follower.session.bus.get(), call.get(), cookie) >= 0;
}

bool Put(Follower& follower, Question& question, TimePoint now) {
    valdo::JValue request = RequestFor(question.interface);
    if (question.subscribes) request.put("subscribe", true);
    if (!Send(follower, question, request, &question.cookie)) return false;
    question.overdue = false;
    question.due = now + kPatience;
    return true;
}

bool PutWhenDue(Follower& follower, Question& question, TimePoint now) {
    if (now < question.due) return true;
    if (question.cookie == 0) return Put(follower, question, now);
    if (!std::exchange(question.overdue, true))
        Complain("the daemon has not answered for 10 s", "waiting; its log may tell why");
    question.due = kNever;
    return true;
}

bool PutDueQuestions(Follower& follower) {
    if (follower.owner.empty()) return true;
    const TimePoint now = Clock::now();
    return std::ranges::all_of(follower.questions,
                               [&](Question& question) { return PutWhenDue(follower, question, now); });
}

Event Tell(const Question& question, bool posted, Answer&& answer) {
    return {.news = News::Told,
            .method = question.method,
            .posted = posted,
            .interface = question.interface,
            .text = std::move(answer.text),
            .root = std::move(answer.reply),
            .hearing = HearNow()};
}

// A question that fails may succeed the next time. Only who may not ask at all gives up. Without a daemon to answer,
// the bus will soon tell that its name has gone.
std::optional<Event> OnRefusal(Follower& follower, Question& question, const sd_bus_error* error, const Answer& said) {
    question.cookie = 0;
    question.due = Clock::now() + kRetryPause;
    if (said.status == kExitNoDaemon) return std::nullopt;
    if (said.isOfOldDaemon) return Fail(ComplainOfAge());
    const bool isForbidden = error != nullptr && sd_bus_error_has_name(error, SD_BUS_ERROR_ACCESS_DENIED) > 0;
    if (isForbidden && !follower.answered) return Fail(Refuse(said.status, said.problem, said.next));
    const std::string problem = said.problem.empty() ? "the daemon does not tell" : said.problem;
    if (std::exchange(follower.refusal, problem) != problem) Complain(problem, "asking again every 5 s");
    return std::nullopt;
}

std::optional<Event> OnAnswer(Follower& follower, size_t index, sd_bus_message* message) {
    Question& question = follower.questions[index];
    const sd_bus_error* const error = sd_bus_message_get_error(message);
    Answer answer = error != nullptr ? ExplainRefusal(*error) : ReadReply(message);
    if (answer.status != kExitDone) return OnRefusal(follower, question, error, answer);
    follower.answered = true;
    follower.refusal.clear();
    Event event = Tell(question, false, std::move(answer));
    follower.questions.erase(follower.questions.begin() + static_cast<std::ptrdiff_t>(index));
    return event;
}

// --- What comes ---

bool IsPostOf(const Method& method, sd_bus_message* message) {
    const std::string member = std::string(method.name) + "Update";
    const char* const path = sd_bus_message_get_path(message);
    return path != nullptr && std::string_view(path) == method.category &&
           sd_bus_message_is_signal(message, InterfaceOf(method).c_str(), member.c_str()) > 0;
}

std::optional<Event> OnSignal(const Follower& follower, sd_bus_message* message) {
    if (!IsFrom(message, follower.owner)) return std::nullopt;
    for (const Subscription& wanted : follower.subscriptions) {
        if (!IsPostOf(*wanted.method, message)) continue;
        Answer answer = ReadReply(message);
        if (answer.status != kExitDone) return std::nullopt;
        return Tell({.method = wanted.method}, true, std::move(answer));
    }
    return std::nullopt;
}

std::optional<Event> Understand(Follower& follower, sd_bus_message* message) {
    uint64_t cookie = 0;
    if (sd_bus_message_is_signal(message, kBusDriver, "NameOwnerChanged") > 0 && IsFrom(message, kBusDriver))
        return OnOwnerChanged(follower, message);
    if (sd_bus_message_get_reply_cookie(message, &cookie) < 0) return OnSignal(follower, message);
    if (!IsFrom(message, follower.owner) && !IsFrom(message, kBusDriver)) return std::nullopt;
    for (size_t i = 0; i < follower.questions.size(); ++i)
        if (follower.questions[i].cookie == cookie && cookie != 0) return OnAnswer(follower, i, message);
    return std::nullopt;
}

// --- The loop ---

FileDescriptor CatchSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCONT}) sigaddset(&set, number);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) return {};
    return FileDescriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Subscribing anew begins with ending what there is, since the daemon counts subscriptions.
bool SubscribeAnew(Follower& follower) {
    if (follower.owner.empty()) return true;
    Subscribe(follower);
    valdo::JValue end = valdo::Object();
    end.put("subscribe", false);
    for (const Question& question : follower.questions)
        if (uint64_t ignored = 0; !Send(follower, question, end, &ignored)) return false;
    return true;
}

// The signal that has come; 0: none.
int TakeSignal(const Follower& follower) {
    signalfd_siginfo signal{};
    return read(follower.signals.get(), &signal, sizeof signal) > 0 ? static_cast<int>(signal.ssi_signo) : 0;
}

// Milliseconds, rounded up so that the time has come when they are over; -1: no end.
int MillisecondsUntil(TimePoint time) {
    if (time == kNever) return -1;
    constexpr std::chrono::milliseconds kLongest{86400 * 1000};
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

enum class Woken { Lost, ByOthers, ByWatched };

Woken Sleep(const Follower& follower, TimePoint deadline) {
    sd_bus* const bus = follower.session.bus.get();
    const int events = sd_bus_get_events(bus);
    if (events < 0) return Woken::Lost;
    std::array<pollfd, 3> files{{{.fd = sd_bus_get_fd(bus), .events = static_cast<short>(events), .revents = 0},
                                 {.fd = follower.signals.get(), .events = POLLIN, .revents = 0},
                                 {.fd = follower.watched, .events = POLLIN, .revents = 0}}};
    const int ready = poll(files.data(), files.size(), MillisecondsUntil(NextWake(follower, deadline)));
    if (ready < 0 && errno != EINTR) return Woken::Lost;
    return ready > 0 && files[2].revents != 0 ? Woken::ByWatched : Woken::ByOthers;
}

// One step of the loop; an event when there is one. The deadline and signals are looked at before each message, so that
// nobody on the bus can hold them off.
std::optional<Event> Step(Follower& follower, TimePoint deadline) {
    const int signal = TakeSignal(follower);
    if (signal == SIGCONT && !SubscribeAnew(follower)) return LoseBus();
    if (signal != 0 && signal != SIGCONT) return Event{.news = News::Interrupted, .signal = signal};
    if (Clock::now() >= deadline) return Event{.news = News::Deadline};
    if (!PutDueQuestions(follower)) return LoseBus();
    sd_bus_message* received = nullptr;
    const int processed = sd_bus_process(follower.session.bus.get(), &received);
    const BusMessage message(received);
    if (processed < 0) return LoseBus();
    if (message != nullptr) return Understand(follower, message.get());
    const Woken woken = processed == 0 ? Sleep(follower, deadline) : Woken::ByOthers;
    if (woken == Woken::Lost) return LoseBus();
    return woken == Woken::ByWatched ? std::optional(Event{.news = News::Watched}) : std::nullopt;
}

}  // namespace

ExitStatus StartFollowing(Follower& follower, const Settings& settings) {
    const ExitStatus opened = OpenSession(settings.json, false, follower.session);
    if (opened != kExitDone) return opened;
    follower.signals = CatchSignals();
    if (!follower.signals.isOpen()) return Refuse(kExitRefused, "no file descriptor is left for signals", "");
    Subscribe(follower);
    const ExitStatus found = FindOwner(follower);
    if (found == kExitDone && follower.owner.empty())
        Complain("there is no daemon yet", "waiting; 'ostrelctl client IFACE' or 'systemctl start ostreld' starts it");
    return found;
}

Event NextEvent(Follower& follower, TimePoint deadline) {
    const bool wasHeldUp = follower.busySince != kNever && Clock::now() - follower.busySince > kLongPause;
    if (wasHeldUp && !SubscribeAnew(follower)) return LoseBus();
    for (;;) {
        std::optional<Event> event = Step(follower, deadline);
        if (!event) continue;
        follower.busySince = Clock::now();
        return std::move(*event);
    }
}

void AskFor(Follower& follower, const Method& method, const std::string& interface) {
    const bool isUnderWay = std::ranges::any_of(follower.questions, [&](const Question& question) {
        return !question.subscribes && question.method == &method && question.interface == interface;
    });
    if (!isUnderWay) follower.questions.push_back({.method = &method, .interface = interface});
}

void AskAnew(Follower& follower, const Method& method, const std::string& interface) {
    std::erase_if(follower.questions, [&](const Question& question) {
        return !question.subscribes && question.method == &method && question.interface == interface;
    });
    AskFor(follower, method, interface);
}

void FollowOthers(Follower& follower, std::vector<Subscription> subscriptions) {
    follower.subscriptions = std::move(subscriptions);
    // Should this fail, the bus is lost, which the next event tells.
    (void)SubscribeAnew(follower);
}

std::string LineHead(const std::string& interface) {
    const int64_t now = std::time(nullptr);
    return ClockText(now, now) + ' ' + Padded(interface, 8) + ' ';
}

}  // namespace ostrelctl
