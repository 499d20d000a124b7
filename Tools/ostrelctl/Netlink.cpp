// Addresses and routes of the kernel (rtnetlink, RFC 3549).
//
// libnl builds the messages. A request is answered before the call returns: the kernel acknowledges with 0 or an errno,
// which is kept as it is, because libnl's own codes tell less.
#include "Netlink.h"

#include <cerrno>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/route.h>
#include <netlink/socket.h>
#include <utility>

namespace ostrelctl {

namespace {

struct AddressRelease {
    void operator()(rtnl_addr* address) const { rtnl_addr_put(address); }
};
struct RouteRelease {
    void operator()(rtnl_route* route) const { rtnl_route_put(route); }
};
struct LinkRelease {
    void operator()(rtnl_link* link) const { rtnl_link_put(link); }
};
struct MessageFree {
    void operator()(nl_msg* message) const { nlmsg_free(message); }
};
struct CacheFree {
    void operator()(nl_cache* cache) const { nl_cache_free(cache); }
};
struct BytesRelease {
    void operator()(nl_addr* bytes) const { nl_addr_put(bytes); }
};
using RouteAddress = std::unique_ptr<rtnl_addr, AddressRelease>;
using Route = std::unique_ptr<rtnl_route, RouteRelease>;
using Link = std::unique_ptr<rtnl_link, LinkRelease>;
using Message = std::unique_ptr<nl_msg, MessageFree>;
using Bytes = std::unique_ptr<nl_addr, BytesRelease>;

int KeepError(sockaddr_nl* /*from*/, nlmsgerr* reply, void* error) {
    *static_cast<int*>(error) = -reply->error;
    return NL_STOP;
}

// `built` is what libnl's function returned that was to make the message.
int Transact(nl_sock* socket, int built, nl_msg* made) {
    const Message message(made);
    if (built < 0) return ENOMEM;
    int error = 0;
    if (nl_socket_modify_err_cb(socket, NL_CB_CUSTOM, KeepError, &error) < 0) return ENOMEM;
    if (nl_send_auto(socket, message.get()) < 0) return EIO;
    const int answered = nl_wait_for_ack(socket);
    if (error != 0) return error;
    return answered < 0 ? EIO : 0;
}

Bytes BytesOf(Ostrel_IPv4 address, unsigned prefixLength) {
    Bytes bytes(nl_addr_build(AF_INET, &address, sizeof address));
    if (bytes != nullptr) nl_addr_set_prefixlen(bytes.get(), static_cast<int>(prefixLength));
    return bytes;
}

// Subnets of 31 and 32 bits have no broadcast address (RFC 3021).
int SetBroadcast(rtnl_addr* object, const InterfaceAddress& address) {
    if (address.prefixLength > 30) return 0;
    const Bytes broadcast = BytesOf(address.address | htonl(UINT32_MAX >> address.prefixLength), 32);
    return broadcast == nullptr ? -ENOMEM : rtnl_addr_set_broadcast(object, broadcast.get());
}

// Null when memory is out.
RouteAddress ObjectOf(const InterfaceAddress& address, unsigned index) {
    RouteAddress object(rtnl_addr_alloc());
    const Bytes local = BytesOf(address.address, address.prefixLength);
    if (object == nullptr || local == nullptr) return nullptr;
    if (rtnl_addr_set_local(object.get(), local.get()) < 0 || SetBroadcast(object.get(), address) < 0) return nullptr;
    rtnl_addr_set_ifindex(object.get(), static_cast<int>(index));
    rtnl_addr_set_scope(object.get(), address.linkScope ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE);
    rtnl_addr_set_valid_lifetime(object.get(), address.lifetime);
    rtnl_addr_set_preferred_lifetime(object.get(), address.lifetime);
    return object;
}

int PutAddress(nl_sock* socket, const InterfaceAddress& address, int flags) {
    const unsigned index = if_nametoindex(address.interface.c_str());
    if (index == 0) return ENODEV;
    const RouteAddress object = ObjectOf(address, index);
    if (object == nullptr) return ENOMEM;
    nl_msg* message = nullptr;
    const int built = rtnl_addr_build_add_request(object.get(), flags, &message);
    return Transact(socket, built, message);
}

// The route takes the next hop over.
bool SetNextHop(rtnl_route* object, const InterfaceRoute& route, unsigned index) {
    rtnl_nexthop* const hop = rtnl_route_nh_alloc();
    const Bytes router = BytesOf(route.router, 32);
    if (hop == nullptr || router == nullptr) {
        rtnl_route_nh_free(hop);
        return false;
    }
    rtnl_route_nh_set_ifindex(hop, static_cast<int>(index));
    if (route.router != kAnyIPv4) rtnl_route_nh_set_gateway(hop, router.get());
    if (route.onLink) rtnl_route_nh_set_flags(hop, RTNH_F_ONLINK);
    rtnl_route_add_nexthop(object, hop);
    return true;
}

Route ObjectOf(const InterfaceRoute& route, unsigned index) {
    Route object(rtnl_route_alloc());
    const Bytes there = BytesOf(route.destination, route.prefixLength), source = BytesOf(route.source, 32);
    if (object == nullptr || there == nullptr || source == nullptr) return nullptr;
    rtnl_route_set_family(object.get(), AF_INET);
    rtnl_route_set_table(object.get(), RT_TABLE_MAIN);
    rtnl_route_set_protocol(object.get(), RTPROT_DHCP);
    rtnl_route_set_scope(object.get(), route.router == kAnyIPv4 ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE);
    rtnl_route_set_priority(object.get(), route.metric);
    const bool set = rtnl_route_set_dst(object.get(), there.get()) >= 0 &&
                     rtnl_route_set_pref_src(object.get(), source.get()) >= 0 && SetNextHop(object.get(), route, index);
    return set ? std::move(object) : nullptr;
}

using RouteRequest = int (*)(rtnl_route* route, int flags, nl_msg** message);

int ChangeRoute(nl_sock* socket, const InterfaceRoute& route, RouteRequest build, int flags) {
    const unsigned index = if_nametoindex(route.interface.c_str());
    if (index == 0) return ENODEV;
    const Route object = ObjectOf(route, index);
    if (object == nullptr) return ENOMEM;
    nl_msg* message = nullptr;
    const int built = build(object.get(), flags, &message);
    return Transact(socket, built, message);
}

template <typename Set>
int ChangeLink(nl_sock* socket, const std::string& interface, Set set) {
    const unsigned index = if_nametoindex(interface.c_str());
    if (index == 0) return ENODEV;
    const Link link(rtnl_link_alloc()), changes(rtnl_link_alloc());
    if (link == nullptr || changes == nullptr) return ENOMEM;
    rtnl_link_set_ifindex(link.get(), static_cast<int>(index));
    set(changes.get());
    nl_msg* message = nullptr;
    const int built = rtnl_link_build_change_request(link.get(), changes.get(), 0, &message);
    return Transact(socket, built, message);
}

}  // namespace

NetlinkSocket OpenNetlink() {
    NetlinkSocket socket(nl_socket_alloc());
    if (socket != nullptr && nl_connect(socket.get(), NETLINK_ROUTE) < 0) return nullptr;
    return socket;
}

NetlinkSocket OpenNetlinkNotices() {
    NetlinkSocket socket = OpenNetlink();
    const bool joined = socket != nullptr && nl_socket_add_memberships(socket.get(), RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR,
                                                                       RTNLGRP_IPV4_ROUTE, 0) == 0;
    return joined ? std::move(socket) : nullptr;
}

int AddAddress(nl_sock* socket, const InterfaceAddress& address) {
    return PutAddress(socket, address, NLM_F_CREATE | NLM_F_EXCL);
}

int RenewAddress(nl_sock* socket, const InterfaceAddress& address) {
    return PutAddress(socket, address, NLM_F_CREATE | NLM_F_REPLACE);
}

int RemoveAddress(nl_sock* socket, const InterfaceAddress& address) {
    const unsigned index = if_nametoindex(address.interface.c_str());
    if (index == 0) return ENODEV;
    const RouteAddress object = ObjectOf(address, index);
    if (object == nullptr) return ENOMEM;
    nl_msg* message = nullptr;
    const int built = rtnl_addr_build_delete_request(object.get(), 0, &message);
    return Transact(socket, built, message);
}

// Appending leaves a route of somebody else's in place, whatever it has in common with this one; replacing would not.
int AddRoute(nl_sock* socket, const InterfaceRoute& route) {
    return ChangeRoute(socket, route, rtnl_route_build_add_request, NLM_F_CREATE | NLM_F_APPEND);
}

int RemoveRoute(nl_sock* socket, const InterfaceRoute& route) {
    return ChangeRoute(socket, route, rtnl_route_build_del_request, 0);
}

uint32_t MTUOf(nl_sock* socket, const std::string& interface) {
    rtnl_link* found = nullptr;
    if (rtnl_link_get_kernel(socket, 0, interface.c_str(), &found) < 0) return 0;
    const Link link(found);
    return rtnl_link_get_mtu(link.get());
}

int SetMTU(nl_sock* socket, const std::string& interface, uint32_t mtu) {
    return ChangeLink(socket, interface, [mtu](rtnl_link* changes) { rtnl_link_set_mtu(changes, mtu); });
}

int SetUp(nl_sock* socket, const std::string& interface) {
    return ChangeLink(socket, interface, [](rtnl_link* changes) { rtnl_link_set_flags(changes, IFF_UP); });
}

std::optional<bool> IsPermanent(nl_sock* socket, const InterfaceAddress& address) {
    nl_cache* filled = nullptr;
    if (rtnl_addr_alloc_cache(socket, &filled) < 0) return std::nullopt;
    const std::unique_ptr<nl_cache, CacheFree> cache(filled);
    const Bytes local = BytesOf(address.address, address.prefixLength);
    const int index = static_cast<int>(if_nametoindex(address.interface.c_str()));
    const RouteAddress found(rtnl_addr_get(cache.get(), index, local.get()));
    if (found == nullptr) return std::nullopt;
    return (rtnl_addr_get_flags(found.get()) & IFA_F_PERMANENT) != 0;
}

}  // namespace ostrelctl
