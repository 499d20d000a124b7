// A caller's wishes for one interface, alive for one request: whoever keeps something copies it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "Ostrel/Address.h"
#include "Ostrel/Rules.h"

#include "os_memory.h"

constexpr size_t kInterfaceNameSize = 17;  // 16 characters and a NUL

// Roles; an interface may run any combination.
constexpr uint32_t kOstrelModeLinkLocal = 0x1;
constexpr uint32_t kOstrelModeDHCPClient = 0x2;
constexpr uint32_t kOstrelModeDHCPServer = 0x4;

// Where the DHCP client's parameters come from. 0, not given, is as kOstrelConfigDHCP.
constexpr uint32_t kOstrelConfigStatic = 1;             // all from the record, no DHCP exchange
constexpr uint32_t kOstrelConfigDHCP = 2;               // all by DHCP
constexpr uint32_t kOstrelConfigDHCPManualAddress = 4;  // the address from the record, the rest by DHCP

// A DHCP option as it stands on the wire, which may be longer than one option holds: then it goes in parts (RFC 3396).
struct Ostrel_OptionValue {
    uint8_t code;
    bool forced;  // of a server: sent whether it is asked for or not
    os_array<uint8_t> data;
    uint32_t length;  // bytes
};

struct Ostrel_OptionList {
    os_records<Ostrel_OptionValue> values;  // in the order in which they were given
    uint32_t count;
};

[[nodiscard]] inline const Ostrel_OptionValue* Ostrel_FindOptionValue(const Ostrel_OptionList& list, uint8_t code) {
    for (uint32_t i = 0; i < list.count; ++i)
        if (list.values[i].code == code) return &list.values[i];
    return nullptr;
}

// Who a client is to a server: its MAC, or, when there is one, its identifier (option 61, type byte included).
struct Ostrel_ClientKey {
    Ostrel_MAC mac;
    os_array<uint8_t> identifier;
    uint32_t identifierLength;  // bytes; 0: none, the MAC counts
};

// An address that a server keeps for one client, inside or outside its range.
struct Ostrel_FixedLease {
    Ostrel_ClientKey client;
    Ostrel_IPv4 IPv4Address;
    os_array<char> hostName;  // NUL-terminated, or null
};

// A lease that a server had granted before, given back by whoever kept it.
struct Ostrel_KeptLease {
    Ostrel_ClientKey client;
    Ostrel_IPv4 IPv4Address;
    os_array<char> hostName;  // likewise
    uint32_t age;             // seconds since it was granted
    uint32_t remaining;       // seconds until it ends
};

// Values beside the usual ones. Nothing of a role's was given where a field is zero, null or empty.
struct Ostrel_ClientValues {
    Ostrel_OptionList sent;       // options of every DISCOVER and REQUEST: host name, classes and the like
    os_array<uint8_t> requested;  // codes asked for beside the usual ones; what comes under them is kept
    uint32_t numRequested;
    os_array<uint8_t> clientIdentifier;  // option 61, type byte included
    uint32_t clientIdentifierLength;
    bool broadcast;                    // replies are asked for by broadcast (RFC 2131 section 4.1)
    std::optional<uint32_t> arpCheck;  // milliseconds that an address is checked with ARP; 0: not at all
};

struct Ostrel_ServerValues {
    os_records<Ostrel_FixedLease> fixed;
    uint32_t numFixed;
    os_records<Ostrel_KeptLease> kept;
    uint32_t numKept;
    bool leasesFollow;              // more of them come after the call: the server is silent until then
    Ostrel_OptionList options;      // beside those that the server knows itself
    std::optional<uint32_t> probe;  // milliseconds that a free address is probed with ARP before it is offered; 0: not
};

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
    std::optional<bool> rfc;                    // whether the rfc rules were asked for; not given: the plain ones
    bool linkLocalFallback;                     // a link-local address only while the client has no lease
    Ostrel_ClientValues client;                 // roles may take what they keep
    Ostrel_ServerValues server;
    os_array<char> valueKeys;  // the keys beside the usual ones as the caller gave them, a JSON object; null: none
};

// The rules that a configuration asks for.
[[nodiscard]] inline const Ostrel_Rules* Ostrel_RulesOf(const Ostrel_InterfaceConfig& config) {
    return config.rfc.value_or(false) ? &kRFCRules : &kPlainRules;
}
