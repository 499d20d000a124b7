// What servers, neighbours, strangers, plugs and callers may do to a client, by either set of rules, with many seeds.
// Those of the server are in ServerHazardTest.cpp.
//
// Some make it send too much, for five minutes: by the rfc rules it never sends more than 4 frames in a second or 30 in
// a minute, and has a lease within two minutes of their end. Where the plain rules let it send more, the table says so:
// then the hazard is one. Others happen to it by the plain rules only.

#include <cstdlib>

#include "ClientScene.h"

namespace sim {
namespace {

constexpr Duration kPlay = 300s;

// What there is to act with.
struct Play {
    explicit Play(uint64_t seed, bool isRFC) : lan(seed, {{"rfc", isRFC}}), server(lan.wire), stranger(lan.wire) {
        lan.world.keepLog = false;
    }

    uint64_t Draw(uint64_t below) { return lan.world.random() % below; }
    // Calls `act` again and again, a random time of `shortest` to `longest` apart, until the play is over.
    void Repeat(Duration shortest, Duration longest, std::function<void()> act) {
        const Duration next =
            shortest + Duration(static_cast<int64_t>(Draw(static_cast<uint64_t>((longest - shortest).count() + 1))));
        if (lan.world.Now() + next >= kPlay) return;
        lan.world.At(next, [this, shortest, longest, act = std::move(act)] {
            act();
            Repeat(shortest, longest, act);
        });
    }

    // Hears everything, and answers as it is told.
    class Stranger : public Peer {
    public:
        explicit Stranger(Segment& wire) : Peer(wire, kOtherMAC) {}
        void Receive(std::span<const uint8_t> frame) override {
            if (onFrame) onFrame(frame);
        }
        void SendARP(uint16_t operation, IPv4 sender) {
            segment.Send(*this, WriteARP({kEveryone, operation, mac, sender, {}, sender}));
        }
        std::function<void(std::span<const uint8_t>)> onFrame;
    };

