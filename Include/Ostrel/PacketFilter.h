// A link-layer socket with its own copy of a BPF program, embedded in whoever receives through it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>

#include "Ostrel/Status.h"

#include "l2_packet.h"
#include "os_device.h"
#include "os_memory.h"

struct Ostrel_InterfaceObj;

struct Ostrel_L2Closer {
    void operator()(l2_packet_data* l2) const noexcept { l2_packet_deinit(l2); }
};

struct Ostrel_PacketFilter {
    std::unique_ptr<l2_packet_data, Ostrel_L2Closer> l2;  // null when not open
    os_array<l2_filter_instruction> bpf;                  // the program's copy; null when not open
    uint32_t bpfLength;                                   // bytes in it: 8 for each instruction
    l2_packet_callback callback;                          // called with the interface for each frame that passes it
    uint16_t heldPort;                                    // UDP, which the kernel takes for bound (portsAreHeld); or 0
    os_held_port hold;                                    // null where it could not be had
};

constexpr size_t kBPFDestinationPortInstruction = 8;  // of gBPF_DHCP

extern const std::array<l2_filter_instruction, 12> gBPF_ARP;  // ARP over Ethernet for IPv4
extern std::array<l2_filter_instruction, 11> gBPF_DHCP;       // UDP to one port, which is written in before each use

// Opens a socket on the interface, installs the program and reads the interface's address into `macAddr`; the line that
// says so is written at `logLevel`. kOutOfMemoryErr when the socket cannot be opened, kBadParamErr when the kernel
// refuses the program. After a failure the record keeps what was opened; its owner finalises it in any case.
[[nodiscard]] Ostrel_Status Ostrel_PacketFilterInitialize(Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter,
                                                          std::span<const l2_filter_instruction> program,
                                                          l2_packet_callback callback, int32_t logLevel);

// Opens the filter's socket anew, on the interface that has its name now. After a failure, as above, the filter is what
// it was. One that is not open stays so.
[[nodiscard]] Ostrel_Status Ostrel_PacketFilterReopen(Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter);

// Closes the socket and frees the program at once, as the record's end does. Harmless on a record never opened or
// already finalised.
void Ostrel_PacketFilterFinalize(Ostrel_PacketFilter* filter);

// Opens a filter for UDP to `destinationPort` (host order), as Ostrel_PacketFilterInitialize does.
[[nodiscard]] Ostrel_Status Ostrel_BOOTPPacketFilterInitialize(Ostrel_InterfaceObj* iface, Ostrel_PacketFilter* filter,
                                                               uint16_t destinationPort, l2_packet_callback callback);

// Sends what the interface's txFrame holds through the filter's socket. True only when fewer bytes went out than it
// has: a frame that the link layer refuses with an error counts as sent, and is lost as it could be lost on the wire.
// The trace, for which it is of this role, tells it as failed in either case.
[[nodiscard]] bool Ostrel_SendIsCutShort(Ostrel_InterfaceObj* iface, const Ostrel_PacketFilter* filter,
                                         const char* role);
