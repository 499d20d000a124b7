// Link-layer sockets: opening, filtering, sending, closing.
//
// A packet socket hears every frame from the moment it is bound until it has a filter, and what it heard stays in its
// queue. So it is made with protocol 0, which hears nothing, given a filter that drops everything, and only then bound.
// The kernel replaces a filter atomically, so the role's program takes over without a gap. (Binding a socket that was
// made with a protocol would also cost a grace period of several milliseconds.)
#include "L2Packet.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/filter.h>
#include <linux/if_arp.h>
#include <linux/if_packet.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "DebugServices.h"
#include "os_memory.h"

namespace {

constexpr int32_t kWarningLevel = 5000;
constexpr int kReceiveBuffer = 512 * 1024;  // bytes: some hundred frames, for when a whole site powers up at once
constexpr std::array<l2_filter_instruction, 1> kDropEverything{{{BPF_RET | BPF_K, 0, 0, 0}}};

// What goes before every program; what it passes, the program sees.
//
// While an interface is promiscuous (a capture runs, or it is a port of a bridge) the kernel hands over what is sent to
// other hosts as well, and marks it; older kernels hand over what this host sends. The kernel takes the VLAN tag out of
// a frame before a packet socket sees it. A frame of VLAN 0 carries only a priority and belongs to this interface; any
// other belongs to another one.
constexpr uint16_t kLoad = BPF_LD | BPF_W | BPF_ABS;
constexpr uint16_t kIsEqual = BPF_JMP | BPF_JEQ | BPF_K;
constexpr uint16_t kHasAnyBit = BPF_JMP | BPF_JSET | BPF_K;
constexpr uint32_t kVlanIdentifierMask = 0x0FFF;
constexpr uint32_t Ancillary(int32_t what) {
    return static_cast<uint32_t>(SKF_AD_OFF + what);
}
constexpr std::array<l2_filter_instruction, 8> kOnlyOurs{{
    {kLoad, 0, 0, Ancillary(SKF_AD_PKTTYPE)},
    {kIsEqual, 5, 0, PACKET_OTHERHOST},
    {kIsEqual, 4, 0, PACKET_OUTGOING},
    {kLoad, 0, 0, Ancillary(SKF_AD_VLAN_TAG_PRESENT)},
    {kIsEqual, 3, 0, 0},
    {kLoad, 0, 0, Ancillary(SKF_AD_VLAN_TAG)},
    {kHasAnyBit, 0, 1, kVlanIdentifierMask},
    {BPF_RET | BPF_K, 0, 0, 0},
}};

static_assert(sizeof(sock_filter) == sizeof(l2_filter_instruction));
static_assert(offsetof(sock_filter, jt) == offsetof(l2_filter_instruction, jt));
static_assert(offsetof(sock_filter, k) == offsetof(l2_filter_instruction, k));

// The kernel would cut a longer name, and take "eth0:1" for eth0.
bool MayBeInterfaceName(std::string_view name) noexcept {
    return !name.empty() && name.size() < IFNAMSIZ && name.find(':') == std::string_view::npos;
}

bool AttachFilter(int fd, std::span<const l2_filter_instruction> program) noexcept {
    if (program.size() > BPF_MAXINSNS) return false;
    sock_fprog attached{};
    attached.len = static_cast<unsigned short>(program.size());
    // The kernel only reads the program; its record has no const.
    attached.filter = reinterpret_cast<sock_filter*>(const_cast<l2_filter_instruction*>(program.data()));
    return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof attached) == 0;
}

// Past the system's limit (net.core.rmem_max) where the process may do that, up to it elsewhere; a smaller buffer only
// loses frames earlier.
void EnlargeReceiveBuffer(int fd) noexcept {
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer) == 0) return;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
}

// Linux has the option from 4.20 on. An older one delivers what this host sends, and the program drops it.
void IgnoreOutgoing(int fd) noexcept {
    const int on = 1;
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
}

// Reads index, address and MTU of the interface. False with errno when there is none of that name or it isn't Ethernet.
bool ReadInterface(l2_packet_data* l2, int& index) noexcept {
    ifreq request{};
    std::copy(l2->ifname.begin(), l2->ifname.end(), request.ifr_name);
    if (ioctl(l2->fd, SIOCGIFHWADDR, &request) < 0) return false;
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER) {
        errno = EMEDIUMTYPE;
        return false;
    }
    std::memcpy(l2->ownAddress.data(), request.ifr_hwaddr.sa_data, l2->ownAddress.size());
    if (ioctl(l2->fd, SIOCGIFMTU, &request) < 0) return false;
    l2->mtu = static_cast<uint32_t>(request.ifr_mtu);
    if (ioctl(l2->fd, SIOCGIFINDEX, &request) < 0) return false;
    index = request.ifr_ifindex;
    return true;
}

