// Addresses and routes of the kernel (rtnetlink, RFC 3549).
#pragma once

#include <cstdint>
#include <memory>
#include <netlink/netlink.h>
#include <optional>
#include <string>

#include "Ostrel/Address.h"

namespace ostrelctl {

struct NetlinkClose {
    void operator()(nl_sock* socket) const { nl_socket_free(socket); }
};
using NetlinkSocket = std::unique_ptr<nl_sock, NetlinkClose>;

constexpr uint32_t kEndlessLifetime = 0xFFFFFFFF;  // what the kernel calls for ever

struct InterfaceAddress {
    std::string interface;
    Ostrel_IPv4 address;
    unsigned prefixLength;
    uint32_t lifetime;  // seconds from now, after which the kernel removes the address by itself
    bool linkScope;     // not to be used beyond the link: link-local addresses
};

// Marked as learnt by DHCP. The kernel removes it together with its source address.
struct InterfaceRoute {
    std::string interface;
    Ostrel_IPv4 destination;
    unsigned prefixLength;
    Ostrel_IPv4 router;  // kAnyIPv4: the destination is on the link
    Ostrel_IPv4 source;
    uint32_t metric;
    bool onLink;  // the router is outside the address's subnet, but can be reached all the same
};

// Null when memory or file descriptors are out.
[[nodiscard]] NetlinkSocket OpenNetlink();

// Its descriptor can be read whenever a link, an IPv4 address or an IPv4 route has changed; null as above.
[[nodiscard]] NetlinkSocket OpenNetlinkNotices();

// Each is done when it returns, with 0, or with an errno: ENODEV without the interface, EPERM without CAP_NET_ADMIN.
// Adding gives EEXIST when the address, or exactly this route, is there, and changes nothing then. Removing gives
// EADDRNOTAVAIL for no such address, and ESRCH for no such route. Renewing gives an address a new lifetime.
[[nodiscard]] int AddAddress(nl_sock* socket, const InterfaceAddress& address);
[[nodiscard]] int RenewAddress(nl_sock* socket, const InterfaceAddress& address);
[[nodiscard]] int RemoveAddress(nl_sock* socket, const InterfaceAddress& address);
[[nodiscard]] int AddRoute(nl_sock* socket, const InterfaceRoute& route);
[[nodiscard]] int RemoveRoute(nl_sock* socket, const InterfaceRoute& route);

// Whether an address that is there was put there without end; nothing when that can't be told.
[[nodiscard]] std::optional<bool> IsPermanent(nl_sock* socket, const InterfaceAddress& address);

// Bytes that a frame of the interface may carry; 0 when that can't be told. Setting gives 0 or an errno.
[[nodiscard]] uint32_t MTUOf(nl_sock* socket, const std::string& interface);
// Sets the interface up; one that is up stays so.
[[nodiscard]] int SetUp(nl_sock* socket, const std::string& interface);
[[nodiscard]] int SetMTU(nl_sock* socket, const std::string& interface, uint32_t mtu);

}  // namespace ostrelctl
