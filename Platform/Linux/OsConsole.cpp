// The streams a program was started with.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "os_console.h"

namespace {

int terminal = -1;

}  // namespace

void os_console_print(std::string_view text) noexcept {
    (void)std::fwrite(text.data(), 1, text.size(), stdout);
    (void)std::fflush(stdout);
}

void os_console_keep() noexcept {
    (void)std::signal(SIGPIPE, SIG_IGN);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // The lowest number that is free is this one.
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) return;
    }
    if (isatty(STDERR_FILENO) != 0) terminal = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

void os_console_complain(std::string_view line) noexcept {
    if (terminal >= 0)
        (void)dprintf(terminal, "%s: %.*s\n", program_invocation_short_name, static_cast<int>(line.size()),
                      line.data());
    os_console_release();
}

void os_console_release() noexcept {
    if (terminal >= 0) close(terminal);
    terminal = -1;
}
