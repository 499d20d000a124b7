// A caller's wishes for one interface, alive for one request: whoever keeps something copies it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Ostrel/Address.h"

constexpr size_t kInterfaceNameSize = 17;  // 16 characters and a NUL

// Roles; an interface may run any combination.
constexpr uint32_t kOstrelModeLinkLocal = 0x1;
constexpr uint32_t kOstrelModeDHCPClient = 0x2;
constexpr uint32_t kOstrelModeDHCPServer = 0x4;

// Where the DHCP client's parameters come from. 0, not given, is as kOstrelConfigDHCP.
constexpr uint32_t kOstrelConfigStatic = 1;             // all from the record, no DHCP exchange
constexpr uint32_t kOstrelConfigDHCP = 2;               // all by DHCP
constexpr uint32_t kOstrelConfigDHCPManualAddress = 4;  // the address from the record, the rest by DHCP

// Addresses of 0 were not given.
struct Ostrel_InterfaceConfig {
    std::array<char, kInterfaceNameSize> ifname;
    uint32_t mode;
    uint32_t configMode;
    Ostrel_IPv4 IPv4Address;  // the client's fixed address; the server's own
    Ostrel_IPv4 IPv4SubnetMask;
    Ostrel_IPv4 IPv4Router;
    std::array<Ostrel_IPv4, 3> IPv4DNSServers;  // in order of preference
    int32_t leaseTime;                          // seconds that the server grants
    Ostrel_IPv4 IPv4RangeStart;                 // first address of the server's range
    int32_t maxLeases;                          // addresses in it
    char* domainName;                           // NUL-terminated or null; owned by whoever filled the record
    char* clientIdentifier;                     // likewise
};