    Lan lan;
    ScriptedServer server;
    Stranger stranger;
    IPv4 seen = 0;  // the address that the client speaks of
};

using Hazard = void (*)(Play& play);

void OffersAndRefuses(Play& play) {
    play.server.script.tamper = [](DHCPMessage& answer) {
        if (answer.Type() == kAck) answer.options[0].second[0] = kNak;
    };
}

// Answers after up to 300 ms for whatever address is probed.
void OwnsEveryAddress(Play& play) {
    play.stranger.onFrame = [&play](std::span<const uint8_t> frame) {
        const std::optional<ARPFrame> arp = ReadARP(frame);
        if (!arp || play.lan.world.Now() > kPlay) return;
        play.lan.world.At(Duration(static_cast<int64_t>(play.Draw(300'000))),
                          [&play, target = arp->target] { play.stranger.SendARP(2, target); });
    };
}

// Refuses whatever is asked for, in the name of the server, with the transaction's id.
void ForgesRefusals(Play& play) {
    play.stranger.onFrame = [&play](std::span<const uint8_t> frame) {
        const std::optional<DHCPMessage> message = ReadDHCP(frame);
        if (!message || message->destinationPort != 67 || play.lan.world.Now() > kPlay) return;
        play.server.Send(play.server.Answer(*message, kNak));
    };
    play.Repeat(1ms, 50ms, [&play] {
        play.server.Send(play.server.Answer({.ethernetSource = kClientMAC, .chaddr = kClientMAC}, kNak));
    });
}

void ForgesARP(Play& play) {
    play.stranger.onFrame = [&play](std::span<const uint8_t> frame) {
        const std::optional<DHCPMessage> message = ReadDHCP(frame);
        if (message && message->yiaddr != 0) play.seen = message->yiaddr;
    };
    play.Repeat(1ms, 100ms, [&play] { play.stranger.SendARP(static_cast<uint16_t>(1 + play.Draw(2)), play.seen); });
}

// Now and then, so that there is a lease to lose.
void ForgesARPSeldom(Play& play) {
    ForgesARP(play);
    play.Repeat(1s, 20s, [&play] { play.stranger.SendARP(2, play.seen); });
}

void FlapsItsLink(Play& play) {
    play.Repeat(10ms, play.Draw(2) == 0 ? 500ms : 5s, [&play] { play.lan.world.SetLink("eth0", play.Draw(2) == 0); });
    play.lan.world.At(kPlay, [&play] { play.lan.world.SetLink("eth0", true); });
}

void GrantsSeconds(Play& play) {
    play.server.script.leaseTime = static_cast<uint32_t>(1 + play.Draw(8));
    play.lan.world.At(kPlay, [&play] { play.server.script.leaseTime = 3600; });
}

void IsToldToActAllTheTime(Play& play) {
    play.Repeat(1ms, 200ms, [&play] {
        constexpr std::array kWords{"init", "renew", "rebind"};
        play.lan.daemon.LeaseAction("eth0", kWords.at(static_cast<size_t>(play.Draw(kWords.size()))));
    });
}

void HasAServerThatComesAndGoes(Play& play) {
    play.Repeat(100ms, 10s, [&play] {
        play.server.script.silent = play.Draw(2) == 0;
        play.server.script.silentToRequest = play.Draw(2) == 0;
        play.server.script.leaseTime = static_cast<uint32_t>(1 + play.Draw(100));
    });
    play.lan.world.At(kPlay, [&play] { play.server.script = {}; });
}

void LivesOnABadWire(Play& play) {
    play.lan.wire.faults = {.loss = 300, .duplication = 300, .delay = 500, .maximumDelay = 3s};
    play.lan.world.At(kPlay, [&play] { play.lan.wire.faults = {}; });
}

struct Outcome {
    size_t tooMany = 0;  // seeds with more frames than the rules allow
    size_t worst = 0;    // frames in a second
    size_t noLease = 0;  // seeds without a lease two minutes after the hazard
};

Outcome Try(Hazard hazard, bool isRFC, uint64_t seeds) {
    Outcome outcome;
    for (uint64_t seed = 1; seed <= seeds; ++seed) {
        Play play(seed, isRFC);
        hazard(play);
        play.lan.Init();
        play.lan.RunFor(kPlay);
        play.server.script.tamper = nullptr;
        play.stranger.onFrame = nullptr;
        play.lan.RunFor(120s);
        const size_t worst = MostWithin(play.lan, 1s);
        outcome.worst = std::max(outcome.worst, worst);
        if (worst > 4 || MostWithin(play.lan, 60s) > 30) ++outcome.tooMany;
        if (!play.lan.daemon.system.interfaceList->leaseIsHeld) ++outcome.noLease;
    }
    return outcome;
}

TEST(ClientHazard, NeverMakesAClientSendMoreThanFourFramesASecondOrThirtyAMinute) {
    const struct {
        const char* what;
        Hazard hazard;
        bool floodsPlain;
    } hazards[] = {
        {"a server that offers and refuses", OffersAndRefuses, true},
        {"a host that has every address", OwnsEveryAddress, true},
        {"forged refusals", ForgesRefusals, true},
        {"forged ARP frames", ForgesARP, true},
        {"forged ARP frames, now and then", ForgesARPSeldom, true},
        {"a link that flaps", FlapsItsLink, false},
        {"leases of seconds", GrantsSeconds, true},
        {"a caller that acts all the time", IsToldToActAllTheTime, true},
        {"a server that comes and goes", HasAServerThatComesAndGoes, false},
        {"a wire that loses, repeats and delays", LivesOnABadWire, false},
    };
    const uint64_t seeds = Wished("OSTREL_HAZARD_SEEDS", 5);
    for (const auto& [what, hazard, floodsPlain] : hazards) {
        SCOPED_TRACE(what);
        const Outcome plain = Try(hazard, false, seeds);
        const Outcome rfc = Try(hazard, true, seeds);
        std::printf("%-40s plain: too many in %zu of %llu, at most %zu a second; rfc: %zu, %zu; no lease %zu, %zu\n",
                    what, plain.tooMany, static_cast<unsigned long long>(seeds), plain.worst, rfc.tooMany, rfc.worst,
                    plain.noLease, rfc.noLease);
        EXPECT_EQ(rfc.tooMany, 0U);
        EXPECT_EQ(rfc.noLease, 0U);
        EXPECT_TRUE(!floodsPlain || plain.tooMany != 0) << "then it is no hazard";
    }
}

Duration Draw(World& world, Duration below) {
    return Duration(static_cast<int64_t>(world.random() % static_cast<uint64_t>(below.count())));
}

// A stranger refuses the lease of a client that renews it.
bool ForeignRefusal(uint64_t seed, bool rfc) {
    Lan lan(seed, {{"rfc", rfc}});
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
    Lan lan(seed, {{"rfc", rfc}});
    lan.Init();
    lan.RunFor(10s);
    return lan.Sent(kDiscover).at(0).xid;
}

bool SameTransaction(uint64_t seed, bool rfc) {
    return FirstTransaction(2 * seed, rfc) == FirstTransaction(2 * seed + 1, rfc);
}

// A switch that is off for a while: how long the client waits once there is a server.
bool LongSilence(uint64_t seed, bool rfc) {
    Lan lan(seed, {{"rfc", rfc}});
    ScriptedServer server(lan.wire);
    server.script.silent = true;
    lan.Init();
    lan.RunFor(20min + Draw(lan.world, 10min));
    server.script.silent = false;
    lan.RunFor(90s);
    return lan.Lease().address != "192.0.2.10";
}

TEST(Hazard, HappensUnderThePlainRulesOnly) {
    const std::pair<const char*, bool (*)(uint64_t seed, bool rfc)> hazards[] = {
        {"a stranger's DHCPNAK takes a lease", ForeignRefusal},
        {"two devices begin with the same transaction id", SameTransaction},
        {"no address 90 s after a switch of 20 to 30 minutes' rest is back", LongSilence},
    };
    const uint64_t seeds = Wished("OSTREL_HAZARD_SEEDS", 25);
    for (const auto& [what, happens] : hazards) {
        std::array<uint64_t, 2> times{};
        for (const bool rfc : {false, true})
            for (uint64_t seed = 1; seed <= seeds; ++seed) times[rfc] += happens(seed, rfc) ? 1 : 0;
        std::printf("| %s | %llu | %llu |\n", what, static_cast<unsigned long long>(times[0]),
                    static_cast<unsigned long long>(times[1]));
        EXPECT_GT(times[0], 0U) << what;
        EXPECT_EQ(times[1], 0U) << what;
    }
}

}  // namespace
}  // namespace sim
