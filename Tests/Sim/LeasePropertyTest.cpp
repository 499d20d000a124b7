// What must hold whatever the network does: an address is never acknowledged, or offered, to one station while the
// server's own table says that another's lease of it, or offer, still lives; and after every frame the table's books
// and its index agree.
//
// Two hundred stations share a pool of 150 on a wire that loses, repeats and delays, one seed a run. They behave as
// stations do and sometimes as they should not: they forget, ask for what others have, and answer offers late.

#include <gtest/gtest.h>

#include "DHCPServer/LeaseTable.h"
#include "LeaseInvariants.h"
#include "ServerScene.h"

namespace {

using namespace sim;

constexpr uint32_t kStations = 200;
constexpr int32_t kPool = 150;
constexpr uint32_t kActions = 100;
constexpr Duration kPlay = 150s;
constexpr int32_t kLeaseTime = 90;
constexpr IPv4 kFirst = 0xC0A80164;

// Stands between the wire and eth0, and looks at the table before each frame and at the answer.
class Checkpoint : public Peer {
public:
    explicit Checkpoint(ServerLan& scene) : Peer(scene.wire, kClientMAC), lan(scene) {
        lan.wire.Detach(lan.eth0);
        lan.world.onSend = [this](std::span<const uint8_t> frame) { CheckAnswer(frame); };
    }
    ~Checkpoint() override { lan.world.onSend = nullptr; }

    void Receive(std::span<const uint8_t> frame) override {
        if (std::equal(mac.begin(), mac.end(), frame.begin() + 6)) return;  // eth0's own
        for (size_t slot = 0; slot < kPool; ++slot) holders[slot] = HolderOf(lan.Slot(slot));
        lan.eth0.Receive(frame);
        if (fault.empty()) fault = FindLeaseFault(lan.Server());
    }

    std::string fault;  // the first
    std::array<size_t, 9> answers{};

private:
    MAC HolderOf(const Ostrel_LeaseInformation& slot) {
        const uint32_t life = slot.state == kLeaseStateActive ? kLeaseTime : kOfferTimeout;
        const bool lives = slot.state != kLeaseStateFree && lan.world.MonotonicSeconds() - slot.offerTime < life;
        return lives ? slot.srcMAC : MAC{};
    }

    void CheckAnswer(std::span<const uint8_t> frame) {
        const std::optional<DHCPMessage> answer = ReadDHCP(frame);
        ++answers[answer->Type()];
        if (answer->Type() == kNak) return;
        const MAC& holder = holders.at(answer->yiaddr - kFirst);
        if (holder != MAC{} && holder != answer->ethernetDestination && fault.empty()) fault = DescribeFrame(frame);
    }

    ServerLan& lan;
    std::array<MAC, kPool> holders{};  // of the leases and offers that live; none: all zero
};

// All stations in one: it acts for each of them by its MAC.
class Crowd : public Peer {
public:
    explicit Crowd(ServerLan& scene) : Peer(scene.wire, {}), lan(scene), holds(kStations) {
        FillMost();
        for (uint32_t action = 0; action < kActions; ++action) {
            const Duration when(std::chrono::milliseconds(Draw(static_cast<uint32_t>(kPlay / 1ms))));
            lan.world.At(when, [this, station = Draw(kStations)] { Act(station); });
        }
    }

    void Receive(std::span<const uint8_t> frame) override {
        const std::optional<DHCPMessage> answer = ReadDHCP(frame);
        if (!answer || answer->destinationPort != 68) return;
        const uint32_t station = answer->ethernetDestination[5] % kStations;
        if (answer->Type() == kOffer) return Send(station, kRequest, "", ToText(answer->yiaddr));
        holds[station] = answer->yiaddr;  // none after a NAK
    }

private:
    uint32_t Draw(uint32_t below) { return static_cast<uint32_t>(lan.world.random() % below); }

    static MAC MACOf(uint32_t station) { return {2, 0, 0, 0, 0, static_cast<uint8_t>(station)}; }

    void Send(uint32_t station, MessageType type, std::string_view ciaddr = "", std::string_view requested = "") {
        lan.wire.Send(*this, WriteDHCP(MessageFrom(MACOf(station), type, ciaddr, requested)));
    }

    // The server has run for a while: every second station holds a lease, the first of them nearly over.
    void FillMost() {
        const uint32_t now = lan.world.MonotonicSeconds();
        for (uint32_t slot = 0; slot < kStations / 2; ++slot) {
            const uint32_t station = 2 * slot + Draw(2);
            const uint32_t taken = now - kLeaseTime + slot * kLeaseTime / kStations;
            Ostrel_DHCPServer_LeaseActivate(&lan.Server(), &lan.Slot(slot), MACOf(station), taken, {});
            holds[station] = kFirst + slot;
        }
    }

    void Act(uint32_t station) {
        const std::string any = ToText(kFirst + Draw(kPool + 2) - 1);
        if (holds[station] == 0) return Draw(10) == 0 ? Send(station, kRequest, "", any) : Send(station, kDiscover);
        const std::string own = ToText(holds[station]);
        const struct {
            MessageType type;
            std::string ciaddr, requested;
        } choices[] = {{kRelease, own, ""}, {kDiscover, "", ""}, {kInform, any, ""},
                       {kRelease, any, ""}, {kRequest, "", any}, {kRequest, own, ""}};
        const size_t choice = std::min(Draw(8), 5U);
        if (choice < 2) holds[station] = 0;
        Send(station, choices[choice].type, choices[choice].ciaddr, choices[choice].requested);
    }

    ServerLan& lan;
    std::vector<IPv4> holds;  // what each believes to hold
};

TEST(LeaseProperty, NoAddressHasTwoLivingLeases) {
    std::array<size_t, 9> answers{};
    for (uint64_t seed = 1; seed <= 1000; ++seed) {
        ServerLan lan({.maxLeases = kPool, .leaseTime = kLeaseTime}, seed);
        lan.world.keepLog = false;
        lan.world.LeaveBus(":1.7");  // nobody listens: the table as JSON is another test's
        lan.wire.sentLimit = 64;
        lan.wire.faults = {.loss = 100, .duplication = 100, .delay = 300, .maximumDelay = 12s};
        Checkpoint checkpoint(lan);
        Crowd crowd(lan);
        lan.world.RunFor(kPlay + 60s);
        ASSERT_EQ(checkpoint.fault, "") << "seed " << seed;
        for (size_t type = 0; type < answers.size(); ++type) answers[type] += checkpoint.answers[type];
    }
    // The play was worth watching.
    EXPECT_GT(answers[kOffer], 30'000U);
    EXPECT_GT(answers[kAck], 30'000U);
    EXPECT_GT(answers[kNak], 3'000U);
}

}  // namespace
