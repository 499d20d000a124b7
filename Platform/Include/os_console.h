// What a program that becomes a daemon has to do with the streams it was started with.
#pragma once

#include <string_view>

// Writes the text to standard output.
void os_console_print(std::string_view text) noexcept;

// The first thing at a start, before anything is opened. Closed standard streams are put on /dev/null, so that nothing
// else takes their numbers; a pipe whose reader has left fails a write instead of ending the process; and if standard
// error is a terminal, it is kept for os_console_complain, also while the stream is redirected.
void os_console_keep() noexcept;

// Writes "<program>: <line>" to the terminal that was kept, if there is one, and lets it go: the first reason counts.
void os_console_complain(std::string_view line) noexcept;

// Lets the terminal go.
void os_console_release() noexcept;
