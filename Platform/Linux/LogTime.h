// Local times at the head of log lines.
#pragma once

#include <string_view>

// "2026-11-16 11:40:22.123 ", for a file; valid until the next call.
[[nodiscard]] std::string_view LogTimeForFile() noexcept;

// "Nov 16 11:40:22", for the system log (RFC 3164 section 4.1.2); valid until the next call.
[[nodiscard]] std::string_view LogTimeForSystemLog() noexcept;
