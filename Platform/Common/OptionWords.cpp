// One table says how people call an option and what its value is: RFC 2132, and what devices meet of later ones.
//
// The data is a stranger's. A form takes the whole of it or nothing, and what it doesn't take is shown in hexadecimal:
// nothing is hidden, and nothing is shown for what it isn't. Texts have their control characters escaped.
#include "OptionWords.h"

#include <algorithm>
#include <array>
#include <optional>

namespace {

using Bytes = std::span<const uint8_t>;
using Words = std::optional<std::string>;  // nothing: the data is not of the form

constexpr size_t kAddressSize = 4;
constexpr size_t kMACSize = 6;
constexpr uint32_t kEndless = 0xFFFFFFFF;  // seconds
constexpr size_t kMaxNames = 1024;         // characters of the domain names of one option
constexpr uint8_t kPointerBits = 0xC0;     // RFC 1035 section 4.1.4
constexpr uint8_t kEncodedName = 0x04;     // flag E of RFC 4702: the name is as in the DNS

std::string Hex(Bytes data) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : data) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    return text;
}

uint32_t NumberIn(Bytes data) {
    uint32_t number = 0;
    for (const uint8_t byte : data) number = number << 8 | byte;
    return number;
}

std::string Escaped(std::string_view text) {
    std::string out(4 * text.size() + 1, '\0');  // "\x0a" for a byte at most
    const std::array<FormatArgument, 1> arguments{text};
    out.resize(FormatText(out, "%s", arguments));
    return out;
}

// One word for each element of so many bytes.
template <typename Word>
Words List(Bytes data, size_t elementSize, Word word) {
    if (data.empty() || data.size() % elementSize != 0) return std::nullopt;
    std::string text;
    for (; !data.empty(); data = data.subspan(elementSize))
        text += (text.empty() ? "" : ", ") + word(data.first(elementSize));
    return text;
}

Words Text(Bytes data) {
    while (!data.empty() && data.back() == 0) data = data.first(data.size() - 1);
    return Escaped({reinterpret_cast<const char*>(data.data()), data.size()});
}

// Text where it is nothing but that.
std::string TextOrHex(Bytes data) {
    const bool isText = std::ranges::all_of(data, [](uint8_t byte) { return byte >= ' ' && byte < 0x7F; });
    return isText ? std::string(data.begin(), data.end()) : Hex(data);
}

Words Opaque(Bytes data) {
    return Hex(data);
}

Words Readable(Bytes data) {
    return TextOrHex(data);
}

Words Addresses(Bytes data) {
    return List(data, kAddressSize, [](Bytes address) { return WordsOf("%.4a", address); });
}

Words Codes(Bytes data) {
    return List(data, 1, [](Bytes code) { return std::to_string(code[0]); });
}

Words Numbers(Bytes data) {
    return List(data, 2, [](Bytes number) { return std::to_string(NumberIn(number)); });
}

Words Number(Bytes data) {
    if (data.empty() || data.size() > sizeof(uint32_t)) return std::nullopt;
    return std::to_string(NumberIn(data));
}

Words Offset(Bytes data) {
    if (data.size() != sizeof(int32_t)) return std::nullopt;
    return std::to_string(static_cast<int32_t>(NumberIn(data))) + " s";
}

Words Seconds(Bytes data) {
    if (data.size() != sizeof(uint32_t)) return std::nullopt;
    const uint32_t seconds = NumberIn(data);
    return seconds == kEndless ? "endless" : std::to_string(seconds) + " s";
}

// Options without data are there or not.
Words Flag(Bytes data) {
    if (data.size() > 1 || (data.size() == 1 && data[0] > 1)) return std::nullopt;
    return data.empty() || data[0] == 1 ? "true" : "false";
}

Words MessageType(Bytes data) {
    if (data.size() != 1) return std::nullopt;
    return MessageTypeWords(data[0]);
}

// RFC 2132 section 9.14, and RFC 4361: 0 is text, 1 Ethernet, 255 the client's DUID behind a number of four bytes.
Words Identifier(Bytes data) {
    if (data.size() < 2) return std::nullopt;
    const Bytes value = data.subspan(1);
    if (data[0] == 0) return TextOrHex(value);
    if (data[0] == 1 && value.size() == kMACSize) return WordsOf("%.6a", value);
    if (data[0] == 255 && value.size() > 4) return "IAID " + Hex(value.first(4)) + " DUID " + Hex(value.subspan(4));
    return std::nullopt;
}

