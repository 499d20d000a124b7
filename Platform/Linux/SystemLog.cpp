// The syslog protocol over the local datagram socket: "<priority>time name[process]: text".
//
// The socket is non-blocking. A full queue (the log daemon hangs) costs the line and is counted; a broken connection
// (it was restarted, or there is none) is opened again, at most once a second, and what cannot be sent meanwhile goes
// to standard error, so that nothing is lost without a trace.
#include "SystemLog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "LogFile.h"
#include "LogTime.h"

namespace {

constexpr int32_t kFacilityDaemon = 3;
constexpr int32_t kSeverityWarning = 4;
constexpr int64_t kNeverTried = INT64_MIN;
constexpr size_t kShortestCut = 256;  // bytes of a line that every log daemon is taken to accept

enum class Sent : uint8_t { Yes, Later, Disconnected };

struct Connection {
    const char* path = kSystemLogPath;
    int fd = -1;
    pid_t process = 0;
    int64_t lastTry = kNeverTried;  // monotonic milliseconds
    uint64_t lost = 0;              // lines, since the log daemon last took one
};

Connection connection;

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
    connection.process = getpid();
    connection.fd = OpenSocket(connection.path);
    return connection.fd >= 0;
}

// One attempt; -1 with errno.
ssize_t SendOnce(std::string_view head, std::string_view line) noexcept {
    std::array<iovec, 2> parts{
        {{const_cast<char*>(head.data()), head.size()}, {const_cast<char*>(line.data()), line.size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    return sendmsg(connection.fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

Sent Send(std::string_view name, int32_t severity, std::string_view line) noexcept {
    std::array<char, 160> head;
    const std::string_view time = LogTimeForSystemLog();
    const int written =
        std::snprintf(head.data(), head.size(), "<%d>%.*s %.*s[%d]: ", kFacilityDaemon * 8 + severity,
                      static_cast<int>(time.size()), time.data(), static_cast<int>(std::min<size_t>(name.size(), 64)),
                      name.data(), static_cast<int>(connection.process));
    const std::string_view headText(head.data(), static_cast<size_t>(written));
    ssize_t sent = SendOnce(headText, line);
    while (sent < 0 && errno == EMSGSIZE && line.size() > kShortestCut) {
        line = line.substr(0, line.size() / 2);
        sent = SendOnce(headText, line);
    }
    if (sent >= 0) return Sent::Yes;
    return errno == EAGAIN || errno == ENOBUFS || errno == EMSGSIZE ? Sent::Later : Sent::Disconnected;
}

// Sends the line, behind the number of lines lost before it.
Sent SendWithLosses(std::string_view name, int32_t severity, std::string_view line) noexcept {
    if (connection.lost > 0) {
        std::array<char, 48> report;
        const int length = std::snprintf(report.data(), report.size(), "%llu lines lost",
                                         static_cast<unsigned long long>(connection.lost));
        const Sent sent = Send(name, kSeverityWarning, {report.data(), static_cast<size_t>(length)});
        if (sent != Sent::Yes) return sent;
        connection.lost = 0;
    }
    return Send(name, severity, line);
}

}  // namespace

void SystemLogWrite(std::string_view name, int32_t severity, std::string_view line) noexcept {
    severity = std::clamp(severity, 0, 7);
    Sent sent = Connect() ? SendWithLosses(name, severity, line) : Sent::Disconnected;
    if (sent == Sent::Disconnected) {
        SystemLogClose();
        if (Connect()) sent = SendWithLosses(name, severity, line);
    }
    if (sent == Sent::Later) ++connection.lost;
    if (sent == Sent::Disconnected) StandardErrorWrite(line);
}

void SystemLogClose() noexcept {
    if (connection.fd >= 0) close(connection.fd);
    connection.fd = -1;
}

void SystemLogSetPath(const char* path) noexcept {
    SystemLogClose();
    connection = Connection{.path = path};
}
