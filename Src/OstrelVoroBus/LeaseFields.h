// Fields that the lease objects and the configuration dump share.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "Ostrel/Address.h"
#include "Ostrel/DHCPShared.h"

#include "valdo.h"

struct Ostrel_ClientLease;
struct Ostrel_SystemObj;

// "ipv4Router", "dnsServers" and "domainName" of a client's lease, each when the lease has it; no router beside static
// routes.
void Ostrel_VSUtil_PutNetwork(valdo::JValue& object, const Ostrel_ClientLease& lease);

// "leaseTimeString", "leaseExpiryString" and "leaseTime" of a lease that began at `began`, in seconds of the monotonic
// clock, and runs for `leaseTime` seconds. The strings are local time.
void Ostrel_VSUtil_PutLeaseTimes(Ostrel_SystemObj* sysObj, uint32_t began, uint32_t leaseTime, valdo::JValue& object);

// An address, or null for none.
void Ostrel_VSUtil_PutIPv4(valdo::JValue& object, const char* key, Ostrel_IPv4 address);

// The line of every slot of a server's table that is shown.
void Ostrel_VSUtil_LogServerTime(uint32_t leaseTime);

// A client identifier, type byte included, as the text after its type byte.
[[nodiscard]] std::string_view Ostrel_VSUtil_IdentifierText(std::span<const uint8_t> identifier);

// The Ethernet address that a client identifier is; none when it is of another type or too short for one.
[[nodiscard]] std::optional<Ostrel_MAC> Ostrel_VSUtil_IdentifierAddress(std::span<const uint8_t> identifier);
