// Other programs that configure interfaces, by the files in which they say so at run time.
#include "Others.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <net/if.h>
#include <sstream>
#include <vector>

namespace ostrelctl {

namespace {

// Whether the file has a line that begins so.
bool HasLine(const std::string& file, const std::string& beginning, const std::string& butNot = "\n") {
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);)
        if (line.starts_with(beginning) && line != butNot) return true;
    return false;
}

// How ifupdown gives it its IPv4 addresses: the methods of its stanzas. Files elsewhere, by "source", are not looked
// at.
std::vector<std::string> MethodsOf(const std::string& interface, const std::string& directory) {
    std::vector<std::string> files{directory + "/interfaces"}, methods;
    std::error_code error;
    for (std::filesystem::directory_iterator each(directory + "/interfaces.d", error), end; !error && each != end;
         each.increment(error))
        files.push_back(each->path());
    for (const std::string& file : files) {
        std::ifstream stream(file);
        for (std::string line; std::getline(stream, line);) {
            std::istringstream words(line);
            std::string keyword, name, family, method;
            words >> keyword >> name >> family >> method;
            if (keyword == "iface" && name == interface && family == "inet") methods.push_back(method);
        }
    }
    return methods;
}

// An interface that it has only set up ("manual") is still to be given an address.
bool IsOfIfupdown(const std::string& interface, const std::string& root) {
    if (!HasLine(root + "/run/network/ifstate", interface + '=')) return false;
    const std::vector<std::string> methods = MethodsOf(interface, root + "/etc/network");
    return methods.empty() || std::ranges::any_of(methods, [](const auto& method) { return method != "manual"; });
}

}  // namespace

std::string OtherManagerOf(const std::string& interface, const std::string& root) {
    const std::string index = std::to_string(if_nametoindex(interface.c_str()));
    if (HasLine(root + "/run/NetworkManager/devices/" + index, "managed=true")) return "NetworkManager";
    if (HasLine(root + "/run/systemd/netif/links/" + index, "ADMIN_STATE=", "ADMIN_STATE=unmanaged"))
        return "systemd-networkd";
    return IsOfIfupdown(interface, root) ? "ifupdown" : "";
}

std::string HowToTakeFrom(const std::string& manager, const std::string& interface) {
    if (manager == "NetworkManager") return "nmcli device set " + interface + " managed no";
    if (manager == "ifupdown") return "ifdown " + interface + ", and take it out of /etc/network/interfaces";
    return "a file of systemd.network(5) for " + interface + " with [Link] Unmanaged=yes, then networkctl reload";
}

}  // namespace ostrelctl
