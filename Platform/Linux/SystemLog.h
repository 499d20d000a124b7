// The connection to the system log daemon of this device.
#pragma once

#include <cstdint>
#include <string_view>

constexpr const char* kSystemLogPath = "/dev/log";

// Sends one line under `name`, which must stay valid, with a syslog severity (0 emergency to 7 debug). Never blocks:
// while the log daemon takes nothing 64 KiB of lines wait, which the event loop sends when it does again; further ones
// are lost and counted, and their number is sent behind those that waited. Without a log daemon the line goes to
// standard error; a connection is tried at most once a second.
void SystemLogWrite(std::string_view name, int32_t severity, std::string_view text) noexcept;

// Closes the connection, after a tenth of a second at most for what waits; what then is left goes to standard error.
// The next line opens it again.
void SystemLogClose() noexcept;

// Connects to another socket from now on; `path` must stay valid. For tests.
void SystemLogSetPath(const char* path) noexcept;
