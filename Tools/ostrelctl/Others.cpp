// Other programs that configure interfaces, by the files in which they say so at run time.
#include "Others.h"

#include <fstream>
#include <net/if.h>

namespace ostrelctl {

namespace {

// Whether the file has a line that begins so.
bool HasLine(const std::string& file, const std::string& beginning, const std::string& butNot = "\n") {
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);)
        if (line.starts_with(beginning) && line != butNot) return true;
    return false;
}

}  // namespace

std::string OtherManagerOf(const std::string& interface) {
    const std::string index = std::to_string(if_nametoindex(interface.c_str()));
    if (HasLine("/run/NetworkManager/devices/" + index, "managed=true")) return "NetworkManager";
    if (HasLine("/run/systemd/netif/links/" + index, "ADMIN_STATE=", "ADMIN_STATE=unmanaged"))
        return "systemd-networkd";
    return HasLine("/run/network/ifstate", interface + '=') ? "ifupdown" : "";
}

std::string HowToTakeFrom(const std::string& manager, const std::string& interface) {
    if (manager == "NetworkManager") return "nmcli device set " + interface + " managed no";
    if (manager == "ifupdown") return "ifdown " + interface + ", and take it out of /etc/network/interfaces";
    return "a file of systemd.network(5) for " + interface + " with [Link] Unmanaged=yes, then networkctl reload";
}

}  // namespace ostrelctl
