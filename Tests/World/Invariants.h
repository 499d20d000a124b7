// What must hold, each a function that finds what is wrong, in words; "" when nothing is.
#pragma once

#include <functional>
#include <span>
#include <string>

#include "Scenario.h"

namespace sim {

// After each event of the schedule; those that cost more, after each n-th.
void CheckAfterEvent(Scenario& scenario, uint64_t event);

// Before an interface gets a frame, and when it sends one.
void CheckReceiving(Scenario& scenario, PortState& port, std::span<const uint8_t> frame);
void CheckSending(Scenario& scenario, PortState& port, std::span<const uint8_t> frame);

// In calm: everything is bound, held and told. Of ports by the rfc rules, or of all; of segments whose pools may have
// been exhausted too.
void CheckLiveness(Scenario& scenario, bool ofPlain, bool ofPressed);
// And in an hour of calm nobody sends what is not due.
void CheckQuiet(Scenario& scenario, const std::function<bool()>& hour);
// When everybody has left, what there was at the beginning is left.
void CheckMemoryAtEnd(Scenario& scenario, const std::function<void()>& leave);

// The state of an interface in a reply or post, without its counters; "" when it is not managed.
[[nodiscard]] std::string StateIn(const std::string& text);
[[nodiscard]] bool HasHalted(const PortState& port);

}  // namespace sim
