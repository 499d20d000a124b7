// The lease table against a model: the same rules as plain searches of an array, with no index to go wrong.
//
// Random stations do random things to both, now at trace level, where the table walks, now at another, where its index
// answers; after every step all slots must be equal.

#include <algorithm>
#include <endian.h>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <vector>

#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/Log.h"

#include "DHCPServer/LeaseTable.h"
#include "Sim.h"

namespace {

struct Pool {
    uint32_t start = 0xC0A80164;  // 192.168.1.100
    uint32_t mask = 0xFFFFFF00;
    int32_t slots = 2;
    uint32_t leaseTime = 60;
    uint32_t stations = 2;  // that play with it
};

struct ModelSlot {
    Ostrel_IPv4 address;
    Ostrel_LeaseState state = kLeaseStateFree;
    Ostrel_MAC mac{};
    uint32_t offerTime = 0;

    bool operator==(const ModelSlot&) const = default;
};

// The rules, over copies of the slots.
class Model {
public:
    explicit Model(const Pool& ofPool) : pool(ofPool) {
        Ostrel_IPv4 address = htobe32(pool.start);
        for (int32_t i = 0; i < pool.slots; ++i) {
            slots.push_back({address});
            auto* octets = reinterpret_cast<uint8_t*>(&address);
            if (++octets[3] == 0 && ++octets[2] == 0) ++octets[1];
        }
    }

    ModelSlot* Find(uint32_t type, const Ostrel_MAC& mac, Ostrel_IPv4 requested) {
        if (requested != 0 && ((be32toh(requested) ^ pool.start) & pool.mask) != 0) return nullptr;
        if (type == kDHCPDiscover) {
            ModelSlot* own = First([&](const ModelSlot& slot) { return slot.mac == mac; });
            return own != nullptr ? own : First([](const ModelSlot& slot) { return slot.state == kLeaseStateFree; });
        }
        if (requested == 0) return nullptr;
        ModelSlot* found = First([&](const ModelSlot& slot) { return slot.address == requested; });
        const bool isFree = found != nullptr && found->state == kLeaseStateFree;
        const bool holds =
            First([&](const ModelSlot& slot) { return slot.state != kLeaseStateFree && slot.mac == mac; });
        const bool mayHaveFree = type == kDHCPRequest || (type == kDHCPInform && !holds);
        if (found != nullptr && !(isFree ? mayHaveFree : found->mac == mac)) return nullptr;
        for (ModelSlot& slot : slots)
            if (type == kDHCPRequest && &slot != found && slot.mac == mac) slot = {slot.address};
        return found;
    }

    void Prune(uint32_t now) {
        for (ModelSlot& slot : slots) {
            const uint32_t life = slot.state == kLeaseStateActive ? pool.leaseTime : kOfferTimeout;
            if (slot.state != kLeaseStateFree && now - slot.offerTime >= life) slot = {slot.address};
        }
    }

    const Pool pool;
    std::vector<ModelSlot> slots;

private:
    ModelSlot* First(const std::function<bool(const ModelSlot&)>& fits) {
        const auto place = std::find_if(slots.begin(), slots.end(), fits);
        return place == slots.end() ? nullptr : &*place;
    }
};

// A server with a table and nothing else, and stations that do what stations do, to it and to the model alike.
class Play {
public:
    explicit Play(const Pool& pool, uint64_t seed = 1, uint32_t start = 0) : model(pool), random(seed), now(start) {
        iface.ifname = {"eth0"};
        server.iface = &iface;
        server.IPv4SubnetMask = htobe32(pool.mask);
        server.IPv4Subnet = htobe32(pool.start & pool.mask);
        server.IPv4RangeStart = htobe32(pool.start);
        server.maxLeases = pool.slots;
        server.leaseTime = pool.leaseTime;
        server.offerTimeout = kOfferTimeout;
        EXPECT_EQ(Ostrel_DHCPServer_LeasesInitialize(&server), kNoErr);
    }
    ~Play() { Ostrel_DHCPServer_LeasesFinalize(&server); }

