// What the daemon tells, as it comes: what watch, wait, apply and all that stays share.
//
// Who follows names the methods that he subscribes to and then waits for events; between them the process sleeps.
// Holdings keeps what each interface may use up to date with them.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Bus.h"
#include "FileDescriptor.h"
#include "Holding.h"

namespace ostrelctl {

enum class News {
    Told,         // an answer or a post has come
    Watched,      // the descriptor that is watched beside the bus can be read
    DaemonGone,   // its name has left the bus
    DaemonBack,   // somebody has taken the name; he is subscribed to
    Deadline,     // the time given is over
    Interrupted,  // SIGINT, SIGTERM or SIGHUP
    Failed,       // the bus is lost, or refuses, or the daemon is too old; it has been complained about
};

struct Event {
    News news;
    ExitStatus status = kExitDone;  // of Failed: what to end with
    int signal = 0;                 // of Interrupted

    // Of Told:
    const Method* method = nullptr;
    bool posted = false;       // else it is the answer to a subscription or a question
    std::string interface {};  // that an answer was asked for; empty: all
    std::string text{};        // as it came
    valdo::JValue root{};
    Hearing hearing{};
};

// What is asked; once it is answered it is done with. One that fails is asked again after a while.
struct Question {
    const Method* method;
    std::string interface {};  // empty: all
    bool subscribes = false;
    uint64_t cookie = 0;  // 0: not put yet
    bool overdue = false;
    TimePoint due{};  // when to ask; while an answer is awaited, when to complain
};

struct Subscription {
    const Method* method;
    std::string interface {};  // empty: all
};

struct Follower {
    std::vector<Subscription> subscriptions{};
    int watched = -1;  // a descriptor that is waited for beside the bus; not owned

    Session session{};
    FileDescriptor signals{};
    std::string owner{};  // the daemon's connection; empty: there is none
    std::vector<Question> questions{};
    bool answered = false;
    std::string refusal{};         // the last answer was this one; empty: it was none
    TimePoint busySince = kNever;  // when the last event was handed out
};

// Connects, blocks the signals that end a program and finds the daemon, without starting it. Complains on failure, and
// says what is waited for when there is no daemon.
[[nodiscard]] ExitStatus StartFollowing(Follower& follower, const Settings& settings);

// Waits for something to happen, until `deadline` at most.
[[nodiscard]] Event NextEvent(Follower& follower, TimePoint deadline);

// Asks a question whose answer is an event, unless it is under way.
void AskFor(Follower& follower, const Method& method, const std::string& interface);

// The same of one whose answer is to tell what is now: one that is under way is not heard.
void AskAnew(Follower& follower, const Method& method, const std::string& interface);

// Subscribes to something else from now on, and not to what was subscribed to before.
void FollowOthers(Follower& follower, std::vector<Subscription> subscriptions);

constexpr std::chrono::seconds kGraceOfNewDaemon{10};  // in which it has to hold what the last one held

// What interfaces hold. Those of `only`, or with an empty one all that the daemon tells of, are in `each`.
struct Holdings {
    std::set<std::string> only{};
    Clock::duration grace{};  // that a new daemon has to hold what the last one held
    std::map<std::string, Holding> each{};
    bool isTold = false;                    // all that this daemon manages is known
    std::set<std::string> unmanagedSaid{};  // it has been said that they are not managed
};

// The subscription that holdings live from.
[[nodiscard]] Subscription SubscriptionFor(const Holdings& holdings);

// Has the holdings hear an event, and asks for the details that are due. Gives the interfaces that it is about, with
// what they had before. What is asked for and not managed is complained about, once a daemon.
[[nodiscard]] std::map<std::string, Holding> HearEvent(Holdings& holdings, Follower& follower, const Event& event);

// When the first of the holdings is over; see NextEnd(Holding).
[[nodiscard]] TimePoint NextEnd(const Holdings& holdings);

// The beginning of a line about an interface: "14:03:22 eth0     ".
[[nodiscard]] std::string LineHead(const std::string& interface);

}  // namespace ostrelctl
