// One process at a time for an interface.
//
// The lock is a socket's name without a file, which the kernel gives to one process, in each network namespace anew, as
// it does interfaces. It goes with the process, whatever ends that, and tells who has it to whoever connects. Names of
// this kind are for anybody to take, so one that belongs to somebody with fewer rights is no lock.
#include "Lock.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

#include "Terminal.h"

namespace ostrelctl {

namespace {

struct LockName {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    socklen_t length = 0;

    [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

// A path that begins with a zero byte.
LockName NameFor(const std::string& text) {
    LockName name;
    const size_t copied = text.copy(name.address.sun_path + 1, sizeof name.address.sun_path - 1);
    name.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + copied);
    return name;
}

constexpr char kRunLock[] = "ostrelctl-run";

FileDescriptor NewSocket() {
    return FileDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// Who listens there; pid 0: nobody any more.
ucred HolderOf(const LockName& name) {
    ucred holder{};
    socklen_t length = sizeof holder;
    const FileDescriptor caller = NewSocket();
    if (connect(caller.get(), name.get(), name.length) != 0 && errno != EAGAIN) return {};
    if (getsockopt(caller.get(), SOL_SOCKET, SO_PEERCRED, &holder, &length) != 0) return {};
    return holder;
}

}  // namespace

FileDescriptor LockInterface(const std::string& interface) {
    const LockName name = NameFor("ostrelctl-apply-" + interface);
    FileDescriptor lock = NewSocket();
    if (bind(lock.get(), name.get(), name.length) == 0 && listen(lock.get(), 0) == 0) return lock;
    const ucred holder = HolderOf(name);
    if (holder.pid != 0 && holder.uid != 0 && holder.uid != geteuid()) {
        Complain(
            "warning: process " + std::to_string(holder.pid) + " pretends to apply the leases of '" + interface + "'",
            "going on, since it belongs to user " + std::to_string(holder.uid));
        return lock;
    }
    Complain("the leases of '" + interface + "' are applied already, by process " + std::to_string(holder.pid),
             "'kill " + std::to_string(holder.pid) + "' ends it");
    return {};
}

FileDescriptor LockRun() {
    constexpr int kCallers = 64;  // that have asked and were not seen off yet
    const LockName name = NameFor(kRunLock);
    FileDescriptor lock = NewSocket();
    if (bind(lock.get(), name.get(), name.length) == 0 && listen(lock.get(), kCallers) == 0) return lock;
    const pid_t holder = ProcessOfRun();
    Complain("'ostrelctl run' runs already, as process " + std::to_string(holder),
             "'ostrelctl reload' has it read its files");
    return {};
}

void SeeCallersOff(const FileDescriptor& lock) {
    while (FileDescriptor(accept(lock.get(), nullptr, nullptr)).isOpen()) continue;
}

pid_t ProcessOfRun() {
    return HolderOf(NameFor(kRunLock)).pid;
}

}  // namespace ostrelctl
