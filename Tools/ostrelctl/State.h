// What goes on with an interface, as the daemon tells it with "interfaceState".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Ostrel/Address.h"

#include "valdo.h"

namespace ostrelctl {

// A moment is whole seconds of the wall clock since 1970. An address that there is none of is kAnyIPv4.
using Moment = std::optional<int64_t>;

// Another host that has an address which was ours, or was to be.
struct Conflict {
    Ostrel_IPv4 address = kAnyIPv4;
    std::string mac{};

    bool operator==(const Conflict&) const = default;
};

struct ClientState {
    std::string state{};   // "BOUND"
    int64_t since = 0;     // it is in that state
    std::string reason{};  // "ack": why it came to be in it, or why its address went out of use
    Ostrel_IPv4 address = kAnyIPv4;
    bool held = false;  // the address may be used, and must not be when this is false
    Ostrel_IPv4 server = kAnyIPv4;
    Moment renews{}, rebinds{}, expires{}, nextTry{};
    int64_t tries = 0, refusals = 0;
    std::optional<Conflict> conflict{};

    bool operator==(const ClientState&) const = default;
};

struct LinkLocalState {
    std::string state{};
    int64_t since = 0;
    std::string reason{};
    Ostrel_IPv4 address = kAnyIPv4;
    bool held = false;
    int64_t conflicts = 0;

    bool operator==(const LinkLocalState&) const = default;
};

struct ServerState {
    std::string state{};
    int64_t active = 0, offered = 0, held = 0, free = 0;  // addresses

    bool operator==(const ServerState&) const = default;
};

// Texts are of letters, digits and what stands in addresses and names, and short: fit to be shown.
struct InterfaceState {
    std::string interface {};
    bool managed = false;  // if not, all else but the reason is empty
    std::string reason{};  // why it is not
    std::string mac{};
    std::string link{};   // "up", "down", "gone"; empty: nobody watches it
    std::string rules{};  // "rfc", "plain"
    std::optional<ClientState> client{};
    std::optional<LinkLocalState> linkLocal{};
    std::optional<ServerState> server{};
    valdo::JValue told{};  // all of it, as it came
};

// The interfaces in a reply or post of "interfaceState". One that is not understood is left out; a number or an address
// of another type or size reads as none.
[[nodiscard]] std::vector<InterfaceState> ReadStates(const valdo::JValue& root);

// The counter of that name in a group, "client" for instance, and how many frames of a role were dropped for a reason;
// 0 where there is none.
[[nodiscard]] int64_t CounterOf(const InterfaceState& state, const char* group, const char* name);
[[nodiscard]] int64_t DroppedOf(const InterfaceState& state, const char* group, const char* reason);

}  // namespace ostrelctl
