// The watchdog of systemd: the service manager restarts a daemon that has not notified it for a time it sets in the
// environment (sd_watchdog_enabled(3)). Half of that time is between two notifications.
#include "Watchdog.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <glib.h>

#ifdef OSTREL_HAS_SD_DAEMON
#include <systemd/sd-daemon.h>
#endif

namespace {

#ifndef OSTREL_HAS_SD_DAEMON
// Built for a system without systemd: nobody waits to be notified.
int sd_watchdog_enabled(int, uint64_t*) {
    return 0;
}
int sd_notify(int, const char*) {
    return 0;
}
#endif

GSource* source = nullptr;

gboolean Notify(gpointer) noexcept {
    (void)sd_notify(0, "WATCHDOG=1");  // one that is lost is made up for by the next
    return G_SOURCE_CONTINUE;
}

}  // namespace

void WatchdogStart() noexcept {
    uint64_t period = 0;  // microseconds
    if (source != nullptr || sd_watchdog_enabled(0, &period) <= 0) return;
    source = g_timeout_source_new(static_cast<guint>(std::clamp<uint64_t>(period / 2000, 1, UINT_MAX)));
    g_source_set_callback(source, Notify, nullptr, nullptr);
    g_source_attach(source, nullptr);
    Notify(nullptr);
}

void WatchdogStop() noexcept {
    if (source == nullptr) return;
    g_source_destroy(source);
    g_source_unref(source);
    source = nullptr;
}
