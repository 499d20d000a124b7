// The device's links as they are now, and ports that are held and never read.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "DebugServices.h"
#include "os_device.h"
#include "os_memory.h"

struct os_port {
    int fd;
};

namespace {

constexpr int32_t kWarningLevel = 5000;

// A descriptor that is closed behind its use.
struct OwnedFd {
    int fd;
    explicit OwnedFd(int opened) noexcept : fd(opened) {}
    ~OwnedFd() {
        if (fd >= 0) close(fd);
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
};

bool ReadLink(int fd, ifreq request, os_link& link) noexcept {
    std::copy_n(request.ifr_name, IFNAMSIZ, link.name.begin());
    if (ioctl(fd, SIOCGIFINDEX, &request) < 0) return false;
    link.index = request.ifr_ifindex;
    if (ioctl(fd, SIOCGIFHWADDR, &request) < 0) return false;
    std::memcpy(link.address.data(), request.ifr_hwaddr.sa_data, link.address.size());
    if (ioctl(fd, SIOCGIFFLAGS, &request) < 0) return false;
    link.isRunning = (request.ifr_flags & IFF_UP) != 0 && (request.ifr_flags & IFF_RUNNING) != 0;
    link.isThere = true;
    return true;
}

os_link Unknown(std::string_view which) noexcept {
    DebugPrintF(kWarningLevel, "[%s] link cannot be asked after: %s\n", which, std::strerror(errno));
    return {.isThere = false, .isUnknown = true, .isRunning = false, .index = 0, .address = {}, .name = {}};
}

// What arrives is dropped before it is queued: nothing is ever read, and a full queue would let the kernel count drops.
bool DropEverything(int fd) noexcept {
    sock_filter drop{BPF_RET | BPF_K, 0, 0, 0};
    const sock_fprog program{1, &drop};
    return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

// Beside other sockets of the port, as those of another server on another interface. False with errno.
bool BindTo(int fd, std::string_view ifname, uint16_t port) noexcept {
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, ifname.data(), static_cast<socklen_t>(ifname.size())) == 0 &&
           bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

os_link os_link_at(int32_t index) noexcept {
    std::array<char, IFNAMSIZ> name{};
    if (index <= 0) return {};
    if (if_indextoname(static_cast<unsigned int>(index), name.data()) == nullptr)
        return errno == ENXIO || errno == ENODEV ? os_link{} : Unknown("by number");
    const os_link link = os_link_of(name.data());
    return link.index == index || link.isUnknown ? link : os_link{};
}

os_link os_link_of(const char* ifname) noexcept {
    const std::string_view name(ifname);
    ifreq request{};
    // The kernel would take "eth0:1" for eth0.
    if (name.empty() || name.size() >= IFNAMSIZ || name.find(':') != std::string_view::npos) return {};
    std::copy(name.begin(), name.end(), request.ifr_name);
    const OwnedFd any(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));  // interfaces are asked after through any socket
    os_link link{};
    if (any.fd < 0) return Unknown(name);
    return ReadLink(any.fd, request, link) ? link : os_link{};
}

bool os_is_own_address(const std::array<uint8_t, 6>& address) noexcept {
    ifaddrs* links = nullptr;
    if (getifaddrs(&links) != 0) {
        DebugPrintF(kWarningLevel, "the device's own addresses cannot be read: %s\n", std::strerror(errno));
        return false;
    }
    bool isOwn = false;
    for (const ifaddrs* link = links; link != nullptr && !isOwn; link = link->ifa_next) {
        if (link->ifa_addr == nullptr || link->ifa_addr->sa_family != AF_PACKET) continue;
        sockaddr_ll hardware{};
        std::memcpy(&hardware, link->ifa_addr, sizeof hardware);
        isOwn = hardware.sll_halen == address.size() && std::equal(address.begin(), address.end(), hardware.sll_addr);
    }
    freeifaddrs(links);
    return isOwn;
}

os_port* os_hold_port(const char* ifname, uint16_t port) noexcept {
    auto* const held = os_new<os_port>();
    if (held == nullptr) return nullptr;
    held->fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (held->fd >= 0 && DropEverything(held->fd) && BindTo(held->fd, ifname, port)) return held;
    DebugPrintF(kWarningLevel, "[%s] UDP port %d cannot be held: %s\n", ifname, port, std::strerror(errno));
    os_release_port(held);
    return nullptr;
}

void os_release_port(os_port* port) noexcept {
    if (port == nullptr) return;
    if (port->fd >= 0) close(port->fd);
    os_delete(port);
}
