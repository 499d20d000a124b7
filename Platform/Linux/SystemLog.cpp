// The syslog protocol over the local datagram socket: "<priority>time name[process]: text".
//
// The socket is non-blocking, and the kernel's queue for it is short: ten lines, with stock settings. What it doesn't
// take waits in a backlog of bounded size, which the event loop sends as the log daemon reads; beyond that lines are
// lost, counted, and their number is sent behind the backlog. A broken connection (the log daemon was restarted, or
// there is none) is opened again, at most once a second, and what cannot be sent meanwhile goes to standard error, so
// that nothing is lost without a trace.
#include "SystemLog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <span>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "EventLoop.h"
#include "LogFile.h"
#include "LogTime.h"

namespace {

constexpr int32_t kFacilityDaemon = 3;
constexpr int32_t kSeverityWarning = 4;
constexpr int64_t kNeverTried = INT64_MIN;
constexpr size_t kShortestCut = 256;            // bytes of a line that every log daemon is taken to accept
constexpr size_t kBacklog = size_t{64} * 1024;  // bytes
constexpr int64_t kLastWait = 100;              // milliseconds, for the backlog when the log is closed

enum class Sent : uint8_t { Yes, Later, Never, Disconnected };

// A line as it is sent: "<30>Nov 23 08:15:00 org.ostrel.dhcp[1]: " and its text.
struct Line {
    std::string_view head;
    std::string_view text;
};

// Lines that wait, in their order.
class Backlog {
public:
    [[nodiscard]] bool IsEmpty() const noexcept { return begin == end; }

    // False when there is no room.
    bool Add(const Line& line) noexcept {
        const Lengths lengths{line.head.size(), line.text.size()};
        const size_t size = sizeof lengths + line.head.size() + line.text.size();
        if (size > room.size() - (end - begin)) return false;
        if (size > room.size() - end) {
            std::copy(room.begin() + Offset(begin), room.begin() + Offset(end), room.begin());
            end -= begin;
            begin = 0;
        }
        std::memcpy(&room[end], &lengths, sizeof lengths);
        char* const head = std::copy(line.head.begin(), line.head.end(), &room[end] + sizeof lengths);
        std::copy(line.text.begin(), line.text.end(), head);
        end += size;
        return true;
    }

    [[nodiscard]] Line First() const noexcept {
        const Lengths lengths = FirstLengths();
        const char* const head = &room[begin] + sizeof lengths;
        return {{head, lengths.head}, {head + lengths.head, lengths.text}};
    }

    void RemoveFirst() noexcept {
        const Lengths lengths = FirstLengths();
        begin += sizeof lengths + lengths.head + lengths.text;
        if (IsEmpty()) begin = end = 0;
    }

private:
    struct Lengths {
        size_t head;
        size_t text;
    };

    static std::ptrdiff_t Offset(size_t index) noexcept { return static_cast<std::ptrdiff_t>(index); }
    [[nodiscard]] Lengths FirstLengths() const noexcept {
        Lengths lengths;
        std::memcpy(&lengths, &room[begin], sizeof lengths);
        return lengths;
    }

