// What the daemon says of leases, read into records.
//
// The daemon writes times as local text ("Mon Nov 16 11:40:22 2026"), which a change of daylight saving time makes
// ambiguous for an hour a year. So only the beginning is read, and the end is counted from it; an hour that stands
// twice is taken as the one that agrees with a lease that has begun and not ended.
#include "Lease.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <ctime>
#include <endian.h>

#include "Ostrel/OstrelJsonUtils.h"

#include "Fields.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr int64_t kAlmostNow = 10;  // seconds that two readings of a clock may be apart

LeaseTimes TimesOf(const JValue& object) {
    const int64_t seconds = SecondsOf(object, "leaseTime");
    const bool ends = seconds != 0 && seconds != kInfiniteLease;  // 0: configured, not leased
    const int64_t began =
        ReadBeginning(TextOf(object, "leaseTimeString"), ends ? seconds : kInfiniteLease, std::time(nullptr));
    return {.began = began, .ends = ends ? began + seconds : kForever};
}

std::vector<LeaseRoute> RoutesOf(const JValue& list) {
    std::vector<LeaseRoute> routes;
    for (size_t i = 0; i < list.arraySize(); ++i) {
        const std::string text = TextOf(list[i], "destination");
        const size_t slash = text.find('/');
        LeaseRoute route{.router = AddressOf(list[i], "router")};
        const bool isRoute =
            slash != std::string::npos && OstrelJsonUtilsIPv4FromText(text.substr(0, slash), &route.destination) &&
            std::from_chars(&text[slash + 1], text.data() + text.size(), route.prefixLength).ec == std::errc{} &&
            route.prefixLength <= 32;
        if (isRoute) routes.push_back(route);
    }
    return routes;
}

std::vector<std::string> TextsOf(const JValue& list) {
    std::vector<std::string> texts;
    for (size_t i = 0; i < list.arraySize(); ++i) {
        std::string text;
        if (list[i].asString(text) == valdo::CONV_OK) texts.push_back(std::move(text));
    }
    return texts;
}

// The options that nothing here makes use of, by the names of what they say where they have one.
std::string OthersOf(const JValue& object) {
    struct Known {
        std::string_view code;
        const char* key;
        bool isUsed;
    };
    static constexpr std::array<Known, 13> kKnown{{{"1", "ipv4Subnet", true},
                                                   {"3", "ipv4Router", true},
                                                   {"6", "dnsServers", true},
                                                   {"12", "hostName", false},
                                                   {"15", "domainName", true},
                                                   {"26", "mtu", true},
                                                   {"42", "ntpServers", false},
                                                   {"58", "leaseTime", true},
                                                   {"59", "leaseTime", true},
                                                   {"114", "captivePortal", false},
                                                   {"119", "searchDomains", true},
                                                   {"121", "staticRoutes", true},
                                                   {"101", "timeZone", false}}};
    const JValue options = object["options"];
    std::string others;
    for (size_t i = 0; i < options.objectSize(); ++i) {
        const std::string_view code = options.memberName(i);
        const auto* const known =
            std::find_if(kKnown.begin(), kKnown.end(), [code](auto& k) { return k.code == code; });
        const bool hasName = known != kKnown.end() && object.hasKey(known->key);
        const bool isRouted = code == "3" && object.hasKey("staticRoutes");
        if (isRouted || (hasName && known->isUsed)) continue;
        others += (others.empty() ? "" : ", ") + (hasName ? known->key : "option " + std::string(code));
    }
    return others;
}

ClientLease ReadClientLease(const JValue& object) {
    ClientLease lease;
    lease.interface = TextOf(object, "interface");
    lease.address = AddressOf(object, "ipv4Address");
    lease.mask = AddressOf(object, "ipv4Subnet");
    lease.routers = AddressesOf(object, "ipv4Router");
    lease.dnsServers = AddressesOf(object, "dnsServers");
    lease.domainName = TextOf(object, "domainName");
    lease.routes = RoutesOf(object["staticRoutes"]);
    lease.searchDomains = TextsOf(object["searchDomains"]);
    lease.mtu = NumberOf(object, "mtu");
    lease.others = OthersOf(object);
    if (object.hasKey("leaseTimeString")) lease.times = TimesOf(object);
    return lease;
}

