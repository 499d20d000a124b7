// Other programs that configure interfaces.
#pragma once

#include <string>

namespace ostrelctl {

// Who configures the interface: "NetworkManager", "systemd-networkd", "ifupdown"; empty: none of them.
[[nodiscard]] std::string OtherManagerOf(const std::string& interface);

// How it is made to leave the interface alone.
[[nodiscard]] std::string HowToTakeFrom(const std::string& manager, const std::string& interface);

}  // namespace ostrelctl
