// The bus connection as a source of the event loop.
//
// Before the loop sleeps it asks sd-bus what it waits for (descriptor, events, deadline) and hands that to poll; with
// nothing outstanding that is only the next incoming byte. A pass handles a bounded number of messages, so a flood of
// calls leaves room for timers and frames.
//
// A connection that broke is noticed here and nowhere else: one line, and the loop ends.
#include <algorithm>
#include <climits>
#include <glib.h>
#include <poll.h>
#include <systemd/sd-bus.h>

#include "Bus.h"
#include "DebugServices.h"
#include "eloop.h"

namespace {

constexpr int kMessagesPerPass = 16;

static_assert(static_cast<int>(G_IO_IN) == POLLIN && static_cast<int>(G_IO_OUT) == POLLOUT);

struct BusSource {
    GSource base;
    GPollFD descriptor;
    VSHandle* handle;
};

BusSource* Self(GSource* base) {
    return reinterpret_cast<BusSource*>(base);
}

// The time until sd-bus wants to run, in milliseconds: -1 for never; 0 as well when the connection broke.
gint MillisecondsToWait(GSource* base) {
    uint64_t deadline = 0;  // microseconds on the monotonic clock
    if (sd_bus_get_timeout(Self(base)->handle->bus.get(), &deadline) < 0) return 0;
    if (deadline == UINT64_MAX) return -1;
    const auto now = static_cast<uint64_t>(g_source_get_time(base));
    if (deadline <= now) return 0;
    return static_cast<gint>(std::min<uint64_t>((deadline - now + 999) / 1000, INT_MAX));
}

gboolean Prepare(GSource* base, gint* timeout) {
    BusSource* self = Self(base);
    const int events = sd_bus_get_events(self->handle->bus.get());
    *timeout = events < 0 ? 0 : MillisecondsToWait(base);
    self->descriptor.events = static_cast<gushort>(std::max(events, 0));
    return *timeout == 0;
}

gboolean Check(GSource* base) {
    return Self(base)->descriptor.revents != 0 || MillisecondsToWait(base) == 0;
}

gboolean Lose(VSHandle* handle) {
    DebugPrintF(kBusErrorLevel, "%s: the bus connection is lost\n", __func__);
    handle->lost = true;
    eloop_terminate();
    return G_SOURCE_REMOVE;
}

gboolean Dispatch(GSource* base, GSourceFunc, gpointer) {
    VSHandle* handle = Self(base)->handle;
    sd_bus* bus = handle->bus.get();
    for (int i = 0; i < kMessagesPerPass; ++i) {
        const int handled = sd_bus_process(bus, nullptr);
        if (handled < 0 || sd_bus_is_open(bus) <= 0) return Lose(handle);
        if (handled == 0) break;
    }
    return G_SOURCE_CONTINUE;
}

GSourceFuncs gSourceFunctions = {Prepare, Check, Dispatch, nullptr, nullptr, nullptr};

}  // namespace

GSource* BusSourceAttach(VSHandle* handle, GMainContext* context) noexcept {
    GSource* source = g_source_new(&gSourceFunctions, sizeof(BusSource));
    BusSource* self = Self(source);
    self->handle = handle;
    self->descriptor.fd = sd_bus_get_fd(handle->bus.get());
    g_source_set_name(source, "bus");
    g_source_add_poll(source, &self->descriptor);
    (void)g_source_attach(source, context);
    return source;
}

void BusSourceDestroy(GSource* source) noexcept {
    if (source == nullptr) return;
    g_source_destroy(source);
    g_source_unref(source);
}