bool BindTo(int fd, int interfaceIndex, uint16_t protocol) noexcept {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(protocol);
    address.sll_ifindex = interfaceIndex;
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// False with errno; the descriptor is then still the record's.
bool Open(l2_packet_data* l2, uint16_t protocol) noexcept {
    l2->fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (l2->fd < 0) return false;
    EnlargeReceiveBuffer(l2->fd);
    IgnoreOutgoing(l2->fd);
    int index = 0;
    return AttachFilter(l2->fd, kDropEverything) && ReadInterface(l2, index) && BindTo(l2->fd, index, protocol);
}

// Why a socket cannot be opened, in the words of whoever has to mend it.
const char* ReasonOf(int error) noexcept {
    switch (error) {
        case ENODEV:
            return "no such interface";
        case EMEDIUMTYPE:
            return "not an Ethernet interface";
        case EPERM:
        case EACCES:
            return "no right to open raw sockets (CAP_NET_RAW)";
        case EAFNOSUPPORT:
            return "a kernel without packet sockets (CONFIG_PACKET)";
        default:
            return std::strerror(error);
    }
}

l2_packet_data* Refuse(std::string_view ifname, int error) noexcept {
    DebugPrintF(kWarningLevel, "[%s] link-layer socket cannot be opened: %s\n", ifname, ReasonOf(error));
    return nullptr;
}

}  // namespace

l2_packet_data* l2_packet_init(const char* ifname, const uint8_t*, uint16_t protocol, l2_packet_callback callback,
                               void* context, int l2Header) noexcept {
    const std::string_view name(ifname);
    if (l2Header != 1) return nullptr;
    if (!MayBeInterfaceName(name)) return Refuse(name, ENODEV);
    auto* const l2 = os_new<l2_packet_data>();
    if (l2 == nullptr) return nullptr;
    std::copy(name.begin(), name.end(), l2->ifname.begin());
    l2->callback = callback;
    l2->context = context;
    if (!Open(l2, protocol)) {
        const int error = errno;
        l2_packet_deinit(l2);
        return Refuse(name, error);
    }
    l2->source = EventLoopWatch(l2->fd, L2Receive, l2);
    return l2;
}

int l2_packet_install_filter(l2_packet_data* l2, std::span<const l2_filter_instruction> program) noexcept {
    std::array<l2_filter_instruction, kOnlyOurs.size() + kL2MaxProgram> whole;
    if (program.empty() || program.size() > kL2MaxProgram) return -1;
    const auto rest = std::copy(kOnlyOurs.begin(), kOnlyOurs.end(), whole.begin());
    std::copy(program.begin(), program.end(), rest);
    return AttachFilter(l2->fd, std::span(whole).first(kOnlyOurs.size() + program.size())) ? 0 : -1;
}

int l2_packet_get_own_addr(const l2_packet_data* l2, std::array<uint8_t, 6>& address) noexcept {
    address = l2->ownAddress;
    return 0;
}

uint32_t l2_packet_get_mtu(const l2_packet_data* l2) noexcept {
    return l2->mtu;
}

int l2_packet_send(l2_packet_data* l2, const uint8_t* destination, uint16_t protocol,
                   std::span<const uint8_t> frame) noexcept {
    if (destination != nullptr || protocol != 0) return -EINVAL;
    if (l2->receiving) return L2Defer(l2, frame);
    ssize_t sent = send(l2->fd, frame.data(), frame.size(), MSG_DONTWAIT);
    // The error may be that of an earlier moment, which nobody has read from the socket yet: the second try tells.
    if (sent < 0 && errno == ENETDOWN) sent = send(l2->fd, frame.data(), frame.size(), MSG_DONTWAIT);
    if (sent < 0) return -errno;
    L2NoteState(l2, 0);
    return static_cast<int>(sent);
}

void l2_packet_deinit(l2_packet_data* l2) noexcept {
    if (l2 == nullptr || l2->closed) return;
    EventLoopUnwatch(l2->source);
    if (l2->receiving) L2Flush(l2);
    if (l2->fd >= 0) close(l2->fd);
    l2->fd = -1;
    l2->closed = true;
    if (!l2->receiving) os_delete(l2);
}

void L2NoteState(l2_packet_data* l2, int error) noexcept {
    if (l2->lastError == error) return;
    l2->lastError = error;
    DebugPrintF(kWarningLevel, "[%s] link-layer socket: %s\n", l2->ifname.data(),
                error == 0 ? "works again" : std::strerror(error));
}
