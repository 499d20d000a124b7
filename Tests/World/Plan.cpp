// Plans from seeds, in words, and in parts.

#include "Plan.h"

#include <algorithm>
#include <cstdio>
#include <random>

#include "Neighbours.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

enum class Whose : uint8_t { Segment, Port, Caller, Bystander, Nobody };

// Each event by What: how likely it is beside the others, to whom it happens, and what its values are below.
struct Row {
    const char* name;
    uint32_t weight;
    Whose whose;
    std::array<uint32_t, 3> below;
};
constexpr std::array<Row, kWhats> kRows{{
    {"wire", 8, Whose::Segment, {400, 300, 500}},
    {"link", 6, Whose::Port, {2, 1, 1}},
    {"flapping link", 5, Whose::Port, {20, 3000, 1}},
    {"rename", 3, Whose::Port, {2, 1, 1}},
    {"taken out", 3, Whose::Port, {60, 8, 1}},
    {"new MAC address", 3, Whose::Port, {4, 1, 1}},
    {"sleep", 5, Whose::Nobody, {20'000, 1, 1}},
    {"clock set", 3, Whose::Nobody, {200'000, 1, 1}},
    {"restart", 3, Whose::Nobody, {4, 1, 1}},
    {"failing send", 4, Whose::Port, {2, 4, 1}},
    {"failing allocation", 5, Whose::Nobody, {20, 1, 1}},
    {"failing call", 6, Whose::Nobody, {64, 6, 3}},
    {"lease action", 12, Whose::Port, {6, 1, 1}},
    {"operator", 4, Whose::Port, {3, 8, 1}},
    {"hand-over", 4, Whose::Port, {1, 1, 20}},
    {"subscribe", 6, Whose::Caller, {1, 1, 1}},
    {"unsubscribe or not read", 6, Whose::Caller, {4, 1, 1}},
    {"nonsense", 6, Whose::Caller, {9, 10, 1}},
    {"neighbour", 14, Whose::Bystander, {8, 64, 1}},
    {"harm", 10, Whose::Bystander, {kHarms, 10'000, 120}},
}};

struct Dice {
    std::mt19937_64 random;
    uint32_t operator()(uint64_t below) { return below == 0 ? 0 : static_cast<uint32_t>(random() % below); }
    bool Chance(uint32_t percent) { return (*this)(100) < percent; }
};

// Of a server; in a world of days longer ones, as what is new comes from events, not from renewals.
uint32_t DrawLeaseTime(const Plan& plan, Dice& dice) {
    constexpr std::array<uint32_t, 5> kSeconds{120, 600, 3600, 7200, 86400};
    const bool isLong = plan.turmoil > 24h && !dice.Chance(10);
    return kSeconds.at(isLong ? 2 + dice(3) : dice(kSeconds.size()));
}

// Who serves a segment.
enum class Regime : uint8_t { Theirs, Ours, OursPlain, Both, Nobody, kCount };

Regime AddServers(Plan& plan, Dice& dice, uint32_t segment) {
    const auto regime = static_cast<Regime>(dice.Chance(10) ? 4 : dice(4));
    const bool isOurs = regime == Regime::Ours || regime == Regime::OursPlain || regime == Regime::Both;
    if (isOurs)
        plan.ports.push_back({.segment = segment,
                              .role = dice.Chance(30) ? Role::ServerAndSelector : Role::Server,
                              .rfc = regime != Regime::OursPlain,
                              .leaseTime = DrawLeaseTime(plan, dice),
                              .manner = dice(256)});
    if (regime == Regime::Theirs || regime == Regime::Both)
        for (uint32_t i = dice.Chance(30) ? 2 : 1; i > 0; --i)
            plan.bystanders.push_back({.kind = Kind::Server,
                                       .segment = segment,
                                       .manner = dice(256),
                                       .leaseTime = DrawLeaseTime(plan, dice)});
    return regime;
}

void AddStations(Plan& plan, Dice& dice) {
    for (uint32_t segment = 0; segment < plan.segments; ++segment) {
        const Regime regime = AddServers(plan, dice, segment);
        for (uint32_t i = 1 + dice(4); i > 0; --i)
            plan.ports.push_back({.segment = segment,
                                  .role = static_cast<Role>(dice.Chance(10) ? 3 : dice(3)),
                                  .rfc = dice.Chance(65),
                                  .manner = dice(256)});
        const auto add = [&](Kind kind, uint32_t most) {
            for (uint32_t i = dice(most + 1); i > 0; --i)
                plan.bystanders.push_back({.kind = kind, .segment = segment, .manner = dice(256)});
        };
        add(Kind::Client, 4);
        add(Kind::LinkLocal, 1);
        if (regime != Regime::OursPlain) add(Kind::Squatter, 1);
        add(Kind::Mischief, 1);
    }
    if (plan.segments > 1) plan.bystanders.push_back({.kind = Kind::Router, .manner = dice(256)});
}

uint32_t DrawWho(const Plan& plan, Dice& dice, Whose whose) {
    switch (whose) {
        case Whose::Segment:
            return dice(plan.segments);
        case Whose::Port:
            return dice(plan.ports.size());
        case Whose::Caller:
            return dice(kCallers);
        case Whose::Bystander:
            return dice(plan.bystanders.size());
        case Whose::Nobody:
            return 0;
    }
    return 0;
}

Event DrawEvent(const Plan& plan, Dice& dice, What what, Duration time) {
    const Row& row = kRows.at(static_cast<size_t>(what));
    Event event{time, what, DrawWho(plan, dice, row.whose), {}};
    for (size_t i = 0; i < event.values.size(); ++i) event.values.at(i) = dice(row.below.at(i));
    if (what == What::Wire && dice.Chance(40)) event.values = {};        // it is mended
    if (what == What::Sleep && dice.Chance(50)) event.values[0] %= 120;  // a nap
    if (what == What::Harm && dice.Chance(30)) event.values[1] %= 100;   // more of it
    return event;
}

std::string StationOf(const Plan& plan, const Event& event) {
    constexpr std::array<const char*, 6> kKinds{"server",   "client", "link-local host",
                                                "squatter", "router", "mischief"};
    const std::string number = " " + std::to_string(event.who);
    switch (kRows.at(static_cast<size_t>(event.what)).whose) {
        case Whose::Segment:
            return "segment" + number;
        case Whose::Port:
            return "port" + number;
        case Whose::Caller:
            return "caller" + number;
        case Whose::Bystander:
            return kKinds.at(static_cast<size_t>(plan.bystanders.at(event.who).kind)) + number;
        case Whose::Nobody:
            return "device";
    }
    return "";
}

}  // namespace

const char* WhatName(What what) {
    return kRows.at(static_cast<size_t>(what)).name;
}

Plan MakePlan(uint64_t seed, uint32_t hours) {
    Dice dice{std::mt19937_64(seed * 0x9E3779B97F4A7C15)};
    Plan plan{.seed = seed, .segments = dice.Chance(35) ? 2U : 1U};
    plan.turmoil = hours * Duration(1h);
    AddStations(plan, dice);
    if (plan.bystanders.empty()) plan.bystanders.push_back({});
    // Half of them close to each other, as troubles come.
    const uint32_t number = 20 + dice(40) + std::min(hours, 24U) * 2 + hours / 8;
    Duration burst{0};
    std::vector<uint32_t> weights;
    for (const Row& row : kRows) weights.push_back(row.weight);
    std::discrete_distribution<uint32_t> pick(weights.begin(), weights.end());
    for (uint32_t i = 0; i < number; ++i) {
        const auto seconds = static_cast<uint64_t>(plan.turmoil / 1s);
        if (i % 8 == 0) burst = dice(seconds) * Duration(1s);
        const bool isInBurst = dice.Chance(60);
        const Duration time = (isInBurst ? burst + dice(120'000) * Duration(1ms) : dice(seconds) * Duration(1s)) +
                              Duration(dice(1'000'000));
        plan.events.push_back(
            DrawEvent(plan, dice, static_cast<What>(pick(dice.random)), std::min(time, plan.turmoil)));
    }
    std::stable_sort(plan.events.begin(), plan.events.end(),
                     [](const Event& a, const Event& b) { return a.time < b.time; });
    return plan;
}

std::string Describe(const Plan& plan) {
    constexpr std::array<const char*, 6> kRoles{
        "client", "client and selector", "client, selector as fallback", "static client",
        "server", "server and selector"};
    std::string text = "seed " + std::to_string(plan.seed) + ", " + std::to_string(plan.segments) + " segments, " +
                       std::to_string(plan.turmoil / 1h) + " h\n";
    for (size_t i = 0; i < plan.ports.size(); ++i) {
        const Port& port = plan.ports[i];
        if (!port.isThere) continue;
        text += "  port " + std::to_string(i) + " on segment " + std::to_string(port.segment) + ": " +
                kRoles.at(static_cast<size_t>(port.role)) + (port.rfc ? ", rfc" : ", plain") +
                (port.Serves() ? ", leases of " + std::to_string(port.leaseTime) + " s" : "") + "\n";
    }
    for (size_t i = 0; i < plan.bystanders.size(); ++i) {
        const Bystander& one = plan.bystanders[i];
        if (!one.isThere) continue;
        text += "  " + StationOf(plan, {.what = What::Bystand, .who = static_cast<uint32_t>(i)}) + " on segment " +
                std::to_string(one.segment) + ", manner " + std::to_string(one.manner) + "\n";
    }
    for (const Event& event : plan.events) {
        std::array<char, 160> line;
        std::snprintf(line.data(), line.size(), "  %12.6f s  %s: %s (%u, %u, %u)%s\n",
                      std::chrono::duration<double>(event.time).count(), StationOf(plan, event).c_str(),
                      WhatName(event.what), event.values[0], event.values[1], event.values[2],
                      event.what == What::Harm ? HarmName(static_cast<Harm>(event.values[0] % kHarms)) : "");
        text += line.data();
    }
    return text;
}

size_t PartsOf(const Plan& plan) {
    return plan.ports.size() + plan.bystanders.size() + plan.events.size();
}

Plan Cut(const Plan& plan, const std::vector<bool>& keeps) {
    Plan cut = plan;
    size_t part = 0;
    for (Port& port : cut.ports) port.isThere = port.isThere && keeps.at(part++);
    for (Bystander& one : cut.bystanders) one.isThere = one.isThere && keeps.at(part++);
    cut.events.clear();
    for (const Event& event : plan.events)
        if (keeps.at(part++)) cut.events.push_back(event);
    return cut;
}

}  // namespace sim
