// A server's leases in a file, for after a restart: the daemon itself writes none.
#pragma once

#include <string>

#include "Bus.h"

namespace ostrelctl {

// A server and where its leases are kept.
struct KeptLeases {
    std::string interface;
    std::string file;
    valdo::JValue request;  // what hands the server over, without leases
};

// As HandOver, with the leases of the file. One that does not exist yet has none; one that cannot be read is refused.
[[nodiscard]] ExitStatus HandOverWithLeases(const Session& session, const KeptLeases& kept);

// Writes the file whenever the leases have changed, and hands the server over again to a daemon that was started anew,
// until interrupted or until somebody releases the interface.
[[nodiscard]] ExitStatus KeepLeases(const KeptLeases& kept, const Settings& settings);

}  // namespace ostrelctl
