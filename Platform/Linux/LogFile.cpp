// Log files.
//
// A line is one write in append mode, so several descriptors of one file (the debug output's and standard error) mix
// line by line. The limit is kept by copying and truncating rather than by renaming: after a rename the other
// descriptors would go on filling the old file.
#include "LogFile.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "DebugServices.h"
#include "LogTime.h"

namespace {

constexpr int64_t kStandardErrorLimit = int64_t{10} * 1024 * 1024;
constexpr int64_t kLongestBudget = int64_t{64} * 1024;  // what others may append unseen is looked for this often
constexpr mode_t kMode = 0640;

LogFile standardError{.fd = STDERR_FILENO, .path = {}};

void CopyTo(int source, int target, off_t size) noexcept {
    off_t offset = 0;
    while (offset < size && sendfile(target, source, &offset, static_cast<size_t>(size - offset)) > 0) {
    }
}

// Keeps the contents as "<path>.1" as far as the file system takes them, and empties the file in any case.
void StartAfresh(const LogFile& file, off_t size) noexcept {
    std::array<char, PATH_MAX + 2> kept;
    std::snprintf(kept.data(), kept.size(), "%s.1", file.path.data());
    const int target = open(kept.data(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode);
    if (target >= 0) {
        CopyTo(file.fd, target, size);
        close(target);
    }
    if (ftruncate(file.fd, 0) < 0) return;  // tried again when the budget is used up
}

// Keeps a file with a limit below it. Asking for the size costs more than the line, so it is asked only now and then.
void MakeRoom(LogFile& file, int64_t added) noexcept {
    if (file.limit == 0) return;
    if (added > file.budget) {
        struct stat status {};
        if (fstat(file.fd, &status) < 0) return;
        const bool full = status.st_size > 0 && status.st_size + added > file.limit;
        if (full) StartAfresh(file, status.st_size);
        file.budget = std::min(kLongestBudget, file.limit - (full ? 0 : status.st_size));
    }
    file.budget -= added;
}

int OpenForAppending(const char* path) noexcept {
    return open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, kMode);
}

}  // namespace

bool LogFileOpen(LogFile& file, const char* path, int64_t limit) noexcept {
    const size_t length = std::strlen(path);
    if (length >= file.path.size()) return false;
    file.fd = OpenForAppending(path);
    file.limit = limit;
    file.budget = 0;
    std::copy_n(path, length + 1, file.path.begin());
    return file.fd >= 0;
}

void LogFileClose(LogFile& file) noexcept {
    if (file.fd >= 0) close(file.fd);
    file.fd = -1;
}

void LogFileWrite(LogFile& file, std::string_view line) noexcept {
    const std::string_view time = LogTimeForFile();
    const auto added = static_cast<int64_t>(time.size() + line.size() + 1);
    MakeRoom(file, added);
    char newline = '\n';
    const std::array<iovec, 3> parts{
        {{const_cast<char*>(time.data()), time.size()}, {const_cast<char*>(line.data()), line.size()}, {&newline, 1}}};
    // A full disk costs the line: there is no other place for it.
    if (writev(file.fd, parts.data(), static_cast<int>(parts.size())) < 0) return;
}

void StandardErrorWrite(std::string_view line) noexcept {
    LogFileWrite(standardError, line);
}

void DebugRedirectStandardStreams(const char* path) noexcept {
    LogFile file;
    if (!LogFileOpen(file, path, kStandardErrorLimit)) return;
    const int opened = file.fd;
    file.fd = STDERR_FILENO;
    std::fflush(stdout);
    if (dup2(opened, STDERR_FILENO) >= 0) standardError = file;
    dup2(opened, STDOUT_FILENO);
    close(opened);
    std::setvbuf(stderr, nullptr, _IONBF, 0);
    std::setvbuf(stdout, nullptr, _IONBF, 0);
}
