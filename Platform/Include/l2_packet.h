// Link-layer sockets: raw Ethernet frames of one interface, through a classic BPF program.
//
// A socket receives nothing until a program is installed, and from then on only what the program passes: no frame is
// ever seen unfiltered. What this host sends on the interface is not received, nor a frame for another host's Ethernet
// address, nor one that carried a VLAN tag (VLAN 0, a priority tag, counts as untagged), nor one longer than
// kL2MaxFrame.
//
// When the interface goes down, frames stop and sends fail; both work again when it comes back up. When it is removed
// from the system the socket stays dead, and is closed as any other. Only l2_packet_deinit takes an absent handle; the
// others need an open one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

struct l2_packet_data;  // an open socket

constexpr size_t kL2MaxFrame = 2048;   // bytes, Ethernet header included
constexpr size_t kL2MaxProgram = 248;  // instructions

// One instruction of a classic BPF program in the layout of the Linux socket filter, all fields in host order. Offsets
// in a program count from the first byte of the Ethernet header; returning 0 drops the frame, 0xFFFFFFFF passes it.
struct l2_filter_instruction {
    uint16_t code;
    uint8_t jt;  // instructions to skip after this one when the test holds
    uint8_t jf;  // and when it doesn't
    uint32_t k;
};
static_assert(sizeof(l2_filter_instruction) == 8);

// Called from the event loop for each frame, with the context given to l2_packet_init, the source address (6 bytes) and
// the whole frame from its Ethernet header, of any length from 0 to kL2MaxFrame. Both belong to the platform and are
// valid only during the call. The callback may close the socket it was called from.
using l2_packet_callback = void (*)(void* context, const uint8_t* sourceAddress, std::span<const uint8_t> frame);

// Opens a socket on the interface `ifname`. `ownAddress` is null: the interface's address is read. `protocol` is an
// EtherType in host order, or 3 for all. `l2Header` is 1: frames are received and sent with their Ethernet header.
// Null when there is no such interface, no right to open raw sockets, or no memory; a log line says which.
[[nodiscard]] l2_packet_data* l2_packet_init(const char* ifname, const uint8_t* ownAddress, uint16_t protocol,
                                             l2_packet_callback callback, void* context, int l2Header) noexcept;

// Installs or replaces the program, without a moment in between in which other frames pass. 0, or negative when it is
// refused, because it is longer than kL2MaxProgram, or is no program, or for want of memory; the socket then keeps what
// it had.
[[nodiscard]] int l2_packet_install_filter(l2_packet_data* l2, std::span<const l2_filter_instruction> program) noexcept;

// The interface's Ethernet address, as it was when the socket was opened. 0, or negative.
int l2_packet_get_own_addr(const l2_packet_data* l2, std::array<uint8_t, 6>& address) noexcept;

// The interface's MTU in bytes, as it was when the socket was opened.
[[nodiscard]] uint32_t l2_packet_get_mtu(const l2_packet_data* l2) noexcept;

// Sends one frame. `destination` is null and `protocol` 0: the frame carries its own header. The number of bytes sent,
// or a negative errno value: ENETDOWN while the link is down, ENXIO when the interface is gone, EMSGSIZE for a frame
// above the MTU, EINVAL for less than a header, ENOBUFS or EAGAIN when the queue is full, ENOMEM. Never blocks. Without
// a carrier the kernel takes it, and drops it. What is sent from the socket's own callback goes out, in order, with the
// answers to the frames that came together with its frame: what then fails is lost as it could be lost on the wire, and
// only a frame above kL2MaxFrame is refused.
[[nodiscard]] int l2_packet_send(l2_packet_data* l2, const uint8_t* destination, uint16_t protocol,
                                 std::span<const uint8_t> frame) noexcept;

// Closes the socket. Null is ignored.
void l2_packet_deinit(l2_packet_data* l2) noexcept;
