// The connection to the system log daemon of this device.
#pragma once

#include <cstdint>
#include <string_view>

constexpr const char* kSystemLogPath = "/dev/log";

// Sends one line under `name`, with a syslog severity (0 emergency to 7 debug). Never blocks: while the log daemon
// takes nothing, lines are lost and counted, and their number is sent before the next line it takes. Without a log
// daemon the line goes to standard error; a connection is tried at most once a second.
void SystemLogWrite(std::string_view name, int32_t severity, std::string_view line) noexcept;

// Closes the connection; the next line opens it again.
void SystemLogClose() noexcept;

// Connects to another socket from now on; `path` must stay valid. For tests.
void SystemLogSetPath(const char* path) noexcept;
