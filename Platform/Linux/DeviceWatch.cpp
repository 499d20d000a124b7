// Links that change, and a device that wakes up.
//
// Links: a routing socket in the group of link messages. Of a message only index and name are read; what the link is
// now is asked for by who is told, so that it doesn't matter how many messages there are, or in which order. When more
// come than the socket holds the kernel says so, and any link may be concerned.
//
// Waking up: a timer on the wall clock that never fires. The kernel cancels it when the wall clock jumps, which it does
// when it is set and when the device wakes up. The two are told apart by the boot-time clock: it goes on while the
// device sleeps, the monotonic clock stands still.
#include "DeviceWatch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "DebugServices.h"
#include "EventLoop.h"
#include "os_device.h"

namespace {

constexpr int32_t kWarningLevel = 5000;
constexpr int64_t kMilliseconds = 1000;  // in a second
constexpr int64_t kShortestSleep = 100;  // milliseconds: the two clocks are not read at the same moment
constexpr int kMostReads = 64;           // messages for one wake-up of the loop

struct Watch {
    os_device_watcher watcher;  // linkChanged null: nobody watches
    int linkFd = -1;
    GSource* linkSource = nullptr;
    int clockFd = -1;
    GSource* clockSource = nullptr;
    int64_t slept = 0;  // milliseconds that the device had slept at the last look
};

Watch watch;
alignas(nlmsghdr) std::array<char, 32768> message;  // more than the kernel puts into one datagram

int64_t Milliseconds(clockid_t clock) noexcept {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * kMilliseconds + now.tv_nsec / 1'000'000;
}

// Since the device started.
int64_t MillisecondsSlept() noexcept {
    return Milliseconds(CLOCK_BOOTTIME) - Milliseconds(CLOCK_MONOTONIC);
}

// The name in a link message; empty when it has none.
std::array<char, IFNAMSIZ> NameIn(const nlmsghdr* header) noexcept {
    std::array<char, IFNAMSIZ> name{};
    const auto* const link = static_cast<const ifinfomsg*>(NLMSG_DATA(header));
    auto room = static_cast<int>(IFLA_PAYLOAD(header));
    for (const rtattr* part = IFLA_RTA(link); RTA_OK(part, room); part = RTA_NEXT(part, room)) {
        if (part->rta_type != IFLA_IFNAME) continue;
        std::strncpy(name.data(), static_cast<const char*>(RTA_DATA(part)),
                     std::min<size_t>(RTA_PAYLOAD(part), name.size() - 1));
    }
    return name;
}

void TellOf(const nlmsghdr* header) noexcept {
    const bool isOfLink = header->nlmsg_type == RTM_NEWLINK || header->nlmsg_type == RTM_DELLINK;
    if (!isOfLink || header->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
    const std::array<char, IFNAMSIZ> name = NameIn(header);
    if (name[0] == '\0') return;
    watch.watcher.linkChanged(watch.watcher.context, static_cast<const ifinfomsg*>(NLMSG_DATA(header))->ifi_index,
                              name.data());
}

// The watcher may be another one, or none, after each call of it.
bool IsWatched() noexcept {
    return watch.watcher.linkChanged != nullptr && !EventLoopIsEnding();
}

void TellOfAll(size_t length) noexcept {
    auto room = static_cast<unsigned int>(length);
    for (auto* header = reinterpret_cast<nlmsghdr*>(message.data()); NLMSG_OK(header, room) && IsWatched();
         header = NLMSG_NEXT(header, room))
        TellOf(header);
}

gboolean DispatchLinks(gint fd, GIOCondition, gpointer) noexcept {
    for (int i = 0; i < kMostReads && IsWatched() && fd == watch.linkFd; ++i) {
        sockaddr_nl from{};
        socklen_t fromLength = sizeof from;
        const ssize_t length =
            recvfrom(fd, message.data(), message.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &fromLength);
        if (length < 0 && errno == ENOBUFS) watch.watcher.linkChanged(watch.watcher.context, 0, "");
        if (length < 0 && errno != ENOBUFS) break;
        if (length > 0 && from.nl_pid == 0) TellOfAll(static_cast<size_t>(length));  // 0: the kernel
    }
    return G_SOURCE_CONTINUE;
}

gboolean DispatchClock(gint fd, GIOCondition, gpointer) noexcept {
    uint64_t expirations = 0;
    // Reading takes the news off the timer, which goes on; what happened to the clock is seen from the clocks.
    (void)!read(fd, &expirations, sizeof expirations);
    DeviceWatchTellIfWoken();
    return G_SOURCE_CONTINUE;
}

// -1 with errno.
int OpenLinks() noexcept {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) return -1;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// -1 with errno.
int OpenClock() noexcept {
    const int fd = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) return -1;
    itimerspec setting{};
    setting.it_value.tv_sec = std::numeric_limits<time_t>::max();
    if (timerfd_settime(fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &setting, nullptr) == 0) return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// Null with a log line when there is no descriptor.
GSource* WatchOrSay(int fd, GUnixFDSourceFunc callback, const char* what) noexcept {
    if (fd >= 0) return EventLoopWatch(fd, callback, nullptr);
    DebugPrintF(kWarningLevel, "%s cannot be watched: %s\n", what, std::strerror(errno));
    return nullptr;
}

void Close(int& fd, GSource*& source) noexcept {
    EventLoopUnwatch(source);
    if (fd >= 0) close(fd);
    fd = -1;
}

}  // namespace

void DeviceWatchTellIfWoken() noexcept {
    if (!IsWatched()) return;
    const int64_t slept = MillisecondsSlept();
    const bool woke = slept - watch.slept >= kShortestSleep;
    watch.slept = slept;
    if (woke) watch.watcher.wokeUp(watch.watcher.context);
}

int os_watch_device(const os_device_watcher& watcher) noexcept {
    os_unwatch_device();
    watch.watcher = watcher;
    watch.slept = MillisecondsSlept();
    watch.linkFd = OpenLinks();
    watch.linkSource = WatchOrSay(watch.linkFd, DispatchLinks, "links");
    watch.clockFd = OpenClock();
    watch.clockSource = WatchOrSay(watch.clockFd, DispatchClock, "the device's sleep");
    return watch.linkSource != nullptr && watch.clockSource != nullptr ? 0 : -1;
}

void os_unwatch_device() noexcept {
    watch.watcher = {};
    Close(watch.linkFd, watch.linkSource);
    Close(watch.clockFd, watch.clockSource);
}