// RFC 3442: the width of the destination's mask, as many of its bytes as that needs, the router.
Words Routes(Bytes data) {
    std::string text;
    while (!data.empty()) {
        const size_t significant = (data[0] + 7U) / 8;
        if (significant > kAddressSize || data.size() - 1 < significant + kAddressSize) return std::nullopt;
        std::array<uint8_t, kAddressSize> destination{};
        std::ranges::copy(data.subspan(1, significant), destination.begin());
        text += WordsOf("%s%.4a/%u via %.4a", text.empty() ? "" : ", ", destination, data[0],
                        data.subspan(1 + significant, kAddressSize));
        data = data.subspan(1 + significant + kAddressSize);
    }
    return text;
}

// The labels at `place`, which is then behind them; a pointer goes to the front, further each time. At the end of the
// data a name ends, too: of RFC 4702 it may be a part. False for anything that is no name.
bool ReadName(Bytes data, size_t& place, std::string& name) {
    size_t from = place;
    size_t at = place;
    bool isBehind = false;  // a pointer
    while (at < data.size() && data[at] != 0) {
        const size_t length = data[at];
        if ((length & kPointerBits) == kPointerBits) {
            if (data.size() - at < 2) return false;
            if (!isBehind) place = at + 2;
            isBehind = true;
            at = (length & ~size_t{kPointerBits}) << 8 | data[at + 1];
            if (at >= from) return false;
            from = at;
            continue;
        }
        if (length > 63 || data.size() - at - 1 < length || name.size() > kMaxNames) return false;
        name += (name.empty() ? "" : ".") + *Text(data.subspan(at + 1, length));
        at += 1 + length;
    }
    if (!isBehind) place = at + 1;
    return true;
}

