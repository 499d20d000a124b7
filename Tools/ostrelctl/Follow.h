// The daemon's leases as they change: what watch, wait and apply share.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Bus.h"
#include "FileDescriptor.h"
#include "Holding.h"

namespace ostrelctl {

enum class News {
    Leases,       // a reply or a post has come
    DaemonGone,   // its name has left the bus
    DaemonBack,   // somebody has taken the name; from now on he is asked
    Deadline,     // the time given is over
    Interrupted,  // SIGINT, SIGTERM or SIGHUP
    Failed,       // the bus is lost, or refuses; it has been complained about
};

enum class Origin { Post, Subscription, Question };  // how leases came: a Question is asked every two seconds

struct Event {
    News news;
    ExitStatus status = kExitDone;  // of Failed: what to end with

    // Of Leases:
    bool server = false;  // the tables of servers, else what clients hold
    Origin origin = Origin::Question;
    std::string interface {};  // of a reply: the one that was asked about; others may be listed beside it
    std::string text{};        // as it came
    valdo::JValue root{};
    Hearing hearing{};
};

// What is asked again and again; `cookie` is 0 unless its answer is awaited.
struct Question {
    const Method* method;
    std::string interface {};  // the one asked about; empty: all
    bool once = false;         // asked for the sake of the subscription only
    uint64_t cookie = 0;
    bool subscribes = false;  // as it was put last
    bool overdue = false;     // the answer takes so long that it has been complained about
    TimePoint due{};          // when to ask; while an answer is awaited, when to complain
    int64_t asked = 0;        // wall clock, seconds
};

struct Follower {
    Session session{};
    FileDescriptor signals{};
    std::string interface;  // the only one asked about; empty: all that are managed
    bool servers;           // their tables are followed, too
    std::string owner{};    // the daemon's connection; empty: there is none

    // What goes on with this owner of the name.
    Question lookup{.method = &kInterfaceConfigDump};  // what is managed
    Clock::duration lookupPause{};
    std::vector<Question> questions{};        // a lease or a table each
    std::set<const Method*> subscriptions{};  // those that were asked for
    bool saidNoClient = false, answered = false;
    std::string refusal{};  // the last answer was this one; empty: it was none
};

// Connects, blocks the signals that end a program and finds the daemon, without starting it. Complains on failure, and
// says what is waited for when there is no daemon.
[[nodiscard]] ExitStatus StartFollowing(Follower& follower, const Settings& settings);

// Waits for something to happen, until `deadline` at most. Whenever there is a daemon it is subscribed to, and asked
// every two seconds for each interface that it manages. What it refuses is complained about, once, and asked again.
[[nodiscard]] Event NextEvent(Follower& follower, TimePoint deadline);

// What leases say of one client interface: all empty when a reply does not list it, nothing when a post is of others.
[[nodiscard]] std::optional<ClientLease> SaidOf(const Event& event, const std::string& interface);

// The beginning of a line about an interface: "14:03:22 eth0     ".
[[nodiscard]] std::string LineHead(const std::string& interface);

}  // namespace ostrelctl
