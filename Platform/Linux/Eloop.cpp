// The event loop: a GLib main loop on the default context.
//
// Plain timeouts share one source. It tells the loop, before each poll, how long the first of them may wait, so that
// registering and cancelling are no system calls and an idle loop sleeps until something is due. Alarms hang on one
// timerfd that is set to the first of them. SIGTERM and SIGINT are blocked for good and read from a signalfd: the
// facility GLib has for signals would start a thread, and this process has one.
#include "eloop.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "DeviceWatch.h"
#include "EventLoop.h"
#include "TimeoutQueue.h"
#include "Watchdog.h"
#include "os_device.h"

namespace {

constexpr int64_t kMicroseconds = 1'000'000;  // in a second
constexpr int64_t kNever = -1;

struct Loop {
    GMainLoop* main = nullptr;  // null: there is no loop
    bool ending = false;
    void* context = nullptr;

    TimeoutQueue timeouts;  // deadlines on CLOCK_MONOTONIC
    GSource* timeoutSource = nullptr;

    TimeoutQueue alarms;  // deadlines on CLOCK_BOOTTIME
    int alarmFd = -1;
    int64_t armed = kNever;  // the deadline alarmFd is set to
    GSource* alarmSource = nullptr;

    int signalFd = -1;
    GSource* signalSource = nullptr;
    eloop_signal_handler signalHandler = nullptr;
    void* signalContext = nullptr;
};

Loop loop;

int64_t BootTime() noexcept {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return int64_t{now.tv_sec} * kMicroseconds + now.tv_nsec / 1000;
}

gboolean PrepareTimeouts(GSource* source, gint* pollMilliseconds) noexcept {
    *pollMilliseconds = -1;
    const std::optional<int64_t> next = loop.timeouts.NextDeadline();
    if (!next) return FALSE;
    const int64_t wait = std::max<int64_t>(*next - g_source_get_time(source), 0);
    *pollMilliseconds = static_cast<gint>(std::min<int64_t>((wait + 999) / 1000, INT32_MAX));
    return wait == 0 ? TRUE : FALSE;
}

gboolean CheckTimeouts(GSource* source) noexcept {
    const std::optional<int64_t> next = loop.timeouts.NextDeadline();
    return next && *next <= g_source_get_time(source) ? TRUE : FALSE;
}

gboolean DispatchTimeouts(GSource*, GSourceFunc, gpointer) noexcept {
    loop.timeouts.RunPass(g_get_monotonic_time(), loop.ending);
    return G_SOURCE_CONTINUE;
}

GSourceFuncs timeoutFunctions{PrepareTimeouts, CheckTimeouts, DispatchTimeouts, nullptr, nullptr, nullptr};

// Sets the alarm clock to the first alarm, or stops it. 0 or -1.
int ArmAlarmClock() noexcept {
    const int64_t next = loop.alarms.NextDeadline().value_or(kNever);
    if (next == loop.armed) return 0;
    itimerspec setting{};
    if (next != kNever) {
        setting.it_value.tv_sec = static_cast<time_t>(next / kMicroseconds);
        setting.it_value.tv_nsec = static_cast<long>(next % kMicroseconds * 1000);
    }
    if (timerfd_settime(loop.alarmFd, TFD_TIMER_ABSTIME, &setting, nullptr) < 0) return -1;
    loop.armed = next;
    return 0;
}

gboolean DispatchAlarms(gint fd, GIOCondition, gpointer) noexcept {
    uint64_t expirations = 0;
    if (read(fd, &expirations, sizeof expirations) == sizeof expirations) loop.armed = kNever;
    DeviceWatchTellIfWoken();
    loop.alarms.RunPass(BootTime(), loop.ending);
    if (loop.main != nullptr) ArmAlarmClock();
    return G_SOURCE_CONTINUE;
}

gboolean DispatchSignals(gint fd, GIOCondition, gpointer) noexcept {
    signalfd_siginfo info{};
    while (!loop.ending && read(fd, &info, sizeof info) == sizeof info)
        loop.signalHandler(static_cast<int>(info.ssi_signo), loop.context, loop.signalContext);
    return G_SOURCE_CONTINUE;
}

// A clock that wakes a suspended device, where the process may have one.
int OpenAlarmClock() noexcept {
    const int fd = timerfd_create(CLOCK_BOOTTIME_ALARM, TFD_NONBLOCK | TFD_CLOEXEC);
    return fd >= 0 ? fd : timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC);
}

int OpenSignals() noexcept {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) < 0) return -1;
    return signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

void CloseFd(int& fd) noexcept {
    if (fd >= 0) close(fd);
    fd = -1;
}

}  // namespace

