// What goes wrong between a server and honest clients, by either set of rules: in how many of so many random plays it
// happens. By the rfc rules in none.

#include <gtest/gtest.h>

#include "ServerScene.h"

namespace {

using namespace sim;

constexpr int32_t kLease = 120;  // seconds

class Scene {
public:
    Scene(bool rfc, uint64_t seed, int32_t slots)
        : lan({.maxLeases = slots, .leaseTime = kLease, .keys = rfc ? R"("rfc":true,"probe":0)" : ""}, seed) {
        lan.world.keepLog = false;
        lan.world.LeaveBus(":1.7");
    }
    uint32_t Draw(uint32_t below) { return static_cast<uint32_t>(lan.world.random() % below); }
    uint32_t Now() { return lan.world.MonotonicSeconds(); }
    void Wait(uint32_t seconds) { lan.world.RunFor(seconds * 1s); }

    // The address that a client gets by a whole exchange, or 0.
    IPv4 Bind(Guest& guest) {
        const auto offer = guest.Discover();
        if (!offer) return 0;
        const auto ack = guest.Request(ToText(offer->yiaddr));
        return ack && ack->Type() == kAck ? ack->yiaddr : 0;
    }

    ServerLan lan;
};

// A client extends its lease in time and is told each time that it has it for so long again; newcomers come and go.
bool TwoHostsHaveOneAddress(Scene& scene) {
    Guest host(scene.lan.wire, 1);
    const IPv4 address = scene.Bind(host);
    for (uint8_t round = 0; round < 8; ++round) {
        const uint32_t renewed = scene.Now();
        while (scene.Now() - renewed < kLease / 2) {
            Guest newcomer(scene.lan.wire, static_cast<uint8_t>(2 + scene.Draw(20)));
            if (scene.Bind(newcomer) == address) return true;
            scene.Wait(1 + scene.Draw(kLease / 4));
        }
        const auto ack = host.Ask(MessageFrom(host.mac, kRequest, ToText(address)));
        if (!ack || ack->Type() != kAck) return true;  // it has it, and is refused
    }
    return false;
}

// Somebody sits on the address that a client gets, and the client says so.
bool ADeclinedAddressComesAgain(Scene& scene) {
    Guest guest(scene.lan.wire, 1);
    const IPv4 address = scene.Bind(guest);
    DHCPMessage decline = MessageFrom(guest.mac, kDecline, "", ToText(address));
    decline.options.emplace_back(54, AddressBytes(kServerIPv4));
    guest.Ask(decline);
    scene.Wait(scene.Draw(kHoldTime));
    return scene.Bind(guest) == address;
}

// One station takes what a single one can, in any order.
bool OneStationStarvesAnother(Scene& scene) {
    constexpr std::array kTypes{kDiscover, kRequest, kInform, kDecline, kRelease};
    Guest greedy(scene.lan.wire, 1);
    for (int i = 0; i < 60; ++i) {
        const std::string any = ToText(ToIPv4("192.168.1.100") + scene.Draw(8));
        greedy.Ask(MessageFrom(greedy.mac, kTypes[scene.Draw(5)], any, scene.Draw(2) == 0 ? "" : any));
    }
    Guest other(scene.lan.wire, 2);
    return scene.Bind(other) == 0;
}

// Its client has chosen another server, or is bound to it.
bool AnotherServersClientIsRefused(Scene& scene) {
    Guest guest(scene.lan.wire, 1);
    const bool isBound = scene.Draw(2) == 0;
    const std::string address = "192.168.1." + std::to_string(2 + scene.Draw(90));
    DHCPMessage request = MessageFrom(guest.mac, kRequest, isBound ? address : "", isBound ? "" : address);
    if (!isBound) request.options.emplace_back(54, AddressBytes("192.168.1.2"));
    scene.lan.wire.sent.clear();
    guest.Ask(request);
    return scene.lan.wire.sent.size() > 1;
}

// Behind an extender, whose Ethernet address all their frames have.
bool TwoStationsShareAnAddress(Scene& scene) {
    Guest extender(scene.lan.wire, 9);
    std::array<IPv4, 2> addresses{};
    for (IPv4& address : addresses) {
        DHCPMessage message = MessageFrom(extender.mac, kDiscover);
        message.chaddr[5] = static_cast<uint8_t>(10 + (&address - addresses.data()));
        const auto offer = extender.Ask(message);
        if (!offer) return true;
        message.options = {{53, {kRequest}}, {50, AddressBytes(ToText(offer->yiaddr))}};
        const auto ack = extender.Ask(message);
        address = ack && ack->Type() == kAck ? ack->yiaddr : 0;
        scene.Wait(scene.Draw(kLease / 2));
    }
    return addresses[0] == addresses[1];
}

TEST(ServerHazard, HappensByTheRFCRulesInNoPlay) {
    struct Hazard {
        const char* name;
        bool (*happens)(Scene&);
        bool isPlain;  // by the plain rules it does
    };
    const Hazard hazards[] = {
        {"two hosts with one address", TwoHostsHaveOneAddress, true},
        {"a declined address again", ADeclinedAddressComesAgain, true},
        {"one station starves another", OneStationStarvesAnother, false},
        {"another server's client refused", AnotherServersClientIsRefused, true},
        {"two stations share an address", TwoStationsShareAnAddress, true},
    };
    const uint64_t seeds = Wished("OSTREL_HAZARD_SEEDS", 200);
    for (const Hazard& hazard : hazards) {
        std::array<uint32_t, 2> plays{};
        for (uint64_t seed = 1; seed <= seeds; ++seed) {
            for (const bool rfc : {false, true}) {
                Scene scene(rfc, seed, 8);
                plays.at(rfc) += hazard.happens(scene);
            }
        }
        RecordProperty(hazard.name, "plain " + std::to_string(plays[0]) + ", rfc " + std::to_string(plays[1]));
        std::cout << hazard.name << ": plain " << plays[0] << ", rfc " << plays[1] << " of " << seeds << '\n';
        EXPECT_EQ(plays[1], 0U) << hazard.name;
        EXPECT_EQ(plays[0] > 0, hazard.isPlain) << hazard.name;
    }
}

}  // namespace
