// The device's clocks.
#pragma once

#include <cstdint>
#include <span>

// Whole seconds of the monotonic clock (CLOCK_MONOTONIC), as an unsigned 32-bit number. It never goes back and counts
// from an arbitrary start; differences are taken in unsigned arithmetic.
[[nodiscard]] uint32_t os_monotonic_seconds() noexcept;

// The same clock in milliseconds.
[[nodiscard]] uint64_t os_monotonic_milliseconds() noexcept;

// Milliseconds that the device has been suspended since it started, in which that clock stood still.
[[nodiscard]] uint64_t os_milliseconds_asleep() noexcept;

// Seconds of the wall clock since 1970-01-01 00:00:00 UTC.
[[nodiscard]] int64_t os_wall_seconds() noexcept;

// The same clock in microseconds.
[[nodiscard]] int64_t os_wall_microseconds() noexcept;

// The local-time text of `wallSeconds` in the form of ctime_r, "Mon Nov 16 11:40:22 2026\n", NUL-terminated, written
// into `text`, which should hold at least 64 characters. False, with an empty text, when it doesn't fit or the year
// cannot be represented.
bool os_local_time_text(int64_t wallSeconds, std::span<char> text) noexcept;
