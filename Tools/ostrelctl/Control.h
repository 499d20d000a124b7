// The controlling process: the device's interfaces are as its files say.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Applying.h"
#include "Files.h"
#include "RunState.h"

namespace ostrelctl {

// An interface that the daemon has been handed.
struct Handed {
    Entry entry;
    unsigned index;            // the interface's number then
    bool isConfirmed = false;  // the daemon has told of it since
};

// An address that an interface may still have from before, and until when it may come to be held again.
struct FormerAddress {
    Ostrel_IPv4 address;
    TimePoint until;
};

struct Controller {
    // What to be.
    std::vector<std::string> files{};
    std::string stateFile{};
    Configuration configuration{};

    // How it is done: questions that may start the daemon, what it tells, what is done with that.
    Session calls{};
    Follower follower{};
    Applying applying{};
    NetlinkSocket netlink{};

    // What has come of it.
    KeptState kept{};
    std::set<std::string> staleTables{};  // servers whose leases have changed since their table was asked for
    TimePoint nextTables{};               // when it may be asked for again
    bool isUnsaved = false;               // `kept` is not what the file holds
    TimePoint savedAt{};                  // when it was written
    std::map<std::string, Handed> handed{};
    std::map<std::string, TimePoint> refused{};  // interfaces that could not be handed over, with the next try
    std::map<std::string, std::string> left{};   // interfaces that others configure, with who
    std::map<unsigned, std::string> lost{};      // numbers of interfaces that the daemon has let go, with their names
    std::map<std::string, FormerAddress> former{};
    bool isAbsent = false;  // there is no daemon, and none could be started
    TimePoint nextWake{};   // when a daemon that is not there is called again
    std::string status{};   // last told to the service manager
};

// As last told; null: not managed, or there is no daemon.
[[nodiscard]] const InterfaceState* StateOf(const Controller& controller, const std::string& interface);

// A line of what happens to the interface.
void SayOf(const std::string& interface, const std::string& words);

// Reads the files again. With an error in one of them what worked goes on.
void Reload(Controller& controller);

// Hears an event, and does what follows from it.
void Control(Controller& controller, const Event& event);

// When there is something to do, if nothing happens until then.
[[nodiscard]] TimePoint NextEnd(const Controller& controller);

// Writes what is kept, if that has changed.
void Save(Controller& controller);

}  // namespace ostrelctl
