// A file that is whole whatever happens, and what is kept in it of a server.
#include "KeptFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
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

ExitStatus ReadKeptFile(const std::string& file, std::string& text) {
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    if (!stream.is_open() && errno == ENOENT) return kExitDone;
    if (!stream.is_open()) return ComplainOf(file, "read");
    text.assign(std::istreambuf_iterator<char>(stream), {});
    return stream.bad() ? ComplainOf(file, "read") : kExitDone;
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
