// Link-layer sockets: receiving.
//
// One wake-up handles one batch of frames, read with a single system call into buffers that all sockets share; what is
// left in the queue waits for the loop's next pass, so a flood starves neither timers nor the bus. The callback may
// close any socket, its own included: the record stays until the batch is done, and the rest of the batch is dropped.
//
// The kernel takes the VLAN tag out of a frame before a packet socket sees it and hands it over beside the frame. A
// frame of VLAN 0 carries only a priority and belongs to this interface; any other belongs to another one.
//
// While an interface is promiscuous (a capture runs, or it is a port of a bridge) the kernel hands over what is sent to
// other hosts as well, and marks it; older kernels hand over what this host sends.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include "L2Packet.h"
#include "LogLimit.h"
#include "os_memory.h"

namespace {

constexpr size_t kBatch = 16;  // frames
constexpr uint16_t kVlanIdentifierMask = 0x0FFF;
constexpr size_t kSourceOffset = 6;
constexpr size_t kAddressLength = 6;

struct Slot {
    sockaddr_ll from;
    alignas(cmsghdr) std::array<uint8_t, CMSG_SPACE(sizeof(tpacket_auxdata))> control;
    std::array<uint8_t, kL2MaxFrame> frame;
};

std::array<Slot, kBatch> slots;

// Reads up to a batch; the number of frames, or -1 with errno.
int ReadBatch(int fd, std::array<mmsghdr, kBatch>& messages) noexcept {
    std::array<iovec, kBatch> vectors;
    for (size_t i = 0; i < kBatch; ++i) {
        vectors[i] = {.iov_base = slots[i].frame.data(), .iov_len = slots[i].frame.size()};
        messages[i] = {};
        messages[i].msg_hdr.msg_name = &slots[i].from;
        messages[i].msg_hdr.msg_namelen = sizeof slots[i].from;
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_control = slots[i].control.data();
        messages[i].msg_hdr.msg_controllen = slots[i].control.size();
    }
    const int count = recvmmsg(fd, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
    for (mmsghdr& message : messages) message.msg_hdr.msg_iov = nullptr;
    return count;
}

bool IsOfAnotherVlan(const msghdr& header) noexcept {
    for (const cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr;
         part = CMSG_NXTHDR(const_cast<msghdr*>(&header), const_cast<cmsghdr*>(part))) {
        if (part->cmsg_level != SOL_PACKET || part->cmsg_type != PACKET_AUXDATA) continue;
        tpacket_auxdata auxiliary{};
        std::memcpy(&auxiliary, CMSG_DATA(part), sizeof auxiliary);
        return (auxiliary.tp_status & TP_STATUS_VLAN_VALID) != 0 && (auxiliary.tp_vlan_tci & kVlanIdentifierMask) != 0;
    }
    return false;
}

bool IsForThisHost(const sockaddr_ll& from) noexcept {
    return from.sll_pkttype != PACKET_OTHERHOST && from.sll_pkttype != PACKET_OUTGOING;
}

void Deliver(const l2_packet_data* l2, std::span<const uint8_t> frame) noexcept {
    std::array<uint8_t, kAddressLength> source{};
    if (frame.size() >= kSourceOffset + kAddressLength)
        std::copy_n(frame.begin() + kSourceOffset, kAddressLength, source.begin());
    l2->callback(l2->context, source.data(), frame);
}

void HandleBatch(l2_packet_data* l2, std::span<const mmsghdr> messages) noexcept {
    const LogFrameScope aFrameIsHandled;
    l2->receiving = true;
    for (size_t i = 0; i < messages.size() && !l2->closed && !EventLoopIsEnding(); ++i) {
        const msghdr& header = messages[i].msg_hdr;
        if ((header.msg_flags & MSG_TRUNC) != 0 || !IsForThisHost(slots[i].from) || IsOfAnotherVlan(header)) continue;
        Deliver(l2, std::span<const uint8_t>(slots[i].frame).first(messages[i].msg_len));
    }
    l2->receiving = false;
    if (l2->closed) os_delete(l2);
}

}  // namespace

gboolean L2Receive(gint fd, GIOCondition, gpointer data) noexcept {
    auto* const l2 = static_cast<l2_packet_data*>(data);
    std::array<mmsghdr, kBatch> messages;
    const int count = ReadBatch(fd, messages);
    if (count < 0) {
        // Reading an error takes it off the socket, so the loop doesn't spin on it; the link may return.
        if (errno != EAGAIN && errno != EINTR) L2NoteState(l2, errno);
        return G_SOURCE_CONTINUE;
    }
    L2NoteState(l2, 0);
    HandleBatch(l2, std::span<const mmsghdr>(messages).first(static_cast<size_t>(count)));
    return G_SOURCE_CONTINUE;
}
