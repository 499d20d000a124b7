// Changes lines of JSON as one who knows the words: keys and values of the target, values of wrong types, numbers that
// are too large, texts that are not UTF-8, and depth. Now and then it leaves a line to libFuzzer.

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Chance.h"
#include "Lines.h"

namespace sim::fuzz {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kStrange[] = {"null",
                                    "true",
                                    "false",
                                    "0",
                                    "-1",
                                    "1",
                                    "2147483647",
                                    "2147483648",
                                    "4294967295",
                                    "4294967296",
                                    "-2147483649",
                                    "9223372036854775807",
                                    "18446744073709551615",
                                    "1e300",
                                    "0.5",
                                    "3600.0",
                                    "\"\"",
                                    "\"\\u0000\"",
                                    "\"a\\u0000b\"",
                                    "\"\\uffff\"",
                                    "\"\\u202e\"",
                                    "\"\\n\"",
                                    "[]",
                                    "{}",
                                    "[[]]",
                                    "[null]",
                                    "{\"\":null}"};
constexpr size_t kMostNodes = 4000;

// What nlohmann's parser would not take, put into the finished text.
constexpr std::string_view kRaw[] = {
    "\xff", "\xc3", "\xed\xa0\x80", "\xf4\x90\x80\x80", "1e999", "-", "\\ud800", "[[[[[[[[", "}", ",", "\"", "//",
    "00",   "+1",   "NaN"};

void CollectNodes(Json& node, std::vector<Json*>& nodes) {
    if (nodes.size() >= kMostNodes) return;
    nodes.push_back(&node);
    if (node.is_structured())
        for (Json& inner : node) CollectNodes(inner, nodes);
}

Json NewValue(Chance& chance, const Vocabulary& words) {
    const std::string text = chance.OneIn(3) || words.values.empty() ? chance.Of(kStrange) : chance.Of(words.values);
    return Json::parse(text, nullptr, false);
}

Json Deep(Chance& chance, Json value) {
    for (size_t depth = chance.Below(70); depth > 0; --depth)
        value = chance.OneIn(2) ? Json::array({value}) : Json::object({{"a", value}});
    return value;
}

void MutateObject(Chance& chance, Json& object, const Vocabulary& words) {
    const std::string& key = chance.Of(words.keys);
    if (object.empty() || chance.OneIn(2)) {
        object[key] = NewValue(chance, words);
        return;
    }
    const auto place = std::next(object.begin(), static_cast<std::ptrdiff_t>(chance.Below(object.size())));
    const std::string old = place.key();
    const Json value = place.value();
    object.erase(old);
    if (chance.OneIn(3)) object[key] = value;
}

void MutateArray(Chance& chance, Json& array, const Vocabulary& words) {
    const size_t choice = array.empty() ? 0 : chance.Below(4);
    if (choice == 0) array.push_back(NewValue(chance, words));
    if (choice == 1) array.erase(chance.Below(array.size()));
    if (choice < 2) return;
    const Json one = array[chance.Below(array.size())];
    for (size_t i = choice == 2 ? 1 : chance.Below(80); i > 0 && array.size() < kMostNodes; --i) array.push_back(one);
}

void MutateNode(Chance& chance, Json& node, std::vector<Json*>& nodes, const Vocabulary& words) {
    const size_t choice = chance.Below(8);
    if (choice == 0) {
        node = NewValue(chance, words);
    } else if (choice == 1) {
        node = Json(*chance.Of(nodes));
    } else if (choice == 2 && chance.OneIn(8)) {
        node = Deep(chance, node);
    } else if (node.is_object()) {
        MutateObject(chance, node, words);
    } else if (node.is_array()) {
        MutateArray(chance, node, words);
    } else if (node.is_string() && chance.OneIn(2)) {
        auto text = node.get<std::string>();
        if (chance.OneIn(8)) text.append(chance.Below(800), 'a');
        MutateBytes(text, 4);
        node = text;
    } else {
        node = NewValue(chance, words);
    }
}

// A line's text behind its letter.
void MutateJson(Chance& chance, std::string& text, const Vocabulary& words) {
    Json root = Json::parse(text, nullptr, false);
    if (root.is_discarded() || chance.OneIn(16)) {
        text.insert(chance.Below(text.size() + 1), chance.Of(kRaw));
        if (chance.OneIn(2)) MutateBytes(text, 16);
    } else {
        std::vector<Json*> nodes;
        CollectNodes(root, nodes);
        MutateNode(chance, *chance.Of(nodes), nodes, words);
        text = root.dump(-1, ' ', false, Json::error_handler_t::ignore);
    }
    std::ranges::replace(text, '\n', ' ');
}

void MutateLines(Chance& chance, std::vector<std::string>& lines, const Vocabulary& words) {
    const auto place = [&] { return lines.begin() + static_cast<std::ptrdiff_t>(chance.Below(lines.size() + 1)); };
    const size_t choice = lines.empty() ? 0 : chance.Below(16);
    if (choice == 0) {
        lines.insert(place(), chance.Of(words.lines));
    } else if (choice == 1) {
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(chance.Below(lines.size())));
    } else if (choice == 2) {
        lines.insert(place(), std::string(chance.Of(lines)));
    } else if (choice == 3) {
        chance.Of(lines).front() = static_cast<char>(chance.Below(256));
    } else {
        std::string& line = chance.Of(lines);
        std::string text = line.substr(1);
        MutateJson(chance, text, words);
        line.replace(1, std::string::npos, text);
    }
}

size_t Store(const std::vector<std::string>& lines, uint8_t* data, size_t maxSize) {
    std::string text;
    for (const std::string& line : lines) (text += line) += '\n';
    const size_t size = std::min(text.size(), maxSize);
    std::copy_n(text.begin(), size, data);
    return size;
}

std::vector<std::string> LinesOf(const uint8_t* data, size_t size) {
    return SplitLines({reinterpret_cast<const char*>(data), size});
}

}  // namespace
}  // namespace sim::fuzz

using namespace sim::fuzz;

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned seed) {
    Chance chance(seed);
    if (chance.OneIn(40)) return LLVMFuzzerMutate(data, size, maxSize);
    std::vector<std::string> lines = LinesOf(data, size);
    for (size_t i = 1 + chance.Below(3); i > 0; --i) MutateLines(chance, lines, TargetVocabulary());
    return Store(lines, data, maxSize);
}

extern "C" size_t LLVMFuzzerCustomCrossOver(const uint8_t* data1, size_t size1, const uint8_t* data2, size_t size2,
                                            uint8_t* out, size_t maxSize, unsigned seed) {
    Chance chance(seed);
    std::vector<std::string> lines = LinesOf(data1, size1);
    const std::vector<std::string> others = LinesOf(data2, size2);
    lines.resize(chance.Below(lines.size() + 1));
    lines.insert(lines.end(), others.begin() + static_cast<std::ptrdiff_t>(chance.Below(others.size() + 1)),
                 others.end());
    return Store(lines, out, maxSize);
}
