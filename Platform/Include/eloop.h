// The event loop: every callback of the process runs in it, one at a time, on one thread.
//
// A timeout is identified by its handler and its two contexts. Timeouts fire in the order of their deadlines, those
// with the same deadline in the order of their registration; one registered from a callback fires on a later pass of
// the loop, even with a delay of 0. A timeout fires once: a handler that wants to run again registers itself again.
#pragma once

#include <cstdint>

struct VSHandle;
struct _GMainLoop;  // GLib's own name for GMainLoop

using eloop_timeout_handler = void (*)(void* context1, void* context2);
using eloop_signal_handler = void (*)(int signal, void* loopContext, void* handlerContext);

// The longest delay the loop takes, in seconds; a longer one is cut to it.
constexpr uint32_t kEloopMaxSeconds = INT32_MAX;

// Makes the loop. `loopContext` is handed to the signal handler. From here to the end of the process SIGTERM and
// SIGINT are blocked: one that arrives before a handler is registered waits for it. 0, or -1 when the system refuses.
[[nodiscard]] int eloop_init(void* loopContext) noexcept;

// Runs callbacks until eloop_terminate, which may have been called before. Returns after the current callback.
void eloop_run() noexcept;
void eloop_terminate() noexcept;

// Drops every timeout and alarm and releases the loop. Cancelling afterwards is harmless and removes nothing;
// registering afterwards fails. Link-layer sockets and the bus handle may be closed before or after it.
void eloop_destroy() noexcept;

// Calls `handler` from the loop, never in signal context, for each SIGTERM and SIGINT. 0 or -1.
[[nodiscard]] int eloop_register_signal_terminate(eloop_signal_handler handler, void* handlerContext) noexcept;

// Fires after `seconds` and `milliseconds`, counted on the monotonic clock, which stands still while the device is
// suspended. 0, or -1 when there is no loop or no memory. Registering the same identity again adds a second timeout.
int eloop_register_timeout(uint32_t seconds, uint32_t milliseconds, eloop_timeout_handler handler, void* context1,
                           void* context2) noexcept;

// Cancels every timeout of that identity; the number removed.
int eloop_cancel_timeout(eloop_timeout_handler handler, void* context1, void* context2) noexcept;

// A named real-time-clock alarm: as a timeout, but its clock goes on while the device is suspended, and it wakes the
// device where the process may do so (CAP_WAKE_ALARM). The name is copied and is part of the identity.
int eloop_register_timeout_rtc(uint32_t seconds, uint32_t milliseconds, const char* alarmName,
                               eloop_timeout_handler handler, void* context1, void* context2) noexcept;
int eloop_cancel_timeout_rtc(const char* alarmName, eloop_timeout_handler handler, void* context1,
                             void* context2) noexcept;

// Tells the alarm service under which service the alarms are named; where the device's alarms hang on the bus, on which
// handle. 0 or -1.
int eloop_register_rtc_alarms(VSHandle* handle, const char* serviceName) noexcept;

// The GLib main loop under the event loop, for VSGmainAttach; null when there is no loop. Owned by the event loop.
[[nodiscard]] _GMainLoop* eloop_get_gnome_loop() noexcept;
