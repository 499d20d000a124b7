// What the kernel says of the device's interfaces.
#pragma once

#include <optional>
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

// The mask with which the interface has that IPv4 address; nothing when it has not. The daemon changes no address
// itself.
[[nodiscard]] std::optional<Ostrel_IPv4> MaskOf(const std::string& interface, Ostrel_IPv4 address);
[[nodiscard]] bool HasAddress(const std::string& interface, Ostrel_IPv4 address);

}  // namespace ostrelctl
