// Timeouts of the roles: the event loop's, with a line in the log.
//
// A timeout is identified by handler, role object and interface, an alarm by its name as well. The handler is called
// once with (role object, interface). `name` labels the log line; for an alarm (`rtc`) it is also the alarm's name. It
// may be null for an ordinary timeout.
//
// A timeout that cannot be registered, for want of memory or of the kernel's timer, ends the process: its role would
// wait for it for ever.
#pragma once

#include <cstdint>
#include <span>

#include "eloop.h"

struct Ostrel_InterfaceObj;

// A timeout as its role's table has it. The bounds are of the delay that the role chooses: the same number twice where
// it is fixed, 0 and 0 where only a lease or a reply says how long.
struct Ostrel_TimeoutKind {
    eloop_timeout_handler handler;
    const char* name;
    bool rtc;           // an alarm, which wakes a suspended device
    uint32_t shortest;  // milliseconds
    uint32_t longest;
};

// Arm registers one more timeout: one of the same identity stays, so both fire. Rearm first cancels every one of the
// same identity. Disarm cancels them, and is harmless where there is none. A delay beyond what the event loop takes is
// cut to that: 68 years are for ever.
void Ostrel_ArmTimeout(Ostrel_InterfaceObj* iface, void* role, const Ostrel_TimeoutKind& kind, uint64_t milliseconds);
void Ostrel_RearmTimeout(Ostrel_InterfaceObj* iface, void* role, const Ostrel_TimeoutKind& kind, uint64_t milliseconds);
void Ostrel_DisarmTimeout(Ostrel_InterfaceObj* iface, void* role, const Ostrel_TimeoutKind& kind);
void Ostrel_DisarmTimeouts(Ostrel_InterfaceObj* iface, void* role, std::span<const Ostrel_TimeoutKind> kinds);

// The same for one timeout spelt out; `milliseconds` is what there is beside whole seconds.
void Ostrel_SetTimeout(Ostrel_InterfaceObj* iface, void* role, int32_t seconds, int32_t milliseconds,
                       eloop_timeout_handler handler, const char* name, bool rtc);
void Ostrel_ResetTimeout(Ostrel_InterfaceObj* iface, void* role, int32_t seconds, int32_t milliseconds,
                         eloop_timeout_handler handler, const char* name, bool rtc);
void Ostrel_CancelTimeout(Ostrel_InterfaceObj* iface, void* role, eloop_timeout_handler handler, const char* name,
                          bool rtc);

// Draws a delay from `minimum` up to but excluding `maximum`, or `minimum` when the maximum is not above it. From the C
// library's generator, which is never seeded: the sequence is the same in every run.
void Ostrel_RandomizeTimeout(uint32_t minimum, uint32_t maximum, uint32_t* result);

// The same by a role's rules: from the device's entropy where it is secret.
[[nodiscard]] uint32_t Ostrel_DrawTimeout(bool isSecret, uint32_t minimum, uint32_t maximum);
