// The bus connection as a source of the event loop.
//
// Before the loop sleeps it asks sd-bus what it waits for (descriptor, events, deadline) and hands that to poll; with
// nothing outstanding that is only the next incoming byte. A pass handles a bounded number of messages within a bounded
// time, so a flood of calls, or calls that are much work, leave room for timers and frames.
//
// A connection that broke is noticed here and nowhere else: one line, and the loop ends. A message that cannot be read
// for want of memory, say, is not that: it is tried again after a pause.
#include <algorithm>
#include <climits>
#include <cstring>
#include <glib.h>
#include <poll.h>
#include <systemd/sd-bus.h>

#include "Bus.h"
#include "DebugServices.h"
#include "EventLoop.h"
#include "eloop.h"

namespace {

constexpr int kMessagesPerPass = 16;
constexpr gint64 kPassTime = 5000;      // microseconds, after which no further message is begun
constexpr gint64 kPauseTime = 200'000;  // microseconds, after something failed

static_assert(static_cast<int>(G_IO_IN) == POLLIN && static_cast<int>(G_IO_OUT) == POLLOUT);

struct BusSource {
    GSource base;
    GPollFD descriptor;
    VSHandle* handle;
    gint64 pausedUntil;  // on the monotonic clock
    bool failing;        // since the last message that was handled
};

BusSource* Self(GSource* base) {
    return reinterpret_cast<BusSource*>(base);
}

// The time until sd-bus wants to run, in milliseconds: -1 for never; 0 as well when the connection broke.
gint MillisecondsToWait(GSource* base) {
    uint64_t deadline = static_cast<uint64_t>(Self(base)->pausedUntil);  // microseconds on the monotonic clock
    const auto now = static_cast<uint64_t>(g_source_get_time(base));
    if (deadline <= now && sd_bus_get_timeout(BusOf(Self(base)->handle).bus.get(), &deadline) < 0) return 0;
    if (deadline == UINT64_MAX) return -1;
    if (deadline <= now) return 0;
    return static_cast<gint>(std::min<uint64_t>((deadline - now + 999) / 1000, INT_MAX));
}

gboolean Prepare(GSource* base, gint* timeout) {
    BusSource* self = Self(base);
    const bool paused = self->pausedUntil > g_source_get_time(base);
    const int events = paused ? 0 : sd_bus_get_events(BusOf(self->handle).bus.get());
    *timeout = events < 0 ? 0 : MillisecondsToWait(base);
    self->descriptor.events = static_cast<gushort>(std::max(events, 0));
    return *timeout == 0;
}

gboolean Check(GSource* base) {
    return Self(base)->descriptor.revents != 0 || MillisecondsToWait(base) == 0;
}

gboolean Lose(VSHandle* handle) {
    DebugPrintF(kBusErrorLevel, "%s: the bus connection is lost\n", __func__);
    BusOf(handle).lost = true;
    eloop_terminate();
    return G_SOURCE_REMOVE;
}

void Pause(BusSource* self, int failure) {
    if (!self->failing) DebugPrintF(kBusErrorLevel, "%s: a message cannot be read: %s\n", __func__, strerror(-failure));
    self->failing = true;
    self->pausedUntil = g_get_monotonic_time() + kPauseTime;
}

gboolean Dispatch(GSource* base, GSourceFunc, gpointer) {
    BusSource* self = Self(base);
    sd_bus* bus = BusOf(self->handle).bus.get();
    const gint64 end = g_get_monotonic_time() + kPassTime;
    for (int i = 0; i < kMessagesPerPass && !EventLoopIsEnding() && g_get_monotonic_time() < end; ++i) {
        const int handled = sd_bus_process(bus, nullptr);
        if (sd_bus_is_open(bus) <= 0) return Lose(self->handle);
        if (handled < 0 && (self->descriptor.revents & (G_IO_HUP | G_IO_ERR)) != 0) return Lose(self->handle);
        if (handled < 0) {
            Pause(self, handled);
            break;
        }
        self->failing = false;
        if (handled > 0) continue;
        BusCameToRest(self->handle);
        break;
    }
    return G_SOURCE_CONTINUE;
}

GSourceFuncs gSourceFunctions = {Prepare, Check, Dispatch, nullptr, nullptr, nullptr};

}  // namespace

GSource* BusSourceAttach(VSHandle* handle, GMainContext* context) noexcept {
    GSource* source = g_source_new(&gSourceFunctions, sizeof(BusSource));
    BusSource* self = Self(source);
    self->handle = handle;
    self->pausedUntil = 0;
    self->failing = false;
    self->descriptor.fd = sd_bus_get_fd(BusOf(handle).bus.get());
    g_source_set_name(source, "bus");
    EventLoopRunsFlat(source);
    g_source_add_poll(source, &self->descriptor);
    (void)g_source_attach(source, context);
    return source;
}

void BusSourceDestroy(GSource* source) noexcept {
    if (source == nullptr) return;
    g_source_destroy(source);
    g_source_unref(source);
}
