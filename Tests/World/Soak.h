// Running plans by the hundred, and the one that fails cut to what it needs.
#pragma once

#include <string>

#include "Scenario.h"

namespace sim {

// What failed, or "".
[[nodiscard]] std::string RunPlan(const Plan& plan, Tally* tally = nullptr);

// The invariant that a failure names.
[[nodiscard]] std::string NameOfFailure(const std::string& failure);

// The shortest plan that still fails likewise that can be found in so many tries, each in a process of its own, as it
// may be one that crashes.
[[nodiscard]] Plan Shrink(Plan plan, const std::string& name, int tries);

// As RunPlan, in a process of its own; a crash is a failure, too.
[[nodiscard]] std::string RunApart(const Plan& plan);

}  // namespace sim
