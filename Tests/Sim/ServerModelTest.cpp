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

    [[nodiscard]] bool Tells() const override { return true; }

private:
    void Prune() override {
        for (Slot& slot : slots) {
            const bool isActive = slot.state == kLeaseStateActive;
            const uint32_t life = isActive ? static_cast<uint32_t>(wishes.leaseTime) : 10;
            const bool isOver = !slot.IsFree() && now - slot.offerTime >= life;
            if (threshold < 1000) SayPrune(slot, isOver, life);
            if (isOver) Clean(slot);
        }
    }

    void SayPrune(const Slot& slot, bool isOver, uint32_t life) {
        const std::string address = ToText(slot.address);
        Say(100, "[eth0] ### PRUNE LEASE ### Lease IPv4 <", address, ">, State <", slot.state, ">, MAC <",
            MACText(slot.mac), ">, Offer time <", slot.offerTime, ">, now <", now, ">.");
        if (slot.IsFree()) Say(100, "[eth0] ### PRUNE LEASE ### Lease ", address, " Free - do nothing.");
        if (!isOver) return;
        Say(800, "[eth0]  ### PRUNE LEASE ### Expire Lease ", address, " on ", MACText(slot.mac),
            slot.state == kLeaseStateActive ? " (lease active) Now " : " (Offered, never claimed) Now ", now,
            ", Offered at ", slot.offerTime, ", Lease Time ", life, ".");
    }

    void Clean(Slot& slot) {
        Say(800, "[eth0] Free Lease ", ToText(slot.address), " assigned to ", MACText(slot.mac), ".");
        slot = {slot.address};
    }

    Ostrel_Status Process(uint8_t type) override {
        if (type == kDiscover) return Discover();
        if (type == kRequest) return Request();
        if (type == kRelease) return Release();
        return type == kInform ? Inform() : kNoErr;
    }

    Ostrel_Status Discover() {
        SayFind(0);
        Slot* slot = Scan(kDiscover);
        if (slot == nullptr) return ++seen[0], Report(kNoFreeResourceErr, "ProcessDiscover");
        if (slot->state == kLeaseStateFree) slot->mac = source;
        const Ostrel_Status status = Send(kOffer, slot);
        if (status != kNoErr) return Report(status, "ProcessDiscover");
        slot->state = kLeaseStateOffered;
        slot->offerTime = now;
        return kNoErr;
    }

    void SayFind(IPv4 requested, uint8_t type = kDiscover) {
        Say(800, "[eth0] Find Lease for ", MACText(source), ", requested IPv4 of ", ToText(requested), ".");
        if (requested != 0 && !IsOfSubnet(requested))
            Say(800, "[eth0] SUBNET MISMATCH: ", MACText(source), " requested IPv4 of ", ToText(requested),
                " on subnet ", ToText(ToIPv4(wishes.address) & ToIPv4(wishes.mask)), ".");
        if (requested == 0 && type != kDiscover) Scan(type);
    }

    // A DISCOVER finds the station's slot, or the first free one; the others find none.
    Slot* Scan(uint8_t type) {
        Slot* candidate = nullptr;
        for (Slot& slot : slots) {
            const bool isCandidate = type == kDiscover && slot.IsFree() && candidate == nullptr;
            const bool isMatch = type == kDiscover && slot.mac == source;
            if (threshold < 1000) SayScan(slot, type, isCandidate, isMatch);
            if (isMatch) return &slot;
            if (isCandidate) candidate = &slot;
        }
        return candidate;
    }

    void SayScan(const Slot& slot, uint8_t type, bool isCandidate, bool isMatch) {
        const std::string at = Join("[eth0] Lease at index ", &slot - slots.data());
        Say(800, at, " has MAC <", MACText(slot.mac), "> and IPv4 <", ToText(slot.address), "> in state <", slot.state,
            ">, lease set to ");
        if (type != kDiscover) Say(800, "[eth0] msgType mismatch, expected 1, actual ", type, "...continue");
        if (isCandidate) Say(800, at, " possible lease candidate for MAC <", MACText(source), ">.");
        if (isMatch) Say(800, at, " match for MAC <", MACText(source), ">.");
    }

    // The slot of an address as it is found.
    void SayFound(const Slot& slot, bool isTaken = false) {
        Say(800, "[eth0] Lease at index ", &slot - slots.data(), ", IPv4 <", ToText(slot.address), "> free for MAC <",
            MACText(slot.mac), isTaken ? ">, assigned to MAC <" + MACText(source) : "", ">.");
    }

    Ostrel_Status Request() {
        const IPv4 requested = Address(50) != 0 ? Address(50) : Ciaddr();
        if (Address(50) == 0) Say(800, "[eth0] No requested address, so use ciaddr ", ToText(requested), ".");
        SayFind(requested, kRequest);
        Slot* slot = SlotOf(requested);
        const bool isTaken = slot != nullptr && slot->state != kLeaseStateFree && slot->mac != source;
        if (slot != nullptr) SayFound(*slot, isTaken);
        if (IsOfSubnet(requested) && !isTaken)
            for (Slot& each : slots) {
                if (&each == slot || each.mac != source) continue;
                SayFound(each);
                Clean(each);
            }
        if (slot == nullptr || isTaken) {
            Report(kNoFreeResourceErr, "ProcessRequest");
            return Publish(Send(kNak, nullptr));
        }
        Take(*slot, slot->offerTime == 0);
        return Acknowledge(*slot);
    }

    // The table as those who subscribed to it get it, without what clients call themselves.
    Ostrel_Status Publish(Ostrel_Status sent) override {
        if (sent == kNoErr && isPostRefused) sent = kGenericErr;
        if (sent != kNoErr || !isHeard) return Report(sent, "ProcessRequest");
        std::string table;
        for (const Slot& slot : slots) {
            if (slot.IsFree()) continue;
            MAC mac = slot.mac;
            if (slot.identifier && slot.identifier->size() > 6 && slot.identifier->front() == 1)
                std::copy_n(slot.identifier->begin() + 1, 6, mac.begin());
            const int64_t start = wallOffset + static_cast<int64_t>(milliseconds / 1000) - (now - slot.offerTime);
            table += Join(table.empty() ? "" : ",", R"({"ipv4Address":")", ToText(slot.address), R"(","mac":")",
                          MACText(mac), R"(","leaseTimeString":")", TimeText(start), R"(","leaseExpiryString":")",
                          TimeText(start + wishes.leaseTime), R"(","leaseTime":)", wishes.leaseTime, "}");
        }
        outcome.posts += R"({"returnValue":true,"leases":[{"interface":"eth0","leases":[)" + table + "]}]}\n";
        return kNoErr;
    }

    Ostrel_Status Release() {
        SayFind(Ciaddr(), kRelease);
        Slot* const slot = SlotOf(Ciaddr());
        const bool isOurs = slot != nullptr && !slot->IsFree() && slot->mac == source;
        if (slot != nullptr) SayFound(*slot, !isOurs);
        if (!isOurs) return Fail("lease", "ProcessRelease", kNoSuchItemErr);
        Clean(*slot);
        return kNoErr;
    }

    Ostrel_Status Inform() {
        SayFind(Ciaddr(), kInform);
        Slot* slot = SlotOf(Ciaddr());
        const Slot* const held =
            First([this](const Slot& each) { return each.state != kLeaseStateFree && each.mac == source; });
        const bool isOpen = slot != nullptr && (slot->IsFree() ? held == nullptr : slot->mac == source);
        if (slot != nullptr) SayFound(*slot, !isOpen);
        if (!isOpen) slot = nullptr;
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
        Say(800, "Ostrel_DHCPServerSend_BOOTPReply(eth0) DST IPv4 <", ToText(destination),
            "> because... source packet giaddr <", ToText(Giaddr()), ">, msgType <", TypeName(type), "> ciaddr <",
            ToText(ciaddr), "> flags <0x", Hex(message[11]), Hex(message[10]), "> yiaddr <", ToText(yiaddr), ">.");

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
