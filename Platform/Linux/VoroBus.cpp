// The service's life on the bus: connecting, taking the name, leaving.
//
// Connecting only starts the conversation with the bus daemon. VSGmainAttach waits for its end and for the name, both
// within kAttachTime: a bus daemon that hangs delays the start of the daemon by seconds and its end by a fraction of
// one, but never holds it. Nothing else here waits.
//
// While the name is requested incoming calls are only queued, so the first method runs from the event loop.
#include "VoroBus.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <memory>
#include <systemd/sd-bus.h>

#include "Bus.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr auto kAttachTime = std::chrono::seconds(4);        // for the connection and the name
constexpr auto kLeaveTime = std::chrono::milliseconds(300);  // for what is still to be written
constexpr uint64_t kCallTimeout = 10'000'000;                // microseconds, for questions to the bus daemon

uint64_t MicrosecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<microseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<uint64_t>(left) : 0;
}

// Handles traffic until `done` says so. 0, -ETIMEDOUT at the deadline, or what broke the connection.
template <typename Condition>
int ProcessUntil(sd_bus* bus, Clock::time_point deadline, Condition done) {
    while (!done()) {
        const int handled = sd_bus_process(bus, nullptr);
        if (handled < 0) return handled;
        if (sd_bus_is_open(bus) <= 0) return -ECONNRESET;
        const uint64_t left = MicrosecondsUntil(deadline);
        if (left == 0) return -ETIMEDOUT;
        if (handled > 0) continue;
        const int waited = sd_bus_wait(bus, left);
        if (waited < 0 && waited != -EINTR) return waited;
    }
    return 0;
}

bool TakeName(SdBusConnection& connection, Clock::time_point deadline, VSError* error) {
    sd_bus* bus = connection.bus.get();
    const uint64_t left = MicrosecondsUntil(deadline);
    if (left == 0) return BusFail(error, ETIMEDOUT, "the bus daemon does not answer");
    (void)sd_bus_set_method_call_timeout(bus, left);
    const int requested = sd_bus_request_name(bus, connection.serviceName.c_str(), 0);
    (void)sd_bus_set_method_call_timeout(bus, kCallTimeout);
    if (requested == -EEXIST) return BusFail(error, requested, "another process owns the service's name");
    if (requested < 0) return BusFail(error, requested, "the bus refuses the service's name");
    connection.nameTaken = true;
    return true;
}

// Gives the name back and lets the bus daemon read what was sent. Calls that arrive meanwhile find no object and are
// answered so; callers after them get a daemon started anew.
int Leave(SdBusConnection& connection) {
    sd_bus* bus = connection.bus.get();
    connection.objects.clear();
    bool released = !connection.nameTaken;
    BusSlot slot;
    if (connection.nameTaken) {
        sd_bus_slot* request = nullptr;
        const auto onReleased = [](sd_bus_message*, void* context, sd_bus_error*) {
            *static_cast<bool*>(context) = true;
            return 0;
        };
        const int sent =
            sd_bus_release_name_async(bus, &request, connection.serviceName.c_str(), onReleased, &released);
        if (sent < 0) return sent;
        slot.reset(request);
    }
    const auto quiet = [&] {
        uint64_t unsent = 0;
        return released && sd_bus_get_n_queued_write(bus, &unsent) >= 0 && unsent == 0;
    };
    return ProcessUntil(bus, Clock::now() + kLeaveTime, quiet);
}

}  // namespace

bool VSRegister(const char* serviceName, VSHandle** handle, VSError* error) noexcept {
    if (serviceName == nullptr) return BusFail(error, EINVAL, "not a service name");
    try {
        sd_bus* bus = nullptr;
        const int opened = sd_bus_open_system(&bus);
        if (opened < 0) return BusFail(error, opened, "the bus cannot be reached");
        auto connection = std::make_unique<SdBusConnection>(BusPointer(bus), serviceName);
        *handle = std::make_unique<VSHandle>(std::move(connection)).release();
        return true;
    } catch (...) {
        return BusFail(error, ENOMEM, "no memory for the bus connection");
    }
}

bool VSGmainAttach(VSHandle* handle, _GMainLoop* loop, VSError* error) noexcept {
    if (handle == nullptr || loop == nullptr) return BusFail(error, EINVAL, "nothing to attach");
    SdBusConnection& connection = BusOf(handle);
    if (connection.source != nullptr) return BusFail(error, EALREADY, "the bus is attached");
    const auto deadline = Clock::now() + kAttachTime;
    sd_bus* bus = connection.bus.get();
    const int ready = ProcessUntil(bus, deadline, [bus] { return sd_bus_is_ready(bus) > 0; });
    if (ready < 0) return BusFail(error, ready, "the bus daemon does not let us in");
    if (!TakeName(connection, deadline, error)) return false;
    connection.source = BusSourceAttach(handle, g_main_loop_get_context(loop));
    return true;
}

bool VSUnregister(VSHandle* handle, VSError* error) noexcept {
    if (handle == nullptr) return BusFail(error, EINVAL, "the service is not registered");
    const std::unique_ptr<VSHandle> owner(handle);
    SdBusConnection& connection = BusOf(handle);
    BusSourceDestroy(connection.source);
    handle->cancelFunction = nullptr;
    const bool open = !connection.lost && sd_bus_is_open(connection.bus.get()) > 0;
    const int left = open ? Leave(connection) : -ECONNRESET;
    sd_bus_close(connection.bus.get());
    if (left >= 0 || left == -ETIMEDOUT) return true;
    return BusFail(error, left, "the bus connection was lost");
}