Words Domains(Bytes data) {
    std::string text;
    for (size_t place = 0; place < data.size();) {
        std::string name;
        if (!ReadName(data, place, name) || text.size() > kMaxNames) return std::nullopt;
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

// RFC 4702: flags, two bytes that mean nothing any more, the name.
Words FullName(Bytes data) {
    if (data.size() < 3) return std::nullopt;
    const Words name = (data[0] & kEncodedName) != 0 ? Domains(data.subspan(3)) : Text(data.subspan(3));
    if (!name) return std::nullopt;
    return WordsOf("flags %u, ", data[0]) + *name;
}

// RFC 3046: options within the option.
Words Relay(Bytes data) {
    std::string text;
    while (!data.empty()) {
        if (data.size() < 2 || data.size() - 2 < data[1]) return std::nullopt;
        text += WordsOf(text.empty() ? "%u " : ", %u ", data[0]) + TextOrHex(data.subspan(2, data[1]));
        data = data.subspan(2U + data[1]);
    }
    return text;
}

struct Known {
    uint8_t code;
    const char* name;
    Words (*form)(Bytes data);
};

// In the order of their codes.
constexpr Known kKnown[] = {
    {1, "subnetMask", Addresses},
    {2, "timeOffset", Offset},
    {3, "ipv4Router", Addresses},
    {4, "timeServers", Addresses},
    {5, "nameServers", Addresses},
    {6, "dnsServers", Addresses},
    {7, "logServers", Addresses},
    {8, "quoteServers", Addresses},
    {9, "lprServers", Addresses},
    {10, "impressServers", Addresses},
    {11, "resourceLocationServers", Addresses},
    {12, "hostName", Text},
    {13, "bootFileSize", Number},
    {14, "dumpFile", Text},
    {15, "domainName", Text},
    {16, "swapServer", Addresses},
    {17, "rootPath", Text},
    {18, "extensionsPath", Text},
    {19, "ipForwarding", Flag},
    {20, "sourceRouting", Flag},
    {21, "policyFilters", Addresses},
    {22, "maxReassembly", Number},
    {23, "defaultTtl", Number},
    {24, "pathMtuAging", Seconds},
    {25, "pathMtuPlateaus", Numbers},
    {26, "mtu", Number},
    {27, "allSubnetsLocal", Flag},
    {28, "broadcastAddress", Addresses},
    {29, "maskDiscovery", Flag},
    {30, "maskSupplier", Flag},
    {31, "routerDiscovery", Flag},
    {32, "routerSolicitation", Addresses},
    {33, "classfulRoutes", Addresses},
    {34, "trailerEncapsulation", Flag},
    {35, "arpCacheTimeout", Seconds},
    {36, "ethernetEncapsulation", Flag},
    {37, "tcpTtl", Number},
    {38, "tcpKeepalive", Seconds},
    {39, "tcpKeepaliveGarbage", Flag},
    {40, "nisDomain", Text},
    {41, "nisServers", Addresses},
    {42, "ntpServers", Addresses},
    {43, "vendorOptions", Opaque},
    {44, "netbiosNameServers", Addresses},
    {45, "netbiosDatagramServers", Addresses},
    {46, "netbiosNodeType", Number},
    {47, "netbiosScope", Text},
    {48, "fontServers", Addresses},
    {49, "displayManagers", Addresses},
    {50, "requestedAddress", Addresses},
    {51, "leaseTime", Seconds},
    {52, "overload", Number},
    {53, "messageType", MessageType},
    {54, "serverIdentifier", Addresses},
    {55, "requestOptions", Codes},
    {56, "message", Text},
    {57, "maxMessageSize", Number},
    {58, "renewalTime", Seconds},
    {59, "rebindingTime", Seconds},
    {60, "vendorClass", Readable},
    {61, "clientIdentifier", Identifier},
    {62, "netwareDomain", Text},
    {63, "netwareOptions", Opaque},
    {64, "nisPlusDomain", Text},
    {65, "nisPlusServers", Addresses},
    {66, "tftpServerName", Text},
    {67, "bootFile", Text},
    {68, "homeAgents", Addresses},
    {69, "smtpServers", Addresses},
    {70, "pop3Servers", Addresses},
    {71, "nntpServers", Addresses},
    {72, "wwwServers", Addresses},
    {73, "fingerServers", Addresses},
    {74, "ircServers", Addresses},
    {75, "streetTalkServers", Addresses},
    {76, "streetTalkDirectoryServers", Addresses},
    {77, "userClass", Readable},
    {80, "rapidCommit", Flag},
    {81, "fullName", FullName},
    {82, "relayAgent", Relay},
    {85, "ndsServers", Addresses},
    {86, "ndsTree", Text},
    {87, "ndsContext", Text},
    {88, "broadcastServiceDomains", Domains},
    {89, "broadcastServiceServers", Addresses},
    {90, "authentication", Opaque},
    {91, "lastTransaction", Seconds},
    {92, "associatedAddresses", Addresses},
    {93, "clientArchitecture", Numbers},
    {94, "networkInterface", Opaque},
    {97, "machineIdentifier", Opaque},
    {98, "userAuthentication", Text},
    {99, "civicLocation", Opaque},
    {100, "posixTimeZone", Text},
    {101, "timeZone", Text},
    {108, "ipv6OnlyWait", Seconds},
    {114, "captivePortal", Text},
    {116, "autoConfigure", Flag},
    {117, "nameServiceSearch", Numbers},
    {118, "subnetSelection", Addresses},
    {119, "searchDomains", Domains},
    {120, "sipServers", Opaque},
    {121, "staticRoutes", Routes},
    {123, "geoLocation", Opaque},
    {136, "panaAgents", Addresses},
    {137, "lostServer", Domains},
    {138, "capwapControllers", Addresses},
    {141, "sipDomains", Domains},
    {145, "forcerenewNonce", Opaque},
    {146, "dnsSelection", Opaque},
    {150, "tftpServers", Addresses},
    {158, "pcpServers", Opaque},
    {161, "mudUrl", Text},
    {209, "configFile", Text},
    {210, "pathPrefix", Text},
    {211, "rebootTime", Seconds},
    {212, "sixRd", Opaque},
    {213, "accessDomain", Domains},
    {249, "microsoftRoutes", Routes},
    {252, "proxyAutoConfig", Text},
};
static_assert(std::ranges::is_sorted(kKnown, {}, &Known::code));

const Known* Find(uint8_t code) {
    const Known* const found = std::ranges::lower_bound(kKnown, code, {}, &Known::code);
    return found == std::end(kKnown) || found->code != code ? nullptr : found;
}

}  // namespace

std::string MessageTypeWords(uint32_t type) {
    static constexpr std::array<const char*, 9> kNames{
        "DHCP without a type", "DHCPDISCOVER", "DHCPOFFER", "DHCPREQUEST", "DHCPDECLINE", "DHCPACK", "DHCPNAK",
        "DHCPRELEASE",         "DHCPINFORM"};
    return type < kNames.size() ? kNames[type] : WordsOf("DHCP %u", type);
}

const char* OptionName(uint8_t code) {
    const Known* const known = Find(code);
    return known == nullptr ? "" : known->name;
}

std::string OptionWords(uint8_t code, Bytes data) {
    const Known* const known = Find(code);
    const Words words = known == nullptr ? std::nullopt : known->form(data);
    return words ? *words : Hex(data);
}