ServerLease ReadServerLease(const std::string& interface, const JValue& object) {
    return {.interface = interface,
            .address = AddressOf(object, "ipv4Address"),
            .mac = TextOf(object, "mac"),
            .hostName = TextOf(object, "hostName"),
            .clientIdentifier = TextOf(object, "clientIdentifier"),
            .times = TimesOf(object)};
}

}  // namespace

int64_t ReadBeginning(const std::string& text, int64_t leaseSeconds, int64_t now) {
    tm broken{};
    if (strptime(text.c_str(), "%a %b %d %H:%M:%S %Y", &broken) == nullptr) return 0;
    tm guess = broken;
    guess.tm_isdst = -1;
    const int64_t usual = std::mktime(&guess);
    for (const int daylightSaving : {0, 1}) {
        tm copy = broken;
        copy.tm_isdst = daylightSaving;
        const int64_t began = std::mktime(&copy);
        if (copy.tm_hour == broken.tm_hour && began <= now + kAlmostNow && now <= began + leaseSeconds) return began;
    }
    return usual;  // a lease that has ended, or a clock that was set in between
}

std::vector<ClientLease> ReadClientLeases(const JValue& root) {
    std::vector<ClientLease> leases;
    const JValue list = root["interfaceList"];
    for (size_t i = 0; i < list.arraySize(); ++i) {
        ClientLease lease = ReadClientLease(list[i]);
        if (!lease.interface.empty()) leases.push_back(std::move(lease));
    }
    return leases;
}

// A reply holds the interfaces under "interfaceList", a post under "leases".
std::vector<ServerLease> ReadServerLeases(const JValue& root) {
    std::vector<ServerLease> leases;
    const JValue list = root[root.hasKey("leases") ? "leases" : "interfaceList"];
    for (size_t i = 0; i < list.arraySize(); ++i) {
        const std::string interface = TextOf(list[i], "interface");
        const JValue table = list[i]["leases"];
        for (size_t j = 0; j < table.arraySize(); ++j) {
            ServerLease lease = ReadServerLease(interface, table[j]);
            if (lease.address != kAnyIPv4) leases.push_back(std::move(lease));
        }
    }
    return leases;
}

bool IsLinkLocal(Ostrel_IPv4 address) {
    return be32toh(address) >> 16 == 0xA9FE;
}

unsigned PrefixLength(Ostrel_IPv4 mask) {
    return static_cast<unsigned>(std::countl_one(be32toh(mask)));
}

std::string AddressText(Ostrel_IPv4 address) {
    return OstrelJsonUtilsIPv4ToText(address).data();
}

std::string AddressText(const std::vector<Ostrel_IPv4>& addresses) {
    std::string text;
    for (const Ostrel_IPv4 address : addresses) text += (text.empty() ? "" : ", ") + AddressText(address);
    return text;
}

std::string AddressWithPrefix(Ostrel_IPv4 address, Ostrel_IPv4 mask) {
    return AddressText(address) + '/' + std::to_string(PrefixLength(mask));
}

std::string SpanText(int64_t seconds) {
    struct Unit {
        int64_t seconds;
        const char* name;
    };
    constexpr std::array<Unit, 4> kUnits{{{86400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}}};
    for (size_t i = 0; i + 1 < kUnits.size(); ++i) {
        if (seconds < kUnits[i].seconds) continue;
        const int64_t rest = seconds % kUnits[i].seconds / kUnits[i + 1].seconds;
        const std::string smaller = rest == 0 ? "" : ' ' + std::to_string(rest) + kUnits[i + 1].name;
        return std::to_string(seconds / kUnits[i].seconds) + kUnits[i].name + smaller;
    }
    return std::to_string(seconds) + " s";
}

std::string ClockText(int64_t when, int64_t now) {
    const time_t shown = when, today = now;
    tm there{}, here{};
    if (localtime_r(&shown, &there) == nullptr || localtime_r(&today, &here) == nullptr) return "-";
    const bool sameDay = there.tm_yday == here.tm_yday && there.tm_year == here.tm_year;
    std::array<char, 32> text{};
    (void)std::strftime(text.data(), text.size(), sameDay ? "%H:%M:%S" : "%Y-%m-%d %H:%M", &there);
    return text.data();
}

}  // namespace ostrelctl
