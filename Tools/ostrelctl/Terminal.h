// What people see: standard output as a terminal or a file, text from strangers, complaints.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "Exit.h"

namespace ostrelctl {

// Escape sequences, each empty where colours are not wanted.
struct Palette {
    std::string_view strong, good, warning, bad, faint, reset;
};

struct Terminal {
    bool interactive;  // somebody looks at it: bars and colours make sense, and lines should fit
    bool unicode;      // block characters can be shown
    size_t width;      // columns; without a terminal, more than any line has
    Palette palette;
};

// Standard output as it is now. NO_COLOR and TERM=dumb turn colours off.
[[nodiscard]] Terminal DescribeStandardOutput();

// Text that came from the network, fit to be shown: no control characters, which could redraw a terminal, and nothing
// that is not UTF-8.
[[nodiscard]] std::string Printable(std::string_view text);

// Prints an event on a line of its own, and at once: where and when, a sign that says what kind it is ('+' come, '-'
// gone,
// '!' gone wrong), and words in the sign's colour.
void PrintEvent(const Terminal& terminal, std::string_view head, char sign, std::string_view words);

// Prints a JSON text on a line of its own: on a terminal with such characters as \u escapes, else as it is.
void PrintJson(std::string_view text);
[[nodiscard]] std::string EscapedJson(std::string_view text);

// The columns that UTF-8 text takes, and the text padded with spaces to at least so many.
[[nodiscard]] size_t Columns(std::string_view text);
[[nodiscard]] std::string Padded(std::string_view text, size_t columns);

// The text in at most so many columns; one that is cut ends with an ellipsis.
[[nodiscard]] std::string Shortened(std::string_view text, size_t columns, bool unicode);

// Says on standard error what is wrong, and on a second line, unless it is empty, what to do next.
void Complain(std::string_view problem, std::string_view next);

// Complains and gives the status, for a return.
[[nodiscard]] ExitStatus Refuse(ExitStatus status, std::string_view problem, std::string_view next);

// Where the values come from that are complained about: nothing for the command line. Of a file "" leads to the table,
// "lan.toml:3: [eth0]", and a key that it has to its line, "lan.toml:5: [eth0] range". While it lives complaints
// begin so.
class ComplaintSource {
public:
    using Places = std::map<std::string, std::string, std::less<>>;
    explicit ComplaintSource(const Places& places);
    ComplaintSource(const ComplaintSource&) = delete;
    ComplaintSource& operator=(const ComplaintSource&) = delete;
    ~ComplaintSource();
};

// The text with the names of options as they are in a file.
[[nodiscard]] std::string WithoutDashes(std::string_view text);

// Refuses the value of an option, with kExitUsage.
[[nodiscard]] ExitStatus RefuseKey(std::string_view key, std::string_view problem, std::string_view next);

}  // namespace ostrelctl
