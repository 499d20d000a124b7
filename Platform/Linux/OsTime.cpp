// The device's clocks, and times in words.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <ctime>

#include "os_time.h"

namespace {

constexpr size_t kSecondsPlace = 17;  // in "Mon Nov 16 11:40:22 2026\n"

// A table of leases has thousands of times, most of them within few minutes of each other. Of a minute only the first
// time is worked out by the rules of the time zone, whose offsets have been whole minutes everywhere since 1972.
struct MinuteText {
    int64_t minute;  // since 1970
    size_t length;   // without the NUL; 0: not worked out yet
    std::array<char, 40> text;
};

std::array<MinuteText, 64> minutes;

// Null when the year cannot be represented.
const MinuteText* TextOfMinute(int64_t minute) noexcept {
    MinuteText& known = minutes[static_cast<uint64_t>(minute) % minutes.size()];
    if (known.length > 0 && known.minute == minute) return &known;
    const time_t seconds = minute * 60;
    tm local{};
    known.length = 0;
    if (localtime_r(&seconds, &local) == nullptr) return nullptr;
    known.minute = minute;
    known.length = std::strftime(known.text.data(), known.text.size(), "%a %b %e %H:%M:%S %Y\n", &local);
    return known.length > 0 ? &known : nullptr;
}

uint64_t MillisecondsOf(clockid_t clock) noexcept {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

}  // namespace

uint32_t os_monotonic_seconds() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec);
}

uint64_t os_monotonic_milliseconds() noexcept {
    return MillisecondsOf(CLOCK_MONOTONIC);
}

// Read in this order it is never less than what it was.
uint64_t os_milliseconds_asleep() noexcept {
    const uint64_t awake = MillisecondsOf(CLOCK_MONOTONIC);
    return MillisecondsOf(CLOCK_BOOTTIME) - awake;
}

int64_t os_wall_seconds() noexcept {
    return std::time(nullptr);
}

int64_t os_wall_microseconds() noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1'000'000 + int64_t{now.tv_nsec} / 1000;
}

bool os_local_time_text(int64_t wallSeconds, std::span<char> text) noexcept {
    if (text.empty()) return false;
    text[0] = '\0';
    const int64_t second = (wallSeconds % 60 + 60) % 60;
    const MinuteText* const minute = TextOfMinute((wallSeconds - second) / 60);
    if (minute == nullptr || minute->length >= text.size()) return false;
    std::copy_n(minute->text.begin(), minute->length + 1, text.begin());
    text[kSecondsPlace] = static_cast<char>('0' + second / 10);
    text[kSecondsPlace + 1] = static_cast<char>('0' + second % 10);
    return true;
}
