// Fields that the lease objects and the configuration dump share.
//
// Lease times are kept on the monotonic clock. They are turned into wall-clock time when they are shown, so they follow
// every change of the system clock made since: what is shown is always "so many seconds before now" (WallClock.h). From
// there on all is 64 bits wide, since a lease may last 136 years.
//
// Host names and identifiers are what a client cared to send, any bytes at all; serialising mends what is not UTF-8.

#include "LeaseFields.h"

#include <algorithm>
#include <array>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/Log.h"
#include "Ostrel/OstrelJsonUtilsOptions.h"
#include "Ostrel/System.h"

#include "Method.h"
#include "os_time.h"

using valdo::JValue;

namespace {

void PutTime(JValue& object, const char* key, int64_t wallSeconds) {
    std::array<char, 256> text{};
    os_local_time_text(wallSeconds, text);
    Ostrel_ReplaceNewlineInTimeString(text);
    object.put(key, text.data());
}

std::span<const Ostrel_IPv4> AddressesOf(const os_array<Ostrel_IPv4>& addresses, int32_t count) {
    return {addresses.get(), static_cast<size_t>(std::max(count, 0))};
}

}  // namespace

void Ostrel_ReplaceNewlineInTimeString(std::span<char> text) {
    const auto newline = std::find(text.begin(), text.end(), '\n');
    if (newline != text.end()) *newline = '\0';
}

void Ostrel_VSUtil_PutNetwork(JValue& object, const Ostrel_ClientLease& lease) {
    if (!OstrelJsonUtilsHaveRoutes(lease.options))
        OstrelJsonUtilsIPv4ArrayPut(object, "ipv4Router", AddressesOf(lease.IPv4Routers, lease.numIPv4Routers));
    OstrelJsonUtilsIPv4ArrayPut(object, "dnsServers", AddressesOf(lease.IPv4DNSServers, lease.numIPv4DNSServers));
    if (lease.domainNameLen != 0) object.put("domainName", lease.domainName.get());
}

void Ostrel_VSUtil_PutIPv4(JValue& object, const char* key, Ostrel_IPv4 address) {
    if (address == kAnyIPv4)
        object.put(key, JValue());
    else
        OstrelJsonUtilsIPv4Put(object, key, address);
}

void Ostrel_VSUtil_LogServerTime(uint32_t leaseTime) {
    Ostrel_LogPrint(kQxLogDebug, "server  time <%d>\n", leaseTime);
}

void Ostrel_VSUtil_PutLeaseTimes(Ostrel_SystemObj* sysObj, uint32_t began, uint32_t leaseTime, JValue& object) {
    const int64_t start = Ostrel_WallClockTimeOf(&sysObj->wallClock, began);
    PutTime(object, "leaseTimeString", start);
    PutTime(object, "leaseExpiryString", start + int64_t{leaseTime});
    object.put("leaseTime", leaseTime);
}

std::string_view Ostrel_VSUtil_IdentifierText(std::span<const uint8_t> identifier) {
    return identifier.empty() ? std::string_view{} : OstrelJsonUtilsTextOf(identifier.subspan(1));
}

std::optional<Ostrel_MAC> Ostrel_VSUtil_IdentifierAddress(std::span<const uint8_t> identifier) {
    Ostrel_MAC address;
    if (identifier.size() <= address.size() || identifier[0] != kIdentifierTypeEthernet) return std::nullopt;
    std::copy_n(identifier.begin() + 1, address.size(), address.begin());
    return address;
}
