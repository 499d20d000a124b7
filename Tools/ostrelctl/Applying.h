// Interfaces that do as the daemon says: what apply is made of, for one interface or for many in one process.
#pragma once

#include <map>
#include <string>

#include "Follow.h"
#include "Steps.h"

namespace ostrelctl {

constexpr uint32_t kUsualMetric = 100;  // of routes: behind those that people make, which have 0

struct AppliedInterface {
    FileDescriptor lock{};  // nobody else applies it
    Applier applier{};
};

// The kernel's interfaces and what is done with them. `holdings` tells what for; see Follow.h.
struct Applying {
    bool dryRun = false;      // the steps are printed as commands, and not done
    bool quiet = false;       // the steps are not printed
    bool lines = false;       // they are printed as JSON
    NetlinkSocket changes{};  // tells when the kernel's addresses, routes or links change; null with dryRun
    Holdings holdings{.grace = kGraceOfNewDaemon};
    std::map<std::string, AppliedInterface> interfaces{};
    bool forbidden = false;         // the kernel has refused for want of rights
    TimePoint restsUntil = kNever;  // the kernel's notices are left alone so long; kNever: they are heard
};

// Opens `changes`, and has the follower wait for it and subscribe. Complains on failure.
[[nodiscard]] ExitStatus PrepareApplying(Applying& applying, Follower& follower);

// From now on the interface does as the daemon says. Complains, and gives kExitRefused, when another process applies
// it.
[[nodiscard]] ExitStatus BeginApplying(Applying& applying, const Follower& follower, const std::string& interface,
                                       uint32_t metric = kUsualMetric);

// And from now on it does not; what it got is removed, or else kept until its lease ends.
void EndApplying(Applying& applying, const std::string& interface, bool keep);

// Hears an event, and does what follows from it on the interfaces that are applied.
void Apply(Applying& applying, Follower& follower, const Event& event);

// When there is something to do, if nothing happens until then: the deadline for NextEvent.
[[nodiscard]] TimePoint NextEnd(const Applying& applying);

}  // namespace ostrelctl
