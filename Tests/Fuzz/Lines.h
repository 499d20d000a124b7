// Inputs that are lines: a letter that says what the line is for, and then JSON, or a text. Their mutator has the words
// of the target.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sim::fuzz {

struct Vocabulary {
    std::vector<std::string> keys;    // of objects
    std::vector<std::string> values;  // as JSON
    std::vector<std::string> lines;   // whole ones, to begin with
};

// The target's.
[[nodiscard]] const Vocabulary& TargetVocabulary();

[[nodiscard]] inline std::vector<std::string> SplitLines(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        if (end > 0) lines.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

}  // namespace sim::fuzz
