// Words of the command line that mean more than text: addresses, networks, ranges, spans of time.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Ostrel/Address.h"

#include "Terminal.h"

namespace ostrelctl {

constexpr size_t kLongestDomainName = 255;  // bytes, what option 15 holds

// An address in its subnet: "192.0.2.1/24".
struct Network {
    Ostrel_IPv4 address = kAnyIPv4;
    Ostrel_IPv4 mask = kAnyIPv4;
};

// "192.0.2.100-192.0.2.199", or its first address alone, which leaves `last` 0.0.0.0.
struct Range {
    Ostrel_IPv4 first = kAnyIPv4;
    Ostrel_IPv4 last = kAnyIPv4;
};

// False, with the output untouched, unless the whole text is one. Addresses are dotted quads in decimal, a prefix is 1
// to 32, a count is at least 1, a span of time is seconds or has a unit: 90, 90s, 30m, 12h, 7d.
[[nodiscard]] bool ReadAddress(const std::string& text, Ostrel_IPv4& address);
[[nodiscard]] bool ReadNetwork(const std::string& text, Network& network);
[[nodiscard]] bool ReadRange(const std::string& text, Range& range);
[[nodiscard]] bool ReadCount(const std::string& text, uint32_t& count);
[[nodiscard]] bool ReadNumber(const std::string& text, uint32_t& number);
[[nodiscard]] bool ReadSpan(const std::string& text, int64_t& seconds);

// An option whose value `read` understands. A line with another value is refused, as being no `expected`.
template <typename Value>
CLI::Option* AddParsed(CLI::App& command, const char* names, std::optional<Value>& value,
                       bool (*read)(const std::string&, Value&), const char* expected, const char* description) {
    const auto take = [&value, read](const CLI::results_t& texts) {
        Value parsed{};
        if (!read(texts.front(), parsed)) return false;
        value = parsed;
        return true;
    };
    const auto check = [read, expected](const std::string& text) -> std::string {
        Value parsed{};
        return read(text, parsed) ? "" : '\'' + Printable(text) + "' is not " + expected;
    };
    return command.add_option(names, take, description)->check(check);
}

// The same for one that may be repeated: each value is added.
template <typename Value>
CLI::Option* AddRepeated(CLI::App& command, const char* name, std::vector<Value>& values,
                         bool (*read)(const std::string&, Value&), const std::string& expected,
                         const char* description) {
    const auto take = [&values, read](const CLI::results_t& texts) {
        values.assign(texts.size(), Value{});
        for (size_t i = 0; i < texts.size(); ++i)
            if (!read(texts[i], values[i])) return false;
        return true;
    };
    const auto check = [read, expected](const std::string& text) -> std::string {
        Value parsed{};
        return read(text, parsed) ? "" : '\'' + Printable(text) + "' is not " + expected;
    };
    return command.add_option(name, take, description)
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->allow_extra_args(false)
        ->check(check);
}

CLI::Option* AddAddress(CLI::App& command, const char* name, std::optional<Ostrel_IPv4>& address,
                        const char* description);
CLI::Option* AddNetwork(CLI::App& command, const char* name, std::optional<Network>& network, const char* description);

// Text that goes to the daemon as it is: UTF-8 of 1 to `most` bytes.
CLI::Option* AddText(CLI::App& command, const char* name, std::optional<std::string>& text, size_t most,
                     const char* description);

// --dns, repeated or with commas between.
CLI::Option* AddDnsServers(CLI::App& command, std::vector<Ostrel_IPv4>& servers);

// IFACE, the interface. Whether there is one of that name is not looked at here.
CLI::Option* AddInterface(CLI::App& command, std::string& name);

// IFACE..., none or several.
CLI::Option* AddInterfaces(CLI::App& command, std::vector<std::string>& names);

}  // namespace ostrelctl
