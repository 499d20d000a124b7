// Values of a file as words of a command line.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "Toml.h"

namespace ostrelctl {

// Adds "--key=value" to the words, once for each value of an array; for a switch "--key", or nothing when it is off.
// Returns what is wrong in words; empty: nothing.
[[nodiscard]] std::string AddWords(const CLI::Option& option, const std::string& key, const toml::node& value,
                                   std::vector<std::string>& words);

}  // namespace ostrelctl
