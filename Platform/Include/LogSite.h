// What makes two log lines alike: the place in the sources that wrote them.
#pragma once

struct LogSite {
    const void* text;  // of the line: its format; of a failed check, which share one: the name of its function
    int line;          // of a failed check; 0 otherwise

    bool operator==(const LogSite&) const = default;
};
