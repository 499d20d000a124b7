// What is going on with an interface and what comes next, in one line for people.
#pragma once

#include <string>
#include <vector>

#include "State.h"

namespace ostrelctl {

enum class Grade { Good, Waiting, Bad, Idle };

struct Situation {
    const char* label;  // "state", "link-local"
    std::string words;  // "acquiring: no offer yet, 4th try in 12 s"
    Grade grade;
};

// Of each role that the interface has, as of `now`, seconds since 1970.
[[nodiscard]] std::vector<Situation> SituationsOf(const InterfaceState& state, int64_t now);

}  // namespace ostrelctl
