// Values of a file as words of a command line.
//
// What on the command line has marks of its own can be said in TOML's: a station with its address as a table, options
// as a table of their names, a list as an array.
#include "FileWords.h"

#include <optional>

#include "Terminal.h"

namespace ostrelctl {

namespace {

bool IsSwitch(const CLI::Option& option) {
    return option.get_items_expected_max() == 0;
}

bool TakesSeveral(const CLI::Option& option) {
    return option.get_items_expected_max() > 1;
}

std::optional<std::string> ScalarText(const toml::node& value) {
    if (const auto* const text = value.as_string()) return text->get();
    if (const auto* const number = value.as_integer()) return std::to_string(number->get());
    return std::nullopt;
}

// {mac = "...", address = "...", name = "..."} is "MAC=ADDR,NAME".
std::string FixedWord(const toml::table& station, std::string& problem) {
    std::string mac, address, name;
    for (const auto& [key, value] : station) {
        std::string* const part = key == "mac" ? &mac : key == "address" ? &address : key == "name" ? &name : nullptr;
        const auto text = ScalarText(value);
        if (part == nullptr || !text) problem = "a station has mac, address and name, all of them text";
        if (part != nullptr && text) *part = *text;
    }
    if (mac.empty() || address.empty()) problem = "a station needs mac and address";
    return mac + '=' + address + (name.empty() ? "" : ',' + name);
}

// The element of an array, or the value itself.
std::string ElementWord(const std::string& key, const toml::node& value, std::string& problem) {
    if (const auto* const table = value.as_table(); table != nullptr && key == "fixed")
        return FixedWord(*table, problem);
    const auto text = ScalarText(value);
    if (!text) problem = "is neither text nor a whole number";
    if (text && text->empty()) problem = "is empty";
    return text.value_or("");
}

// What a table names can have several values, which the command line has with commas between.
std::string NamedWord(const std::string& name, const toml::node& value, std::string& problem) {
    std::string word;
    if (const auto* const list = value.as_array())
        for (const toml::node& element : *list) word += (word.empty() ? "" : ",") + ElementWord("", element, problem);
    else
        word = ElementWord("", value, problem);
    return name + '=' + word;
}

std::string SwitchProblem(const CLI::Option& option) {
    const std::string values = option.get_type_name();
    return values.empty() ? "is neither true nor false" : "is neither true nor false nor \"fallback\"";
}

std::string AddSwitch(const CLI::Option& option, const std::string& key, const toml::node& value,
                      std::vector<std::string>& words) {
    if (const auto* const is = value.as_boolean()) {
        if (is->get()) words.push_back("--" + key);
        return {};
    }
    const auto text = ScalarText(value);
    if (!text || option.get_type_name().empty()) return SwitchProblem(option);
    words.push_back("--" + key + '=' + *text);
    return {};
}

}  // namespace

std::string AddWords(const CLI::Option& option, const std::string& key, const toml::node& value,
                     std::vector<std::string>& words) {
    if (IsSwitch(option)) return AddSwitch(option, key, value, words);
    std::string problem;
    const auto add = [&](const std::string& word) { words.push_back("--" + key + '=' + word); };
    const auto* const list = value.as_array();
    const auto* const table = value.as_table();
    if (list != nullptr && !TakesSeveral(option)) return "takes one value";
    if (list != nullptr)
        for (const toml::node& element : *list) add(ElementWord(key, element, problem));
    else if (table != nullptr && key == "option")
        for (const auto& [name, named] : *table) add(NamedWord(std::string(name.str()), named, problem));
    else
        add(ElementWord(key, value, problem));
    return problem;
}

}  // namespace ostrelctl
