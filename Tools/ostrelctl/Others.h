// Other programs that configure interfaces.
#pragma once

#include <string>

namespace ostrelctl {

// Who configures the interface: "NetworkManager", "systemd-networkd", "ifupdown"; empty: none of them. `root` stands
// before the paths of their files.
[[nodiscard]] std::string OtherManagerOf(const std::string& interface, const std::string& root = "");

// How it is made to leave the interface alone.
[[nodiscard]] std::string HowToTakeFrom(const std::string& manager, const std::string& interface);

}  // namespace ostrelctl
