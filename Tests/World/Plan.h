// What is going to happen in a world: who is on its segments, and a plain list of events. A plan is made from a seed
// before anything runs, so that it can be shown in words, and cut to what a failure needs.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "Sim.h"

namespace sim {

enum class Role : uint8_t { Client, ClientAndSelector, Fallback, Static, Server, ServerAndSelector, kCount };

// An interface of the daemon. Each stands for a device of its own.
struct Port {
    bool isThere = true;  // cut out otherwise
    uint32_t segment = 0;
    Role role = Role::Client;
    bool rfc = true;
    uint32_t leaseTime = 3600;  // seconds, of a server
    uint32_t slots = 30;
    uint32_t manner = 0;  // which of the optional keys it is given

    [[nodiscard]] bool Serves() const { return role == Role::Server || role == Role::ServerAndSelector; }
    [[nodiscard]] bool Asks() const { return !Serves() && role != Role::Static; }
    [[nodiscard]] bool Selects() const {
        return role == Role::ClientAndSelector || role == Role::Fallback || role == Role::ServerAndSelector;
    }
};

enum class Kind : uint8_t { Server, Client, LinkLocal, Squatter, Router, Mischief, kCount };
struct Bystander {
    bool isThere = true;
    Kind kind = Kind::Client;
    uint32_t segment = 0;
    uint32_t manner = 0;        // bits: how it behaves
    uint32_t leaseTime = 3600;  // seconds, of a server
};

enum class What : uint8_t {
    Wire,       // of a segment: loss, duplication, delay, in 1/1000
    Link,       // up or down
    Flaps,      // so many times, milliseconds apart
    Rename,     // to another name
    TakeOut,    // and put back so many seconds later, maybe with another MAC address
    NewMAC,     // another number
    Sleep,      // seconds
    Clock,      // the wall clock is set, by so many seconds less 100,000
    Restart,    // of the daemon; how much its controlling process gives back
    SendFault,  // short or refused, so many frames
    Memory,     // the n-th allocation from now fails
    Call,       // the n-th call of that kind to the device, and so many after it, fail
    Act,        // a word to the client and the selector
    Operate,    // a word to the server, for the n-th address
    HandOver,   // finalised, and handed over anew so many seconds later
    Listen,     // a caller subscribes
    Unlisten,   // a caller unsubscribes, leaves, stops reading or reads again
    Nonsense,   // a caller talks it
    Bystand,    // a neighbour is switched on or off, forgets, or is told how to behave
    Harm,       // a kind of it, an act every so many milliseconds, for so many seconds
    kCount,
};
constexpr size_t kWhats = static_cast<size_t>(What::kCount);
[[nodiscard]] const char* WhatName(What what);

struct Event {
    Duration time{0};
    What what = What::Wire;
    uint32_t who = 0;  // a segment, port, caller or bystander
    std::array<uint32_t, 3> values{};
};

struct Plan {
    uint64_t seed = 0;
    uint32_t segments = 1;
    std::vector<Port> ports{};
    std::vector<Bystander> bystanders{};
    std::vector<Event> events{};  // in the order of their times
    Duration turmoil{0};          // after which nothing of it is left but calm
};

constexpr uint32_t kCallers = 3;

// A world of that seed, with turmoil of so many hours.
[[nodiscard]] Plan MakePlan(uint64_t seed, uint32_t hours);
// In words, an event a line.
[[nodiscard]] std::string Describe(const Plan& plan);

// How many parts a plan has that it can do without, and the plan with those alone whose place is true in `keeps`.
[[nodiscard]] size_t PartsOf(const Plan& plan);
[[nodiscard]] Plan Cut(const Plan& plan, const std::vector<bool>& keeps);

}  // namespace sim
