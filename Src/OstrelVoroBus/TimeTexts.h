// The times of leases, as they are shown, read back.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// The wall-clock time, in seconds since 1970, of a text such as "Mon Nov 16 11:40:22 2026", which is local time: the
// one that is shown so. None when it is no text of that form. Of an hour that a clock goes through twice either
// reading is taken; a time that it leaves out is read as one nearby.
[[nodiscard]] std::optional<int64_t> Ostrel_WallTimeOfText(std::string_view text);
