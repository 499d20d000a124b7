// What happens to the device beside frames: its links come and go, it sleeps and wakes up.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

struct os_link {
    bool isThere;    // there is an interface of this name, or the rest is zero
    bool isUnknown;  // the kernel could not be asked, for want of memory or descriptors; isThere is false then
    bool isRunning;  // it is up and has carrier
    int32_t index;   // the kernel's number, which changes when an interface is taken out and put back, not by renaming
    std::array<uint8_t, 6> address;
    std::array<char, 17> name;  // NUL-terminated
};

// The link as it is now, by name or by number. One that no interface has is no failure. Where the kernel could not be
// asked a log line says why, and nothing is told when it could be asked again.
[[nodiscard]] os_link os_link_of(const char* ifname) noexcept;
[[nodiscard]] os_link os_link_at(int32_t index) noexcept;

// Whether an Ethernet address is that of one of the device's own interfaces, whatever its state; no, where the kernel
// could not be asked, and a log line says so. Asks the kernel each time, so it is for rare moments.
[[nodiscard]] bool os_is_own_address(const std::array<uint8_t, 6>& address) noexcept;

struct os_device_watcher {
    // Something about the link has changed, and `ifname` is what it is called now: os_link_of tells what it is now.
    // Called from the event loop; several changes may come as one, and one as several. Index 0 with an empty name: so
    // much has changed that the kernel could not keep it, and any link may be concerned.
    void (*linkChanged)(void* context, int32_t index, const char* ifname);
    // The device was suspended and is awake again; alarms that were due meanwhile have not fired yet.
    void (*wokeUp)(void* context);
    void* context;
};

// Begins to tell one watcher, in place of the one before. 0, or -1 when the kernel gives no socket or timer for it; a
// log line says why, and what can be told is told. Needs the event loop, and ends with it.
int os_watch_device(const os_device_watcher& watcher) noexcept;
void os_unwatch_device() noexcept;

// A UDP port that the kernel takes for bound, so that it doesn't answer datagrams to it with an ICMP error. Nothing is
// received through it. Null when the port cannot be had; a log line says why.
struct os_port;
[[nodiscard]] os_port* os_hold_port(const char* ifname, uint16_t port) noexcept;
void os_release_port(os_port* port) noexcept;  // null is ignored

struct os_port_releaser {
    void operator()(os_port* port) const noexcept { os_release_port(port); }
};
using os_held_port = std::unique_ptr<os_port, os_port_releaser>;
