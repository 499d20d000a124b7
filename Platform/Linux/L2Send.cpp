// Link-layer sockets: the answers of one batch.
//
// Sixteen frames that came with one system call would be answered with sixteen of them. What a socket sends while its
// batch is handled is copied, and goes out at the end of the batch, in order, before anything else happens. Only one
// batch is ever under way, so that the sockets share the room for it.
#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/socket.h>

#include "L2Packet.h"

namespace {

constexpr size_t kMostKept = 16;  // frames; one more sends them first

struct Outbox {
    size_t count = 0;
    std::array<iovec, kMostKept> vectors;
    std::array<mmsghdr, kMostKept> messages;
    std::array<std::array<uint8_t, kL2MaxFrame>, kMostKept> frames;
};

Outbox outbox;

// Sends from the `first` on; how many went out, at least one when that one failed: it is lost.
size_t SendFrom(l2_packet_data* l2, size_t first) noexcept {
    const auto rest = static_cast<unsigned>(outbox.count - first);
    int sent = sendmmsg(l2->fd, &outbox.messages[first], rest, MSG_DONTWAIT);
    // The error may be that of an earlier moment, which nobody has read from the socket yet: the second try tells.
    if (sent < 0 && errno == ENETDOWN) sent = sendmmsg(l2->fd, &outbox.messages[first], rest, MSG_DONTWAIT);
    if (sent > 0) {
        L2NoteState(l2, 0);
        return static_cast<size_t>(sent);
    }
    return 1;
}

}  // namespace

int L2Defer(l2_packet_data* l2, std::span<const uint8_t> frame) noexcept {
    if (frame.size() > kL2MaxFrame) return -EMSGSIZE;
    if (outbox.count == kMostKept) L2Flush(l2);
    const size_t place = outbox.count++;
    std::copy(frame.begin(), frame.end(), outbox.frames[place].begin());
    outbox.vectors[place] = {.iov_base = outbox.frames[place].data(), .iov_len = frame.size()};
    outbox.messages[place] = {};
    outbox.messages[place].msg_hdr.msg_iov = &outbox.vectors[place];
    outbox.messages[place].msg_hdr.msg_iovlen = 1;
    return static_cast<int>(frame.size());
}

void L2Flush(l2_packet_data* l2) noexcept {
    for (size_t first = 0; first < outbox.count;) first += SendFrom(l2, first);
    outbox.count = 0;
}
