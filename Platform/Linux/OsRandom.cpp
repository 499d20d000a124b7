#include <cerrno>
#include <sys/random.h>

#include "os_random.h"

void os_random_bytes(std::span<uint8_t> bytes) noexcept {
    while (!bytes.empty()) {
        // Early in a boot the entropy may not be ready, and waiting for it would hold the loop.
        ssize_t got = getrandom(bytes.data(), bytes.size(), GRND_NONBLOCK);
        if (got < 0 && errno == EAGAIN) got = getrandom(bytes.data(), bytes.size(), GRND_INSECURE);
        if (got < 0 && errno != EINTR) return;
        if (got > 0) bytes = bytes.subspan(static_cast<size_t>(got));
    }
}