    void Step() {
        if (Draw(4) == 0) now += Draw(3) == 0 ? Draw(12) : Draw(2);
        if (Draw(40) == 0) now += server.leaseTime / 2;
        if (Draw(20) == 0) Ostrel_SetDebugLevel(Draw(2) == 0 ? "trace" : "info");
        Ostrel_DHCPServer_LeasePrune(&server, now);
        model.Prune(now);
        // One station has no address of its own.
        const auto number = static_cast<uint8_t>(Draw(model.pool.stations));
        Act(std::array{kDHCPDiscover, kDHCPRequest, kDHCPInform, kDHCPRelease}[Draw(4)],
            number == 0 ? Ostrel_MAC{} : Ostrel_MAC{2, 0, 0, 0, 0, number}, DrawAddress());
    }

    // Every slot, and the walk over those in use. What differs from the last look is marked as changed.
    void ExpectTheSame() {
        const Ostrel_LeaseInformation* used = Ostrel_DHCPServer_LeaseNextUsed(&server, nullptr);
        for (size_t i = 0; i < model.slots.size(); ++i) {
            Ostrel_LeaseInformation& lease = server.leases[i];
            const ModelSlot& slot = model.slots[i];
            ASSERT_EQ(std::tie(lease.IPv4Address, lease.state, lease.srcMAC, lease.offerTime),
                      std::tie(slot.address, slot.state, slot.mac, slot.offerTime));
            ASSERT_TRUE(lease.changed || slot == seen[i]);
            lease.changed = false;
            seen[i] = slot;
            if (slot.state == kLeaseStateFree) continue;
            ASSERT_EQ(used, &lease);
            used = Ostrel_DHCPServer_LeaseNextUsed(&server, used);
        }
        ASSERT_EQ(used, nullptr);
    }

    void Act(uint8_t type, const Ostrel_MAC& mac, Ostrel_IPv4 address) {
        Ostrel_LeaseInformation* lease = nullptr;
        const Ostrel_Status status = Ostrel_DHCPServer_LeaseFindByMACAndIPv4(&server, type, mac, address, &lease);
        ModelSlot* slot = model.Find(type, mac, address);
        ASSERT_EQ(lease, slot == nullptr ? nullptr : &server.leases[slot - model.slots.data()]);
        ASSERT_EQ(status, lease == nullptr ? kNoFreeResourceErr : kNoErr);
        if (lease == nullptr) return;
        if (type == kDHCPDiscover) {
            Ostrel_DHCPServer_LeaseClaim(&server, lease, mac);
            if (slot->state == kLeaseStateFree) slot->mac = mac;
            if (Draw(6) == 0) return;  // the OFFER could not be sent
            Ostrel_DHCPServer_LeaseOffer(&server, lease, now);
            *slot = {slot->address, kLeaseStateOffered, slot->mac, now};
        } else if (type == kDHCPRelease) {
            Ostrel_DHCPServer_LeaseClean(&server, lease);
            *slot = {address};
        } else if (type == kDHCPRequest || slot->state == kLeaseStateFree) {
            Ostrel_DHCPServer_LeaseActivate(&server, lease, mac, now, {});
            const bool startsAnew = slot->state == kLeaseStateFree || slot->offerTime == 0;
            *slot = {address, kLeaseStateActive, startsAnew ? mac : slot->mac, startsAnew ? now : slot->offerTime};
        }
    }

    Ostrel_ServerObj server{};

private:
    uint32_t Draw(uint32_t below) { return static_cast<uint32_t>(random() % below); }

    // Mostly an address of the range or just past either end of it; sometimes none, or another subnet's.
    Ostrel_IPv4 DrawAddress() {
        const uint32_t choice = Draw(12);
        if (choice < 2) return choice == 0 ? 0 : htobe32(0xAC100001);
        return htobe32(model.pool.start + Draw(static_cast<uint32_t>(server.maxLeases) + 2) - 1);
    }

