// What happened, in words: an event of the log, whether the daemon has just posted it or its log file tells of it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "State.h"

namespace ostrelctl {

struct Happening {
    std::string interface {};
    std::string role{};   // "client", "linkLocal", "server"; empty: of the interface itself
    std::string event{};  // "state", "held", "lost", "conflict", "link", "managed", of leases as the daemon has it
    std::string state{};  // of "state" and "link"
    std::string reason{};
    Ostrel_IPv4 address = kAnyIPv4;
    Ostrel_IPv4 server = kAnyIPv4;
    std::string mac{}, hostName{};
    Moment expires{};
};

// What has happened between two states of an interface, the first of which may be none.
[[nodiscard]] std::vector<Happening> HappeningsBetween(const std::optional<InterfaceState>& before,
                                                       const InterfaceState& now);

// A post of "leaseEvents"; nothing when it is of another kind.
[[nodiscard]] std::optional<Happening> ReadLeaseEvent(const valdo::JValue& root);

// A line of the daemon's log, without its time; nothing when it tells of nothing that a state or an event would.
[[nodiscard]] std::optional<Happening> ReadLogLine(std::string_view line);

// '+' for what has come, '-' for what has gone, '!' for what went wrong, ' ' for the rest.
[[nodiscard]] char SignOf(const Happening& happening);
[[nodiscard]] std::string WordsOf(const Happening& happening);
void PutHappening(valdo::JValue& line, const Happening& happening);

// A reason in words: "refused (NAK)", "the lease has expired"; empty for one that goes without saying.
[[nodiscard]] std::string ReasonWords(const std::string& reason);

}  // namespace ostrelctl
