// Hazards of real networks, and in how many of many worlds each happens to a client under either set of rules. Those
// that make it send too much are in ClientHazardTest.cpp, those of the server in ServerHazardTest.cpp.

#include <cstdio>
#include <cstdlib>

#include "Harness.h"

namespace sim {
namespace {

uint64_t Seeds() {
    const char* const asked = std::getenv("OSTREL_HAZARD_SEEDS");
    return asked == nullptr ? 25 : std::strtoull(asked, nullptr, 10);
}

Members RulesOf(bool rfc) {
    static const Members plain{};
    static const Members chosen{{"rfc", true}};
    return rfc ? chosen : plain;
}

Duration Draw(World& world, Duration below) {
    return Duration(static_cast<int64_t>(world.random() % static_cast<uint64_t>(below.count())));
}

// A stranger refuses the lease of a client that renews it.
bool ForeignRefusal(uint64_t seed, bool rfc) {
    Lan lan(seed, RulesOf(rfc));
    ScriptedServer server(lan.wire, {.leaseTime = 600});
    lan.Init();
    lan.RunFor(30s);
    EXPECT_EQ(lan.Lease().address, "192.0.2.10");
    ScriptedServer stranger(lan.wire, {.mac = kOtherMAC, .address = ToIPv4("192.0.2.66"), .silent = true});
    for (int i = 0; i < 20; ++i) {
        lan.RunFor(Draw(lan.world, 30s));
        DHCPMessage refusal = stranger.Answer({.ethernetSource = kClientMAC, .chaddr = kClientMAC}, kNak);
        refusal.xid = static_cast<uint32_t>(lan.world.random());
        stranger.Send(refusal);
    }
    return lan.Sent(kDiscover).size() > 1;  // it had to start over
}

// The first transaction id of a device that starts with this seed.
uint32_t FirstTransaction(uint64_t seed, bool rfc) {
    Lan lan(seed, RulesOf(rfc));
    lan.Init();
    lan.RunFor(10s);
    return lan.Sent(kDiscover).at(0).xid;
}

bool SameTransaction(uint64_t seed, bool rfc) {
    return FirstTransaction(2 * seed, rfc) == FirstTransaction(2 * seed + 1, rfc);
}

// A switch that is off for a while: how long the client waits once there is a server.
bool LongSilence(uint64_t seed, bool rfc) {
    Lan lan(seed, RulesOf(rfc));
    ScriptedServer server(lan.wire);
    server.script.silent = true;
    lan.Init();
    lan.RunFor(20min + Draw(lan.world, 10min));
    server.script.silent = false;
    lan.RunFor(90s);
    return lan.Lease().address != "192.0.2.10";
}

struct Hazard {
    const char* what;
    bool (*happens)(uint64_t seed, bool rfc);
};

constexpr Hazard kHazards[] = {
    {"a stranger's DHCPNAK takes a lease", ForeignRefusal},
    {"two devices begin with the same transaction id", SameTransaction},
    {"no address 90 s after a switch of 20 to 30 minutes' rest is back", LongSilence},
};

TEST(Hazard, HappensUnderThePlainRulesOnly) {
    const uint64_t seeds = Seeds();
    for (const Hazard& hazard : kHazards) {
        std::array<uint64_t, 2> times{};
        for (const bool rfc : {false, true})
            for (uint64_t seed = 1; seed <= seeds; ++seed) times[rfc] += hazard.happens(seed, rfc) ? 1 : 0;
        printf("| %s | %llu | %llu |\n", hazard.what, static_cast<unsigned long long>(times[0]),
               static_cast<unsigned long long>(times[1]));
        EXPECT_GT(times[0], 0U) << hazard.what;
        EXPECT_EQ(times[1], 0U) << hazard.what;
    }
}

}  // namespace
}  // namespace sim
