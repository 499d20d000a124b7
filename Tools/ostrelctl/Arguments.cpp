// Words of the command line that mean more than text: addresses, networks, ranges, spans of time.
//
// Addresses are read strictly. The C library's older readers take "10.1" and "010.0.0.1" for addresses, and not for
// those that people mean by them.
#include "Arguments.h"

#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <limits>
#include <net/if.h>

#include "valdo.h"

namespace ostrelctl {

namespace {

bool ReadWhole(std::string_view text, uint32_t& number) {
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number);
    return failure == std::errc{} && stop == end;
}

// JSON is UTF-8, and what is not would reach the daemon mended, as another text.
bool SurvivesJson(const std::string& text) {
    std::string written, read;
    valdo::JDomParser parser;
    return valdo::JGenerator::toString(valdo::JValue(text), valdo::JSchemaFragment("{}"), written) &&
           parser.parse(written, valdo::JSchemaFragment("{}")) && parser.getDom().asString(read) == valdo::CONV_OK &&
           read == text;
}

std::string CheckAddress(const std::string& text) {
    Ostrel_IPv4 address = kAnyIPv4;
    return ReadAddress(text, address) ? "" : '\'' + Printable(text) + "' is not an address such as 192.0.2.1";
}

std::string CheckInterfaceName(const std::string& name) {
    const bool fits = !name.empty() && name.size() < IF_NAMESIZE;
    return fits ? "" : "an interface name has 1 to 15 characters, not '" + Printable(name) + "'";
}

}  // namespace

bool ReadAddress(const std::string& text, Ostrel_IPv4& address) {
    Ostrel_IPv4 parsed = kAnyIPv4;
    if (inet_pton(AF_INET, text.c_str(), &parsed) != 1) return false;
    address = parsed;
    return true;
}

bool ReadNetwork(const std::string& text, Network& network) {
    const size_t slash = text.find('/');
    Ostrel_IPv4 address = kAnyIPv4;
    uint32_t prefix = 0;
    if (slash == std::string::npos || !ReadAddress(text.substr(0, slash), address)) return false;
    if (!ReadWhole(std::string_view(text).substr(slash + 1), prefix) || prefix < 1 || prefix > 32) return false;
    network = {.address = address, .mask = htonl(~uint32_t{0} << (32 - prefix))};
    return true;
}

bool ReadRange(const std::string& text, Range& range) {
    const size_t dash = text.find('-');
    Range parsed;
    if (!ReadAddress(text.substr(0, dash), parsed.first)) return false;
    if (dash != std::string::npos && !ReadAddress(text.substr(dash + 1), parsed.last)) return false;
    range = parsed;
    return true;
}

bool ReadCount(const std::string& text, uint32_t& count) {
    uint32_t parsed = 0;
    if (!ReadWhole(text, parsed) || parsed == 0) return false;
    count = parsed;
    return true;
}

bool ReadNumber(const std::string& text, uint32_t& number) {
    uint32_t parsed = 0;
    if (!ReadWhole(text, parsed)) return false;
    number = parsed;
    return true;
}

bool ReadSpan(const std::string& text, int64_t& seconds) {
    struct Unit {
        char name;
        int64_t seconds;
    };
    constexpr std::array<Unit, 4> kUnits{{{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}}};
    std::string_view digits = text;
    int64_t factor = 1;
    for (const Unit& unit : kUnits) {
        if (digits.empty() || digits.back() != unit.name) continue;
        factor = unit.seconds;
        digits.remove_suffix(1);
        break;
    }
    uint32_t count = 0;
    if (!ReadWhole(digits, count)) return false;
    seconds = int64_t{count} * factor;
    return true;
}

CLI::Option* AddAddress(CLI::App& command, const char* name, std::optional<Ostrel_IPv4>& address,
                        const char* description) {
    return AddParsed(command, name, address, ReadAddress, "an address such as 192.0.2.1", description)
        ->type_name("ADDR");
}

CLI::Option* AddNetwork(CLI::App& command, const char* name, std::optional<Network>& network, const char* description) {
    return AddParsed(command, name, network, ReadNetwork, "an address with its prefix such as 192.0.2.1/24",
                     description)
        ->type_name("ADDR/PREFIX");
}

CLI::Option* AddText(CLI::App& command, const char* name, std::optional<std::string>& text, size_t most,
                     const char* description) {
    const auto check = [most](const std::string& word) -> std::string {
        if (word.empty() || word.size() > most)
            return "1 to " + std::to_string(most) + " bytes are possible, these are " + std::to_string(word.size());
        return SurvivesJson(word) ? "" : "'" + Printable(word) + "' is not UTF-8";
    };
    return command.add_option(name, text, description)->check(check)->type_name("TEXT");
}

CLI::Option* AddDnsServers(CLI::App& command, std::vector<Ostrel_IPv4>& servers) {
    const auto take = [&servers](const CLI::results_t& texts) {
        servers.assign(texts.size(), kAnyIPv4);
        for (size_t i = 0; i < texts.size(); ++i)
            if (!ReadAddress(texts[i], servers[i])) return false;
        return true;
    };
    return command.add_option("--dns", take, "DNS server; up to three, repeated or with commas between")
        ->type_name("ADDR")
        ->delimiter(',')
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->allow_extra_args(false)
        ->check(CheckAddress);
}

CLI::Option* AddInterface(CLI::App& command, std::string& name) {
    return command.add_option("IFACE", name, "The interface")->type_name("")->check(CheckInterfaceName);
}

CLI::Option* AddInterfaces(CLI::App& command, std::vector<std::string>& names) {
    return command.add_option("IFACE", names, "The interfaces")->type_name("")->check(CheckInterfaceName);
}

}  // namespace ostrelctl
