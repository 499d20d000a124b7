// The record of an open link-layer socket, shared by its opening and its receiving side.
#pragma once

#include <net/if.h>

#include "EventLoop.h"
#include "l2_packet.h"

struct l2_packet_data {
    int fd;
    GSource* source;  // watches fd
    std::array<char, IFNAMSIZ> ifname;
    std::array<uint8_t, 6> ownAddress;
    uint32_t mtu;
    l2_packet_callback callback;
    void* context;
    int lastError;   // errno of the socket's present trouble; 0: none
    bool receiving;  // a batch of it is being handled: the record must stay
    bool closed;     // closed by a callback of that batch; freed behind it
};

// Called by the loop when frames or an error are waiting; `data` is the record.
gboolean L2Receive(gint fd, GIOCondition condition, gpointer data) noexcept;

// While a batch of frames is handled, what the socket sends is kept, and goes out with one system call at the end of
// the batch. Defer returns the frame's length, or a negative errno value. Flush sends what is kept; what fails is lost
// as it could be lost on the wire, and noted.
[[nodiscard]] int L2Defer(l2_packet_data* l2, std::span<const uint8_t> frame) noexcept;
void L2Flush(l2_packet_data* l2) noexcept;

// Notes that the socket works (0) or fails with that errno, with a log line when this is news.
void L2NoteState(l2_packet_data* l2, int error) noexcept;
