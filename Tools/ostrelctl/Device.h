// What the kernel says of the device's interfaces.
#pragma once

#include <string>
#include <vector>

#include "Ostrel/Address.h"

namespace ostrelctl {

enum class LinkState {
    Absent,       // no such interface
    NotEthernet,  // nothing that the daemon could manage
    Down,
    NoCarrier,  // up, with no cable or no partner
    Running,
};

[[nodiscard]] LinkState StateOfLink(const std::string& interface);

[[nodiscard]] std::vector<std::string> EthernetInterfaces();

// Whether the interface has that IPv4 address. The daemon changes no address itself.
[[nodiscard]] bool HasAddress(const std::string& interface, Ostrel_IPv4 address);

}  // namespace ostrelctl
