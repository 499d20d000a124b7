// Plans from seeds, in words, and in parts.

#include "Plan.h"

#include <algorithm>
#include <cstdio>
#include <random>

#include "Neighbours.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr std::array<const char*, kWhats> kNames{
    "wire",  "link",    "flapping link", "rename", "taken out", "new MAC address", "sleep",     "clock set",
    "restart", "failing send", "failing allocation", "failing call", "lease action", "operator", "hand-over", "subscribe",
    "unsubscribe or not read", "nonsense", "neighbour", "harm"};

// How likely each event is beside the others.
constexpr std::array<uint32_t, kWhats> kWeights{8, 6, 5, 3, 3, 3, 5, 3, 3, 4, 5, 6, 12, 4, 4, 6, 6, 6, 14, 10};

struct Dice {
    std::mt19937_64 random;
    uint32_t operator()(uint64_t below) { return below == 0 ? 0 : static_cast<uint32_t>(random() % below); }
    bool Chance(uint32_t percent) { return (*this)(100) < percent; }
};

// Who serves a segment.
enum class Regime : uint8_t { Theirs, Ours, OursPlain, Both, Nobody, kCount };

Regime AddServers(Plan& plan, Dice& dice, uint32_t segment) {
    const auto regime = static_cast<Regime>(dice.Chance(10) ? 4 : dice(4));
    const bool isOurs = regime == Regime::Ours || regime == Regime::OursPlain || regime == Regime::Both;
    constexpr std::array<uint32_t, 5> kLeaseTimes{120, 600, 3600, 7200, 86400};
    if (isOurs)
        plan.ports.push_back({.segment = segment,
                              .role = dice.Chance(30) ? Role::ServerAndSelector : Role::Server,
                              .rfc = regime != Regime::OursPlain,
                              .leaseTime = kLeaseTimes.at(dice(kLeaseTimes.size())),
                              .manner = dice(256)});
    if (regime == Regime::Theirs || regime == Regime::Both)
        for (uint32_t i = dice.Chance(30) ? 2 : 1; i > 0; --i)
            plan.bystanders.push_back({.kind = Kind::Server,
                                       .segment = segment,
                                       .manner = dice(256),
                                       .leaseTime = kLeaseTimes.at(dice(kLeaseTimes.size()))});
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

uint32_t IndexOf(const Plan& plan, Dice& dice, What what) {
    switch (what) {
        case What::Wire:
            return dice(plan.segments);
        case What::Listen:
        case What::Unlisten:
        case What::Nonsense:
            return dice(kCallers);
        case What::Bystand:
        case What::Harm:
            return dice(plan.bystanders.size());
        default:
            return dice(plan.ports.size());
    }
}

std::array<uint32_t, 3> ValuesOf(Dice& dice, What what) {
    switch (what) {
        case What::Wire:
            if (dice.Chance(40)) return {};
            return {dice(400), dice(300), dice(500)};
        case What::Flaps:
            return {2 + dice(20), 10 + dice(3000), 0};
        case What::TakeOut:
            return {dice(60), dice(8), 0};
        case What::Sleep:
            return {dice.Chance(50) ? dice(120) : dice(20'000), 0, 0};
        case What::Clock:
            return {dice(200'000), 0, 0};
        case What::SendFault:
            return {dice(2), 1 + dice(4), 0};
        case What::Memory:
            return {1 + dice(20), 0, 0};
        case What::Call:
            return {dice(64), 1 + dice(6), 1 + dice(3)};
        case What::Harm:
            return {dice(kHarms), dice.Chance(30) ? 20 + dice(100) : 100 + dice(10'000), 1 + dice(120)};
        default:
            return {dice(64), dice(64), dice(64)};
    }
}

// The n-th bystander of that kind that is there.
std::string StationOf(const Plan& plan, const Event& event) {
    switch (event.what) {
        case What::Wire:
            return "segment " + std::to_string(event.who);
        case What::Listen:
        case What::Unlisten:
        case What::Nonsense:
            return "caller " + std::to_string(event.who);
        case What::Bystand:
        case What::Harm: {
            constexpr std::array<const char*, 6> kKinds{"server", "client", "link-local host", "squatter", "router",
                                                        "mischief"};
            return std::string(kKinds.at(static_cast<size_t>(plan.bystanders.at(event.who).kind))) + " " +
                   std::to_string(event.who);
        }
        default:
            return "port " + std::to_string(event.who);
    }
}

}  // namespace

const char* WhatName(What what) {
    return kNames.at(static_cast<size_t>(what));
}

Plan MakePlan(uint64_t seed, uint32_t hours) {
    Dice dice{std::mt19937_64(seed * 0x9E3779B97F4A7C15)};
    Plan plan{.seed = seed, .segments = dice.Chance(35) ? 2U : 1U};
    plan.turmoil = hours * Duration(1h);
    AddStations(plan, dice);
    if (plan.bystanders.empty()) plan.bystanders.push_back({});
    // Half of them close to each other, as troubles come.
    const uint32_t number = 20 + dice(40) + std::min(hours, 480U) * 2;
    Duration burst{0};
    std::discrete_distribution<uint32_t> pick(kWeights.begin(), kWeights.end());
    for (uint32_t i = 0; i < number; ++i) {
        const auto seconds = static_cast<uint64_t>(plan.turmoil / 1s);
        if (i % 8 == 0) burst = dice(seconds) * Duration(1s);
        const bool isInBurst = dice.Chance(60);
        const Duration time = (isInBurst ? burst + dice(120'000) * Duration(1ms) : dice(seconds) * Duration(1s)) +
                              Duration(dice(1'000'000));
        const auto what = static_cast<What>(pick(dice.random));
        plan.events.push_back({std::min(time, plan.turmoil), what, IndexOf(plan, dice, what), ValuesOf(dice, what)});
    }
    std::stable_sort(plan.events.begin(), plan.events.end(),
                     [](const Event& a, const Event& b) { return a.time < b.time; });
    return plan;
}

std::string Describe(const Plan& plan) {
    constexpr std::array<const char*, 6> kRoles{"client",        "client and selector", "client, selector as fallback",
                                                "static client", "server",              "server and selector"};
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
