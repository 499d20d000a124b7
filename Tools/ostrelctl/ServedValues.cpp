// Addresses for certain stations, and options, from the command line to the daemon's keys.
//
// An option is named or numbered. The names say how the value is meant; of another number the value tells itself:
// addresses, "hex:" and digits, or else text. What is wrong with a value that can be read here is for the daemon to
// say.
#include "ServedValues.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "Ostrel/OstrelJsonUtils.h"

#include "Arguments.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr std::string_view kHexMark = "hex:";
constexpr uint32_t kLongestLabel = 63, kMostHalf = 65535;

enum class Kind { Any, Addresses, Text, Half, Domains };

struct Named {
    std::string_view name;
    uint32_t code;  // RFC 2132, RFC 3397, RFC 4833, RFC 8910
    Kind kind;
};

constexpr std::array<Named, 9> kNamed{{{"log", 7, Kind::Addresses},
                                       {"mtu", 26, Kind::Half},
                                       {"ntp", 42, Kind::Addresses},
                                       {"wins", 44, Kind::Addresses},
                                       {"tftp", 66, Kind::Text},
                                       {"bootfile", 67, Kind::Text},
                                       {"timezone", 101, Kind::Text},
                                       {"portal", 114, Kind::Text},
                                       {"search", 119, Kind::Domains}}};

std::vector<std::string> PartsOf(const std::string& text, char separator) {
    std::vector<std::string> parts;
    for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
        end = text.find(separator, begin);
        parts.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
    }
    return parts;
}

bool ReadAddresses(const std::string& text, std::vector<Ostrel_IPv4>& addresses) {
    std::vector<Ostrel_IPv4> read;
    for (const std::string& part : PartsOf(text, ',')) {
        Ostrel_IPv4 address = kAnyIPv4;
        if (!ReadAddress(part, address)) return false;
        read.push_back(address);
    }
    addresses = std::move(read);
    return true;
}

void AppendByte(std::string& hex, uint32_t byte) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    hex += kDigits[byte / 16];
    hex += kDigits[byte % 16];
}

bool ReadHex(std::string_view digits, std::string& hex) {
    const bool isHex = std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
    if (!isHex || digits.empty() || digits.size() % 2 != 0) return false;
    hex = digits;
    return true;
}

bool ReadHalf(const std::string& text, std::string& hex) {
    uint32_t number = 0;
    if (!ReadNumber(text, number) || number > kMostHalf) return false;
    AppendByte(hex, number / 256);
    AppendByte(hex, number % 256);
    return true;
}

// Labels with their lengths (RFC 1035 section 3.1), one name after the other and none compressed.
bool ReadDomains(const std::string& text, std::string& hex) {
    std::string read;
    for (const std::string& name : PartsOf(text, ',')) {
        for (const std::string& label : PartsOf(name, '.')) {
            if (label.empty() || label.size() > kLongestLabel) return false;
            AppendByte(read, static_cast<uint32_t>(label.size()));
            for (const char c : label) AppendByte(read, static_cast<unsigned char>(c));
        }
        AppendByte(read, 0);
    }
    hex = std::move(read);
    return true;
}

bool ReadValue(const std::string& text, Kind kind, ServedOption& option) {
    if (text.starts_with(kHexMark)) return ReadHex(std::string_view(text).substr(kHexMark.size()), option.hex);
    switch (kind) {
        case Kind::Addresses:
            return ReadAddresses(text, option.addresses);
        case Kind::Half:
            return ReadHalf(text, option.hex);
        case Kind::Domains:
            return ReadDomains(text, option.hex);
        case Kind::Any:
            if (ReadAddresses(text, option.addresses)) return true;
            break;
        case Kind::Text:
            break;
    }
    option.text = text;
    return !text.empty();
}

bool ReadMAC(const std::string& text, std::string& mac) {
    const std::vector<std::string> bytes = PartsOf(text, ':');
    const auto isByte = [](const std::string& byte) {
        return byte.size() == 2 &&
               std::all_of(byte.begin(), byte.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
    };
    if (bytes.size() != 6 || !std::all_of(bytes.begin(), bytes.end(), isByte)) return false;
    mac = text;
    return true;
}

}  // namespace

bool ReadFixed(const std::string& text, FixedLease& fixed) {
    const size_t sign = text.find('=');
    if (sign == std::string::npos) return false;
    const std::string where = text.substr(sign + 1);
    const size_t comma = where.find(',');
    FixedLease read;
    if (comma != std::string::npos) read.hostName = where.substr(comma + 1);
    if (comma != std::string::npos && read.hostName.empty()) return false;
    if (!ReadMAC(text.substr(0, sign), read.mac) || !ReadAddress(where.substr(0, comma), read.address)) return false;
    fixed = std::move(read);
    return true;
}

bool ReadServedOption(const std::string& text, ServedOption& option) {
    const size_t sign = text.find('=');
    if (sign == std::string::npos) return false;
    const std::string word = text.substr(0, sign);
    ServedOption read;
    Kind kind = Kind::Any;
    const bool isNumber = ReadCount(word, read.code) && read.code < 255;
    const auto named = std::find_if(kNamed.begin(), kNamed.end(), [&](const Named& row) {
        return isNumber ? row.code == read.code : row.name == word;
    });
    if (!isNumber && named == kNamed.end()) return false;
    if (named != kNamed.end()) {
        read.code = named->code;
        kind = named->kind;
    }
    if (!ReadValue(text.substr(sign + 1), kind, read)) return false;
    option = std::move(read);
    return true;
}

std::string OptionWords() {
    std::string words = "such as ntp=192.0.2.3 or 43=hex:01020304; the names are";
    for (const Named& row : kNamed) words += (&row == kNamed.data() ? " " : ", ") + std::string(row.name);
    return words;
}

void PutFixed(JValue& request, const std::vector<FixedLease>& fixed) {
    if (fixed.empty()) return;
    JValue list = valdo::Array();
    for (const FixedLease& one : fixed) {
        JValue lease = valdo::Object();
        lease.put("macAddress", one.mac.c_str());
        OstrelJsonUtilsIPv4Put(lease, "ipv4Address", one.address);
        if (!one.hostName.empty()) lease.put("hostName", one.hostName.c_str());
        list.append(std::move(lease));
    }
    request.put("fixed", std::move(list));
}

void PutServedOptions(JValue& request, const std::vector<ServedOption>& options) {
    if (options.empty()) return;
    JValue list = valdo::Array();
    for (const ServedOption& one : options) {
        JValue option = valdo::Object();
        option.put("code", one.code);
        if (!one.addresses.empty())
            OstrelJsonUtilsIPv4ArrayPut(option, "ipv4", one.addresses);
        else
            option.put(one.hex.empty() ? "text" : "hex", (one.hex.empty() ? one.text : one.hex).c_str());
        list.append(std::move(option));
    }
    request.put("options", std::move(list));
}

}  // namespace ostrelctl
