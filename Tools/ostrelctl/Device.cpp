// What the kernel says of the device's interfaces.
//
// A socket belongs to the network namespace that it was made in, so it shows the interfaces that this process has;
// /sys, which may have been mounted in another namespace, need not.
#include "Device.h"

#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ostrelctl {

namespace {

struct FreeAddresses {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

struct FreeNames {
    void operator()(struct if_nameindex* list) const { if_freenameindex(list); }
};

Ostrel_IPv4 NumberOf(const sockaddr& address) {
    return reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr;
}

bool IsAddress(const ifaddrs& entry, const std::string& interface, Ostrel_IPv4 address) {
    if (interface != entry.ifa_name || entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) return false;
    return NumberOf(*entry.ifa_addr) == address;
}

LinkState Ask(int descriptor, ifreq& request) {
    if (ioctl(descriptor, SIOCGIFHWADDR, &request) != 0) return LinkState::Absent;
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER) return LinkState::NotEthernet;
    if (ioctl(descriptor, SIOCGIFFLAGS, &request) != 0) return LinkState::Absent;
    if ((request.ifr_flags & IFF_UP) == 0) return LinkState::Down;
    return (request.ifr_flags & IFF_RUNNING) == 0 ? LinkState::NoCarrier : LinkState::Running;
}

}  // namespace

LinkState StateOfLink(const std::string& interface) {
    ifreq request{};
    if (interface.size() >= sizeof request.ifr_name) return LinkState::Absent;
    interface.copy(request.ifr_name, sizeof request.ifr_name - 1);
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return LinkState::Absent;
    const LinkState state = Ask(descriptor, request);
    close(descriptor);
    return state;
}

std::vector<std::string> EthernetInterfaces() {
    std::vector<std::string> names;
    const std::unique_ptr<struct if_nameindex, FreeNames> list(if_nameindex());
    for (const auto* entry = list.get(); entry != nullptr && entry->if_name != nullptr; ++entry) {
        const LinkState state = StateOfLink(entry->if_name);
        if (state != LinkState::Absent && state != LinkState::NotEthernet) names.emplace_back(entry->if_name);
    }
    return names;
}

std::optional<Ostrel_IPv4> MaskOf(const std::string& interface, Ostrel_IPv4 address) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return std::nullopt;
    const std::unique_ptr<ifaddrs, FreeAddresses> owned(list);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next)
        if (IsAddress(*entry, interface, address)) return NumberOf(*entry->ifa_netmask);
    return std::nullopt;
}

bool HasAddress(const std::string& interface, Ostrel_IPv4 address) {
    return MaskOf(interface, address).has_value();
}

}  // namespace ostrelctl