    Ostrel_InterfaceObj iface{};
    Model model;
    std::vector<ModelSlot> seen = model.slots;  // at the last look
    std::mt19937_64 random;
    uint32_t now;
};

TEST(LeaseTable, IsWhatTheWalksSay) {
    // Sizes around the words of the sets; lease times around that of an offer; ranges across the third octet's carry
    // and the second's; so few stations that they meet, and one that takes nearly everything.
    const Pool pools[] = {
        {.slots = 1, .leaseTime = 5, .stations = 3},
        {.slots = 6, .leaseTime = 60, .stations = 6},
        {.slots = 63, .leaseTime = 3, .stations = 34},
        {.slots = 65, .leaseTime = 10, .stations = 35},
        {.slots = 130, .leaseTime = 600, .stations = 68},
        {.slots = 130, .leaseTime = 600, .stations = 2},
        {.start = 0x0A01FFFA, .mask = 0xFF000000, .slots = 40, .leaseTime = 20, .stations = 23},
        {.start = 0x0AFFFFFE, .mask = 0, .slots = 4, .leaseTime = 20, .stations = 4},
    };
    for (uint64_t seed = 1; seed <= 80; ++seed) {
        sim::World world(seed);
        world.keepLog = false;
        Ostrel_SetDebugLevel("info");
        // Also from zero on, and across the end of the clock.
        Play play(pools[seed % std::size(pools)], seed, std::array{0U, 1000U, UINT32_MAX - 50}[seed % 3]);
        for (int step = 0; step < 300; ++step) {
            play.Step();
            play.ExpectTheSame();
            ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed << ", step " << step;
        }
    }
}

TEST(LeaseTable, WritesItsWalksAtTraceLevel) {
    sim::World world;
    Ostrel_SetDebugLevel("chatty");
    Play play({}, 1, 100);
    const Ostrel_MAC other{2, 0, 0, 0, 0, 0};
    const Ostrel_MAC holder{2, 0, 0, 0, 0, 1};
    play.Act(kDHCPInform, holder, htobe32(0xC0A80165));
    play.Act(kDHCPDiscover, holder, 0);
    play.Act(kDHCPInform, other, htobe32(0xC0A80165));
    play.Act(kDHCPInform, holder, htobe32(0x0A000001));
    play.Act(kDHCPInform, holder, 0);
    play.Act(kDHCPRequest, holder, htobe32(0xC0A80164));
    Ostrel_DHCPServer_LeasePrune(&play.server, 160);
    Ostrel_SetDebugLevel("info");
    for (const char* line :
         {"eth0 Adding 192.168.1.101 as an available lease.",
          "[eth0] Find Lease for 02:00:00:00:00:01, requested IPv4 of 0.0.0.0.",
          "[eth0] Lease at index 1 has MAC <02:00:00:00:00:01> and IPv4 <192.168.1.101> in state <5>, lease set to 0x",
          "[eth0] msgType mismatch, expected 1, actual 8...continue",
          "[eth0] Lease at index 0 possible lease candidate for MAC <02:00:00:00:00:01>.",
          "[eth0] Lease at index 1 match for MAC <02:00:00:00:00:01>.",
          "[eth0] SUBNET MISMATCH: 02:00:00:00:00:01 requested IPv4 of 10.0.0.1 on subnet 192.168.1.0.",
          "free for MAC <02:00:00:00:00:01>, assigned to MAC <02:00:00:00:00:00>.",
          "[eth0] Lease at index 1, IPv4 <192.168.1.101> free for MAC <02:00:00:00:00:01>.",
          "[eth0] Free Lease 192.168.1.101 assigned to 02:00:00:00:00:01.",
          "State <5>, MAC <02:00:00:00:00:01>, Offer time <100>, now <160>.",
          "(lease active) Now 160, Offered at 100, Lease Time 60.",
          "[eth0] ### PRUNE LEASE ### Lease 192.168.1.101 Free - do nothing."})
        EXPECT_TRUE(world.Logged(line)) << line;
}

}  // namespace