    std::array<char, kBacklog> room;
    size_t begin = 0;
    size_t end = 0;
};

struct Connection {
    const char* path = kSystemLogPath;
    int fd = -1;
    GSource* writable = nullptr;  // watches fd while lines wait
    std::string_view name{};      // that the last line was written under
    pid_t process = 0;
    int64_t lastTry = kNeverTried;  // monotonic milliseconds
    uint64_t lost = 0;              // lines, since the log daemon last took one
};

Connection connection;
Backlog backlog;

int64_t Milliseconds() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

int OpenSocket(const char* path) noexcept {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = std::strlen(path);
    if (length >= sizeof address.sun_path) return -1;
    std::copy_n(path, length, address.sun_path);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
}

// True when there is a connection, if need be a new one.
bool Connect() noexcept {
    if (connection.fd >= 0) return true;
    const int64_t now = Milliseconds();
    if (connection.lastTry != kNeverTried && now - connection.lastTry < 1000) return false;
    connection.lastTry = now;
    connection.fd = OpenSocket(connection.path);
    return connection.fd >= 0;
}

void Disconnect() noexcept {
    EventLoopUnwatch(connection.writable);
    if (connection.fd >= 0) close(connection.fd);
    connection.fd = -1;
}

std::string_view WriteHead(std::span<char> room, int32_t severity) noexcept {
    const std::string_view name = connection.name.substr(0, 64);
    if (connection.process == 0) connection.process = getpid();
    const std::string_view time = LogTimeForSystemLog();
    const int written = std::snprintf(room.data(), room.size(), "<%d>%.*s %.*s[%d]: ", kFacilityDaemon * 8 + severity,
                                      static_cast<int>(time.size()), time.data(), static_cast<int>(name.size()),
                                      name.data(), static_cast<int>(connection.process));
    return {room.data(), static_cast<size_t>(written)};
}

// One attempt; -1 with errno.
ssize_t SendOnce(const Line& line) noexcept {
    std::array<iovec, 2> parts{{{const_cast<char*>(line.head.data()), line.head.size()},
                                {const_cast<char*>(line.text.data()), line.text.size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    return sendmsg(connection.fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

Sent Send(Line line) noexcept {
    if (!Connect()) return Sent::Disconnected;
    ssize_t sent = SendOnce(line);
    while (sent < 0 && errno == EMSGSIZE && line.text.size() > kShortestCut) {
        line.text = line.text.substr(0, line.text.size() / 2);
        sent = SendOnce(line);
    }
    if (sent >= 0) return Sent::Yes;
    if (errno == EAGAIN) return Sent::Later;
    return errno == ENOBUFS || errno == EMSGSIZE ? Sent::Never : Sent::Disconnected;
}

Sent SendLosses() noexcept {
    std::array<char, 160> head;
    std::array<char, 48> text;
    const int length =
        std::snprintf(text.data(), text.size(), "%llu lines lost", static_cast<unsigned long long>(connection.lost));
    const Sent sent = Send({WriteHead(head, kSeverityWarning), {text.data(), static_cast<size_t>(length)}});
    if (sent == Sent::Yes) connection.lost = 0;
    return sent;
}

// Sends what waits, as far as it is taken. Yes when nothing is left.
Sent SendBacklog() noexcept {
    while (!backlog.IsEmpty()) {
        const Sent sent = Send(backlog.First());
        if (sent == Sent::Later || sent == Sent::Disconnected) return sent;
        if (sent == Sent::Never) ++connection.lost;
        backlog.RemoveFirst();
    }
    return connection.lost > 0 ? SendLosses() : Sent::Yes;
}

void SpillBacklog() noexcept {
    for (; !backlog.IsEmpty(); backlog.RemoveFirst()) StandardErrorWrite(backlog.First().text);
}

// As SendBacklog, on a new connection if the one there is has broken. Without any the backlog goes to standard error.
Sent Deliver() noexcept {
    Sent sent = SendBacklog();
    if (sent != Sent::Disconnected) return sent;
    Disconnect();
    sent = SendBacklog();
    if (sent == Sent::Disconnected) SpillBacklog();
    return sent;
}

gboolean OnWritable(gint, GIOCondition, gpointer) noexcept;

void AwaitRoom() noexcept {
    if (connection.writable == nullptr)
        connection.writable = EventLoopWatch(connection.fd, OnWritable, nullptr, G_IO_OUT);
}

gboolean OnWritable(gint, GIOCondition, gpointer) noexcept {
    if (Deliver() == Sent::Later) {
        AwaitRoom();  // on a new connection the watch has ended with the old one
    } else {
        EventLoopUnwatch(connection.writable);
    }
    return G_SOURCE_CONTINUE;
}

// For the loop to send. While lines have been lost no others wait, so that their number stands in its place.
void Keep(const Line& line) noexcept {
    if (connection.lost > 0 || !backlog.Add(line)) ++connection.lost;
    AwaitRoom();
}

}  // namespace

void SystemLogWrite(std::string_view name, int32_t severity, std::string_view text) noexcept {
    connection.name = name;
    std::array<char, 160> room;
    const Line line{WriteHead(room, std::clamp(severity, 0, 7)), text};
    Sent sent = Deliver();
    if (sent == Sent::Yes) sent = Send(line);
    if (sent == Sent::Disconnected) {
        Disconnect();
        sent = Send(line);
    }
    if (sent == Sent::Later) Keep(line);
    if (sent == Sent::Never) ++connection.lost;
    if (sent == Sent::Disconnected) StandardErrorWrite(text);
}

void SystemLogClose() noexcept {
    const int64_t end = Milliseconds() + kLastWait;
    for (int64_t left = kLastWait; !backlog.IsEmpty() && Deliver() == Sent::Later; left = end - Milliseconds()) {
        pollfd ready{.fd = connection.fd, .events = POLLOUT, .revents = 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0) break;
    }
    SpillBacklog();
    Disconnect();
}

void SystemLogSetPath(const char* path) noexcept {
    SystemLogClose();
    connection = Connection{.path = path};
}
