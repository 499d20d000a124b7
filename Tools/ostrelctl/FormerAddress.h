// The address that a client's interface still has from before this process began.
#pragma once

#include "Control.h"

namespace ostrelctl {

// Whoever ran before has gone without taking away what he had set, and the lease may end while nobody listens. To be
// called before this process applies anything to the interface. A daemon that goes on knows at once what it holds; a
// new one has some seconds to hold it again.
void WatchFormerAddress(Controller& controller, const std::string& interface, bool daemonGoesOn);

// Removes those that the daemon does not hold.
void DropFormerAddresses(Controller& controller);

// When there is something to do, if nothing happens until then.
[[nodiscard]] TimePoint NextFormerAddress(const Controller& controller);

}  // namespace ostrelctl
