// A server that is handed over with the leases that it had before.
#pragma once

#include <string>

#include "Bus.h"

namespace ostrelctl {

// As HandOver, with `leases`, an array or nothing, which are added to the request. What one request has no room for is
// given in parts, before the server answers anybody. Leases that the daemon can't read are left out, which is said; the
// server is handed over all the same.
[[nodiscard]] ExitStatus HandOverServer(const Session& session, const std::string& interface, valdo::JValue request,
                                        const valdo::JValue& leases);

}  // namespace ostrelctl
