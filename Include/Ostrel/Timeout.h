// Timeouts of the roles: the event loop's, with a line in the log.
//
// A timeout is identified by handler, role object and interface, an alarm by its name as well. The handler is called
// once with (role object, interface). `name` labels the log line; for an alarm (`rtc`) it is also the alarm's name. It
// may be null for an ordinary timeout.
#pragma once

#include <cstdint>

#include "eloop.h"

struct Ostrel_InterfaceObj;

// Registers one more timeout; one of the same identity stays, so both fire.
void Ostrel_SetTimeout(Ostrel_InterfaceObj* iface, void* role, int32_t seconds, int32_t milliseconds,
                       eloop_timeout_handler handler, const char* name, bool rtc);

// Cancels every timeout of the same identity, then registers it.
void Ostrel_ResetTimeout(Ostrel_InterfaceObj* iface, void* role, int32_t seconds, int32_t milliseconds,
                         eloop_timeout_handler handler, const char* name, bool rtc);

// Cancels every timeout of the same identity; harmless when there is none.
void Ostrel_CancelTimeout(Ostrel_InterfaceObj* iface, void* role, eloop_timeout_handler handler, const char* name,
                          bool rtc);

// Draws a delay from `minimum` up to but excluding `maximum`, or `minimum` when the maximum is not above it. From the C
// library's generator, which is never seeded: the sequence is the same in every run.
void Ostrel_RandomizeTimeout(uint32_t minimum, uint32_t maximum, uint32_t* result);
