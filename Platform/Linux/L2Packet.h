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

// Notes that the socket works (0) or fails with that errno, with a log line when this is news.
void L2NoteState(l2_packet_data* l2, int error) noexcept;
