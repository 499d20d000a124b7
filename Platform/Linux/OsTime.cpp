// The device's clocks, and times in words.
#include <cerrno>
#include <ctime>

#include "os_time.h"

uint32_t os_monotonic_seconds() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec);
}

uint64_t os_monotonic_milliseconds() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

int64_t os_wall_seconds() noexcept {
    return std::time(nullptr);
}

bool os_local_time_text(int64_t wallSeconds, std::span<char> text) noexcept {
    if (text.empty()) return false;
    const time_t seconds = wallSeconds;
    tm local{};
    const bool known = localtime_r(&seconds, &local) != nullptr;
    const bool fits = known && std::strftime(text.data(), text.size(), "%a %b %e %H:%M:%S %Y\n", &local) > 0;
    if (!fits) text[0] = '\0';
    return fits;
}
