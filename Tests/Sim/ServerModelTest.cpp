// The server's plain rules in a play against the server; ServerModel.h has what a model is.

#include "ServerPlay.h"

namespace {

using namespace sim;
using namespace sim::model;
using sim::model::Bytes;

class PlainModel : public Model {
public:
    // The range goes on within the first octet.
    explicit PlainModel(const Game& ofGame) : Model(ofGame, 1) {
        const IPv4 network = ToIPv4(wishes.rangeStart) & 0xFF000000;
        for (Slot& slot : slots) slot.address = network | (slot.address & 0x00FFFFFF);
    }

private:
    void Prune() override {
        for (Slot& slot : slots) {
            const uint32_t life = slot.state == kLeaseStateActive ? static_cast<uint32_t>(wishes.leaseTime) : 10;
            if (slot.state != kLeaseStateFree && now - slot.offerTime >= life) slot = {slot.address};
        }
    }

    Ostrel_Status Process(uint8_t type) override {
        if (type == kDiscover) return Discover();
        if (type == kRequest) return Request();
        if (type == kRelease) return Release();
        return type == kInform ? Inform() : kNoErr;
    }

    Ostrel_Status Discover() {
        Slot* slot = First([this](const Slot& each) { return each.mac == source; });
        if (slot == nullptr) slot = First([](const Slot& each) { return each.state == kLeaseStateFree; });
        if (slot == nullptr) return ++seen[0], Report(kNoFreeResourceErr, "ProcessDiscover");
        if (slot->state == kLeaseStateFree) slot->mac = source;
        const Ostrel_Status status = Send(kOffer, slot);
        if (status != kNoErr) return Report(status, "ProcessDiscover");
        slot->state = kLeaseStateOffered;
        slot->offerTime = now;
        return kNoErr;
    }

    Ostrel_Status Request() {
        const IPv4 requested = Address(50) != 0 ? Address(50) : Ciaddr();
        Slot* slot = SlotOf(requested);
        const bool isTaken = slot != nullptr && slot->state != kLeaseStateFree && slot->mac != source;
        if (IsOfSubnet(requested) && !isTaken)
            for (Slot& each : slots)
                if (&each != slot && each.mac == source) each = {each.address};
        if (slot == nullptr || isTaken) {
            Report(kNoFreeResourceErr, "ProcessRequest");
            return Report(Send(kNak, nullptr), "ProcessRequest");
        }
        Take(*slot, slot->offerTime == 0);
        return Acknowledge(*slot);
    }

    Ostrel_Status Release() {
        Slot* const slot = SlotOf(Ciaddr());
        if (slot == nullptr || slot->state == kLeaseStateFree || slot->mac != source)
            return Fail("lease", "ProcessRelease", kNoSuchItemErr);
        *slot = {slot->address};
        return kNoErr;
    }

    Ostrel_Status Inform() {
        Slot* slot = SlotOf(Ciaddr());
        const Slot* const held =
            First([this](const Slot& each) { return each.state != kLeaseStateFree && each.mac == source; });
        if (slot != nullptr && slot->state == kLeaseStateFree && held != nullptr) slot = nullptr;
        if (slot != nullptr && slot->state != kLeaseStateFree && slot->mac != source) slot = nullptr;
        if (slot != nullptr && slot->state == kLeaseStateFree) Take(*slot, false);
        return Report(Send(slot != nullptr ? kAck : kNak, slot), "ProcessInform");
    }

    void Take(Slot& slot, bool anew) {
        if (anew || slot.state == kLeaseStateFree) {
            slot.mac = source;
            slot.offerTime = now;
        }
        slot.state = kLeaseStateActive;
    }

    Frame Reply(uint8_t type, const Slot* slot, const Bytes& asked) override {
        const IPv4 ciaddr = type == kAck ? Ciaddr() : 0;
        const IPv4 yiaddr = type == kNak ? 0 : slot->address;
        const bool isBroadcast = type == kNak || (ciaddr == 0 && (message[10] & 0x80) != 0);
        const IPv4 destination = Giaddr() != 0 ? Giaddr() : isBroadcast ? kEveryoneIPv4 : ciaddr != 0 ? ciaddr : yiaddr;

        Bytes reply = ReplyHead(type, Part(10, 2), ciaddr, yiaddr);
        if (type != kNak) Append(reply, {51, 4});
        if (type != kNak) Append(reply, OfNumber(static_cast<uint32_t>(wishes.leaseTime), 4));
        for (const uint8_t code : asked) {
            const std::optional<Bytes> answer = UsualAnswer(code);
            if (!answer || reply.size() + 2 + answer->size() + 1 > std::min(wishes.mtu - 28, 2006U)) continue;
            Append(reply, {code, static_cast<uint8_t>(answer->size())});
            Append(reply, *answer);
        }
        reply.push_back(255);
        return InFrame(reply, source, destination, 68);
    }
};

TEST(ServerModel, AgreesFrameByFrame) {
    // Sizes around the words of the index's sets; lease times around that of an offer; ranges across the third octet's
    // carry and the second's; and more stations than slots but for one, so that the table fills up.
    const std::string longName(255, 'n');
    const Game games[] = {
        {{.maxLeases = 1, .leaseTime = 5, .dnsServers = {"10.0.0.1"}}, 3},
        {{.maxLeases = 6, .leaseTime = 60, .domainName = "lan"}, 6},
        {{.maxLeases = 63, .leaseTime = 9, .dnsServers = {"10.0.0.1", "10.0.0.2"}, .domainName = longName}, 90},
        {{.maxLeases = 65, .leaseTime = 900, .domainName = longName, .mtu = 576}, 120},
        {{.maxLeases = 130, .leaseTime = 600, .domainName = longName, .mtu = 9000}, 260},
        {{.maxLeases = 130, .leaseTime = 600}, 2},
        // Address, mask, router, start of the range, leases, seconds.
        {{"10.0.0.1", "255.0.0.0", "10.0.0.1", "10.1.255.250", 40, 20}, 60},
        {{"10.0.0.5", "0.0.0.0", "10.0.0.5", "10.255.255.254", 4, 20}, 4},
        {{"10.0.0.1", "255.255.0.0", "10.0.0.1", "10.0.1.0", 260, 400}, 400},
    };
    // Clocks from zero on, from anywhere, and across their end.
    PlayGames(games, {0, 1000, UINT32_MAX - 50},
              [](const Game& game) -> std::unique_ptr<Model> { return std::make_unique<PlainModel>(game); });
}

}  // namespace
