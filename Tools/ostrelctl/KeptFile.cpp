// A file that is whole whatever happens, and what is kept in it of a server.
#include "KeptFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Fields.h"
#include "FileDescriptor.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr std::chrono::milliseconds kTablePause{1000};
constexpr size_t kLeasesASecond = 5000;  // that are asked for at most, so that a large table is no load

ExitStatus ComplainOf(const std::string& file, const char* what) {
    return Refuse(kExitRefused, '\'' + Printable(file) + "' cannot be " + what + ": " + std::strerror(errno), "");
}

bool WriteWhole(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) text.remove_prefix(static_cast<size_t>(written));
    }
    return fsync(fd) == 0;
}

bool SyncDirectoryOf(const std::string& file) {
    const size_t slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    const FileDescriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return opened.isOpen() && fsync(opened.get()) == 0;
}

}  // namespace

bool ToText(const JValue& value, std::string& text) {
    return valdo::JGenerator::toString(value, valdo::JSchemaFragment("{}"), text);
}

// Streams of the C++ library throw on what is no file, such as a directory. A pipe that nobody writes to is empty.
bool ReadWhole(const std::string& file, std::string& text) {
    const FileDescriptor opened(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!opened.isOpen()) return false;
    text.clear();
    std::array<char, 16384> piece;
    for (;;) {
        const ssize_t length = read(opened.get(), piece.data(), piece.size());
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return length == 0;
        text.append(piece.data(), static_cast<size_t>(length));
    }
}

ExitStatus ReadKeptFile(const std::string& file, std::string& text) {
    if (ReadWhole(file, text) || errno == ENOENT) return kExitDone;
    return ComplainOf(file, "read");
}

ExitStatus WriteKeptFile(const std::string& file, const std::string& text) {
    const std::string beside = file + ".new";
    {
        const FileDescriptor opened(open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!opened.isOpen()) return ComplainOf(beside, "written");
        if (!WriteWhole(opened.get(), text)) {
            const ExitStatus status = ComplainOf(beside, "written");
            (void)unlink(beside.c_str());  // a full disk has other use for the room
            return status;
        }
    }
    if (rename(beside.c_str(), file.c_str()) != 0 || !SyncDirectoryOf(file)) return ComplainOf(file, "written");
    return kExitDone;
}

std::chrono::milliseconds TablePause(size_t leases) {
    return std::max(kTablePause, std::chrono::milliseconds(leases * 1000 / kLeasesASecond));
}

JValue LeasesOf(const JValue& root, const std::string& interface) {
    const JValue list = root[root.hasKey("leases") ? "leases" : "interfaceList"];
    for (size_t i = 0; i < list.arraySize(); ++i)
        if (TextOf(list[i], "interface") == interface) return list[i]["leases"];
    return {};
}

}  // namespace ostrelctl
