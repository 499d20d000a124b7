// Link-layer sockets: receiving.
//
// Frames are read in batches, each with a single system call, into buffers that all sockets share. One wake-up handles
// a few batches, as long as each is full; what is left in the queue waits for the loop's next pass, so a flood starves
// neither timers nor the bus. The callback may close any socket, its own included: the record stays until the batch is
// done, and the rest of the batch is dropped.
//
// What belongs to other hosts or to another VLAN, the kernel drops by the socket's program.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "L2Packet.h"
#include "LogLimit.h"
#include "os_memory.h"

namespace {

constexpr size_t kBatch = 16;  // frames
constexpr int kBatches = 4;    // of a wake-up, at most: half a millisecond of work
constexpr size_t kSourceOffset = 6;
constexpr size_t kAddressLength = 6;

// Room for a batch, with the headers that recvmmsg wants, made once.
struct Batch {
    Batch() noexcept;

    std::array<iovec, kBatch> vectors;
    std::array<mmsghdr, kBatch> messages;
    std::array<std::array<uint8_t, kL2MaxFrame>, kBatch> frames;
};

Batch::Batch() noexcept {
    for (size_t i = 0; i < kBatch; ++i) {
        vectors[i] = {.iov_base = frames[i].data(), .iov_len = frames[i].size()};
        messages[i] = {};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
}

Batch batch;

// Reads up to a batch; the number of frames, or -1 with errno.
int ReadBatch(int fd) noexcept {
    return recvmmsg(fd, batch.messages.data(), kBatch, MSG_DONTWAIT, nullptr);
}

void Deliver(const l2_packet_data* l2, std::span<const uint8_t> frame) noexcept {
    std::array<uint8_t, kAddressLength> source{};
    if (frame.size() >= kSourceOffset + kAddressLength)
        std::copy_n(frame.begin() + kSourceOffset, kAddressLength, source.begin());
    l2->callback(l2->context, source.data(), frame);
}

// False when the socket was closed meanwhile, and its record is gone.
bool HandleBatch(l2_packet_data* l2, size_t count) noexcept {
    const LogFrameScope aFrameIsHandled;
    l2->receiving = true;
    for (size_t i = 0; i < count && !l2->closed && !EventLoopIsEnding(); ++i) {
        const mmsghdr& message = batch.messages[i];
        if ((message.msg_hdr.msg_flags & MSG_TRUNC) != 0) continue;
        Deliver(l2, std::span<const uint8_t>(batch.frames[i]).first(message.msg_len));
    }
    L2Flush(l2);
    l2->receiving = false;
    if (!l2->closed) return true;
    os_delete(l2);
    return false;
}

// Reads and handles a batch; whether there may be another.
bool ReceiveBatch(l2_packet_data* l2) noexcept {
    const int count = ReadBatch(l2->fd);
    if (count < 0) {
        // Reading an error takes it off the socket, so the loop doesn't spin on it; the link may return.
        if (errno != EAGAIN && errno != EINTR) L2NoteState(l2, errno);
        return false;
    }
    L2NoteState(l2, 0);
    const auto frames = static_cast<size_t>(count);
    return HandleBatch(l2, frames) && frames == kBatch && !EventLoopIsEnding();
}

}  // namespace

gboolean L2Receive(gint, GIOCondition, gpointer data) noexcept {
    auto* const l2 = static_cast<l2_packet_data*>(data);
    for (int batches = 0; batches < kBatches && ReceiveBatch(l2); ++batches) {
    }
    return G_SOURCE_CONTINUE;
}
