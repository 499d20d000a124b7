// Hazards of real networks, and in how many of many worlds each happens under either set of rules. Docs/rfc.md shows
// the table that this prints with OSTREL_HAZARD_SEEDS=1000.
//
// Each hazard is a scene of its own, played once for a seed: what the seed draws is when things happen, and to whom.
// Under the rfc rules none of them may happen; under the plain ones each does, or the scene would show nothing.

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <endian.h>
#include <map>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/LinkLocal.h"

#include "ServerScene.h"

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

std::string KeysOf(bool rfc) {
    return rfc ? R"("rfc":true)" : "";
}

Duration Draw(World& world, Duration below) {
    return Duration(static_cast<int64_t>(world.random() % static_cast<uint64_t>(below.count())));
}

// The most frames that eth0 sent in any `window`.
size_t WorstOf(const Lan& lan, Duration window) {
    std::deque<Duration> recent;
    size_t worst = 0;
    for (const SentFrame& frame : lan.wire.sent) {
        if (frame.sender != &lan.eth0) continue;
        recent.push_back(frame.time);
        while (recent.front() <= frame.time - window) recent.pop_front();
        worst = std::max(worst, recent.size());
    }
    return worst;
}

// More than a client may send whatever it meets: four frames in a second or thirty in a minute.
bool IsStorm(const Lan& lan) {
    return WorstOf(lan, 1s) > 4 || WorstOf(lan, 60s) > 30;
}

// A server that offers, and refuses what it has offered.
bool StormAfterRefusals(uint64_t seed, bool rfc) {
    Lan lan(seed, RulesOf(rfc));
    ScriptedServer server(lan.wire);
    server.script.tamper = [](DHCPMessage& answer) {
        if (answer.Type() == kAck) answer.options[0].second[0] = kNak;
    };
    lan.Init();
    lan.RunFor(5min + Draw(lan.world, 1min));
    return IsStorm(lan);
}

// A host that answers for every address that there is.
bool StormInConflict(uint64_t seed, bool rfc) {
    Lan lan(seed, RulesOf(rfc));
    ScriptedServer server(lan.wire);
    std::deque<ArpHost> squatters;
    for (IPv4 i = 0; i < 400; ++i) squatters.emplace_back(lan.wire, kOtherMAC, ToIPv4("192.0.2.10") + i);
    lan.RunFor(Draw(lan.world, 1s));
    lan.Init();
    lan.RunFor(5min);
    return IsStorm(lan);
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

// What the guest is offered, within a second: a server may look first whether somebody has the address.
std::optional<DHCPMessage> OfferTo(Guest& guest) {
    guest.Discover();
    World::Get().RunFor(999ms);
    const auto last = guest.heard.empty() ? std::nullopt : ReadDHCP(guest.heard.back());
    return last && last->Type() == kOffer ? last : std::nullopt;
}

// A guest that renews in time believes in its lease as long as the server has said; another one asks each second.
bool TwoHostsWithOneAddress(uint64_t seed, bool rfc) {
    ServerLan lan({.maxLeases = 1, .leaseTime = 60, .keys = KeysOf(rfc)}, seed);
    Guest faithful(lan.wire, 1), other(lan.wire, 2);
    OfferTo(faithful);
    EXPECT_TRUE(faithful.Request("192.168.1.100"));
    Duration believesUntil = lan.world.Now() + 60s;
    Duration renews = lan.world.Now() + 20s + Draw(lan.world, 20s);
    for (int second = 0; second < 600; ++second) {
        if (lan.world.Now() >= renews && lan.world.Now() < believesUntil) {
            const auto answer = faithful.Ask(MessageFrom(faithful.mac, kRequest, "192.168.1.100"));
            if (answer && answer->Type() == kAck) believesUntil = lan.world.Now() + 60s;
            renews = lan.world.Now() + 20s + Draw(lan.world, 20s);
        }
        if (OfferTo(other) && lan.world.Now() < believesUntil) return true;
    }
    return false;
}

// A guest finds its address taken, says so, and asks again.
bool RefusedAddressAgain(uint64_t seed, bool rfc) {
    ServerLan lan({.maxLeases = 5, .keys = KeysOf(rfc)}, seed);
    Guest guest(lan.wire, 1);
    const auto first = OfferTo(guest);
    if (!first) return true;
    const std::string refused = ToText(first->yiaddr);
    guest.Request(refused);
    DHCPMessage decline = MessageFrom(guest.mac, kDecline, "", refused);
    decline.options.emplace_back(54, AddressBytes(kServerIPv4));
    guest.Ask(decline);
    lan.world.RunFor(10s + Draw(lan.world, 30s));
    const auto second = OfferTo(guest);
    return !second || ToText(second->yiaddr) == refused;
}

struct Hazard {
    const char* what;
    bool (*happens)(uint64_t seed, bool rfc);
};

constexpr Hazard kHazards[] = {
    {"more than 4 frames in a second or 30 in a minute, refused by a server", StormAfterRefusals},
    {"the same, in a conflict over every address", StormInConflict},
    {"a stranger's DHCPNAK takes a lease", ForeignRefusal},
    {"two devices begin with the same transaction id", SameTransaction},
    {"no address 90 s after a switch of 20 to 30 minutes' rest is back", LongSilence},
    {"one address for two hosts, one of which renews in time", TwoHostsWithOneAddress},
    {"a refused address is offered again", RefusedAddressAgain},
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
