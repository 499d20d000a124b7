// A log file that doesn't grow without end, and standard error, where lines go that have no other place.
#pragma once

#include <array>
#include <climits>
#include <cstdint>
#include <string_view>

struct LogFile {
    int fd = -1;
    int64_t limit = 0;                  // bytes; 0: none
    int64_t budget = 0;                 // bytes that may be written before the size is looked at again
    std::array<char, PATH_MAX> path{};  // of a file with a limit
};

// Opens `path` for appending, made when it isn't there. False, with the file not open, when the system refuses.
[[nodiscard]] bool LogFileOpen(LogFile& file, const char* path, int64_t limit) noexcept;
void LogFileClose(LogFile& file) noexcept;

// Appends one line behind its local time. A line that would take the file past its limit starts it afresh: what is
// there is copied to "<path>.1" first. Other descriptors that append to the file stay good.
void LogFileWrite(LogFile& file, std::string_view line) noexcept;

// One line to standard error, as LogFileWrite: with a limit after DebugRedirectStandardStreams.
void StandardErrorWrite(std::string_view line) noexcept;