// Nothing here runs the loop from within a callback. GLib guards each source against that all the same, at the price of
// three system calls a callback, unless it is told that the source allows it.
void EventLoopRunsFlat(GSource* source) noexcept {
    g_source_set_can_recurse(source, TRUE);
}

GSource* EventLoopWatch(int fd, GUnixFDSourceFunc callback, void* data, GIOCondition condition) noexcept {
    GSource* const source = g_unix_fd_source_new(fd, static_cast<GIOCondition>(condition | G_IO_ERR | G_IO_HUP));
    g_source_set_callback(source, G_SOURCE_FUNC(callback), data, nullptr);
    EventLoopRunsFlat(source);
    g_source_attach(source, nullptr);
    return source;
}

void EventLoopUnwatch(GSource*& source) noexcept {
    if (source == nullptr) return;
    g_source_destroy(source);
    g_source_unref(source);
    source = nullptr;
}

bool EventLoopIsEnding() noexcept {
    return loop.ending;
}

int eloop_init(void* loopContext) noexcept {
    if (loop.main != nullptr) return -1;
    loop.signalFd = OpenSignals();
    loop.alarmFd = OpenAlarmClock();
    if (loop.signalFd < 0 || loop.alarmFd < 0) {
        CloseFd(loop.signalFd);
        CloseFd(loop.alarmFd);
        return -1;
    }
    loop.ending = false;
    loop.context = loopContext;
    loop.main = g_main_loop_new(nullptr, FALSE);
    loop.timeoutSource = g_source_new(&timeoutFunctions, sizeof(GSource));
    EventLoopRunsFlat(loop.timeoutSource);
    g_source_attach(loop.timeoutSource, nullptr);
    loop.alarmSource = EventLoopWatch(loop.alarmFd, DispatchAlarms, nullptr);
    return 0;
}

void eloop_run() noexcept {
    if (loop.main == nullptr || loop.ending) return;
    WatchdogStart();
    g_main_loop_run(loop.main);
    WatchdogStop();
}

void eloop_terminate() noexcept {
    if (loop.main == nullptr) return;
    loop.ending = true;
    g_main_loop_quit(loop.main);
}

void eloop_destroy() noexcept {
    eloop_terminate();
    os_unwatch_device();
    loop.timeouts.Clear();
    loop.alarms.Clear();
    EventLoopUnwatch(loop.timeoutSource);
    EventLoopUnwatch(loop.alarmSource);
    EventLoopUnwatch(loop.signalSource);
    CloseFd(loop.alarmFd);
    CloseFd(loop.signalFd);
    loop.armed = kNever;
    if (loop.main != nullptr) g_main_loop_unref(loop.main);
    loop.main = nullptr;
}

int eloop_register_signal_terminate(eloop_signal_handler handler, void* handlerContext) noexcept {
    if (loop.main == nullptr) return -1;
    loop.signalHandler = handler;
    loop.signalContext = handlerContext;
    if (loop.signalSource == nullptr) loop.signalSource = EventLoopWatch(loop.signalFd, DispatchSignals, nullptr);
    return 0;
}

int eloop_register_timeout(uint32_t seconds, uint32_t milliseconds, eloop_timeout_handler handler, void* context1,
                           void* context2) noexcept {
    if (loop.main == nullptr) return -1;
    const int64_t deadline = g_get_monotonic_time() + TimeoutDelay(seconds, milliseconds);
    return loop.timeouts.Add(deadline, handler, context1, context2) ? 0 : -1;
}

int eloop_cancel_timeout(eloop_timeout_handler handler, void* context1, void* context2) noexcept {
    return loop.timeouts.Cancel(handler, context1, context2);
}

int eloop_register_timeout_rtc(uint32_t seconds, uint32_t milliseconds, const char* alarmName,
                               eloop_timeout_handler handler, void* context1, void* context2) noexcept {
    if (loop.main == nullptr) return -1;
    const int64_t deadline = BootTime() + TimeoutDelay(seconds, milliseconds);
    if (!loop.alarms.Add(deadline, handler, context1, context2, alarmName)) return -1;
    return ArmAlarmClock();
}

int eloop_cancel_timeout_rtc(const char* alarmName, eloop_timeout_handler handler, void* context1,
                             void* context2) noexcept {
    const int removed = loop.alarms.Cancel(handler, context1, context2, alarmName);
    if (removed > 0) ArmAlarmClock();
    return removed;
}

// The device's alarms are a timerfd of this process: nobody needs to be told about them.
int eloop_register_rtc_alarms(VSHandle*, const char*) noexcept {
    return loop.main == nullptr ? -1 : 0;
}

GMainLoop* eloop_get_gnome_loop() noexcept {
    return loop.main;
}
