// The server's rfc rules in a play against the server; ServerModel.h has what a model is. Here clients are compared by
// all bytes of their identity, times looked for in every slot. Where slots fall free in one moment, their order is told
// by a count of all that happened.

#include "ServerPlay.h"

namespace {

using namespace sim;
using namespace sim::model;
using sim::model::Bytes;

constexpr uint32_t kHold = 600;
constexpr uint32_t kBelieved = 4;  // slots held because of one
constexpr size_t kProbes = 32;

struct Probe {
    Slot* slot;
    Bytes client;
    uint64_t end;
    Frame frame;
};

class RFCModel : public Model {
public:
    // Interesting: addresses that were the client's, asked for, and free for longest; too many probes; probes that were
    // answered, and DECLINEs.
    explicit RFCModel(const Game& ofGame) : Model(ofGame, 6) {
        for (const Fixed& fixed : game.fixed) {
            const IPv4 address = ToIPv4(fixed.address);
            if (std::ranges::find(slots, address, &Slot::address) == slots.end()) slots.push_back({address});
        }
        std::sort(slots.begin() + wishes.maxLeases, slots.end(),
                  [](const Slot& one, const Slot& other) { return one.address < other.address; });
        for (const Fixed& fixed : game.fixed) {
            Slot& slot = *std::ranges::find(slots, ToIPv4(fixed.address), &Slot::address);
            slot.state = kLeaseStateKept;
            slot.isKept = true;
        }
    }

    // Probes that nobody has answered.
    Outcome PassTo(uint64_t time) override {
        Begin(time, {});
        while (!probes.empty() && probes.front().end <= time) {
            const Probe probe = probes.front();
            probes.erase(probes.begin());
            if (!IsWaitedFor(probe)) continue;
            now = static_cast<uint32_t>(probe.end / 1000);
            (void)Read(probe.frame);
            Report(Offer(*probe.slot), "ProbeEnds");
        }
        return outcome;
    }

    Outcome Hear(const ARPFrame& arp, uint64_t time, const Trouble& trouble) override {
        Begin(time, trouble);
        if (arp.senderMAC == kClientMAC || arp.senderMAC == MAC{}) return outcome;
        for (auto probe = probes.begin(); probe != probes.end(); ++probe) {
            const bool claims =
                arp.sender == probe->slot->address || (arp.sender == 0 && arp.target == probe->slot->address);
            if (!claims || !IsWaitedFor(*probe)) continue;
            Answered(*probe, arp.senderMAC);
            break;
        }
        return outcome;
    }

    [[nodiscard]] IPv4 ProbedAddress(uint64_t any) const override {
        return probes.empty() ? 0 : probes[static_cast<size_t>(any % probes.size())].slot->address;
    }

private:
    // What is over falls free: held ones, offers, leases; of each kind the oldest first.
    void Prune() override {
        const auto life = [this](const Slot& slot) {
            if (slot.state == kLeaseStateHeld) return kHold;
            return slot.state == kLeaseStateActive ? static_cast<uint32_t>(wishes.leaseTime) : 10 + game.probe / 1000;
        };
        for (const uint32_t state : {kLeaseStateHeld, kLeaseStateOffered, kLeaseStateActive}) {
            std::vector<Slot*> over;
            for (Slot& slot : slots)
                if (slot.state == state && now - slot.offerTime >= life(slot)) over.push_back(&slot);
            std::ranges::sort(over, {}, [state](const Slot* slot) {
                return state == kLeaseStateActive ? slot->began : slot->entered;
            });
            for (Slot* const slot : over) Rest(*slot);
        }
    }

    void Rest(Slot& slot) {
        Bytes former;
        if (slot.IsUsed() && slot.hadIt && !slot.isKept) former = slot.client;
        for (Slot& other : slots) {
            if (former.empty() || !other.IsFree() || other.client != former) continue;
            other.client.clear();
            other.mac = {};
            other.hadIt = false;
        }
        slot = {.address = slot.address,
                .state = slot.isKept ? kLeaseStateKept : kLeaseStateFree,
                .client = former,
                .hadIt = !former.empty(),
                .wasLeased = slot.wasLeased,
                .isKept = slot.isKept,
                .entered = ++count};
    }

    Ostrel_Status Read(const Frame& received) override {
        const Ostrel_Status status = Model::Read(received);
        if (status != kNoErr) return status;
        frame = received;
        std::copy_n(message.begin() + 28, station.size(), station.begin());
        client = Identifier();
        if (client.empty()) {
            client = {message[1]};
            Append(client, Part(28, std::min<ptrdiff_t>(message[2], 16)));
        }
        return kNoErr;
    }

    Ostrel_Status Process(uint8_t type) override {
        if (Giaddr() != 0 && !IsOfSubnet(Giaddr())) return kNoErr;
        if (type == kDiscover) return Discover();
        if (type == kRequest) return Request();
        if (type == kDecline) return Decline();
        if (type == kRelease) return Release();
        return type == kInform ? Inform() : kNoErr;
    }

    // The slot that is kept for the client, unless somebody else sits on it.
    Slot* KeptSlot() {
        Bytes address = {1};
        Append(address, {station.begin(), station.end()});
        for (const Bytes& identity : {Identifier(), address}) {
            for (const auto& fixed : game.fixed) {
                if (identity.empty() || fixed.identity != identity) continue;
                Slot* const slot = SlotOf(ToIPv4(fixed.address));
                return slot->state == kLeaseStateHeld ? nullptr : slot;
            }
        }
        return nullptr;
    }

    Slot* Choose() {
        if (Slot* const fixed = KeptSlot()) return fixed;
        if (Slot* const own = First([this](const Slot& slot) { return slot.IsUsed() && slot.client == client; }))
            return own;
        if (Slot* const former = First([this](const Slot& slot) { return slot.IsFree() && slot.client == client; }))
            return ++seen[0], former;
        Slot* const wished = SlotOf(Address(50));
        if (wished != nullptr && wished->IsFree()) return ++seen[1], wished;
        if (Slot* const unused = First([](const Slot& slot) { return slot.IsNew(); })) return unused;
        Slot* longest = nullptr;
        for (Slot& slot : slots)
            if (slot.IsFree() && (longest == nullptr || slot.entered < longest->entered)) longest = &slot;
        return ++seen[2], longest;
    }

    Ostrel_Status Discover() {
        Slot* const slot = Choose();
        if (slot == nullptr) return Report(kNoFreeResourceErr, "ProcessDiscover");
        for (Probe& probe : probes) {
            if (probe.slot != slot || probe.client != client || !IsWaitedFor(probe)) continue;
            if (Allocate())
                probe.frame = frame;
            else
                Report(kOutOfMemoryErr, "ProbeIsUnderWay");
            return kNoErr;
        }
        const bool isProbed = game.probe != 0 && !slot->IsUsed() && !(slot->client == client && slot->hadIt);
        Claim(*slot);
        if (isProbed && BeginProbe(*slot)) {
            MarkOffered(*slot);
            return kNoErr;
        }
        return Report(Offer(*slot), "ProcessDiscover");
    }

    bool BeginProbe(Slot& slot) {
        std::erase_if(probes, [&slot](const Probe& probe) { return probe.slot == &slot; });
        if (probes.size() == kProbes) return ++seen[3], false;
        if (!Allocate()) return false;
        const SendFault fault = std::exchange(untilSendFault, SendFault::None);
        if (fault == SendFault::Short) return false;
        if (fault == SendFault::None) {
            outcome.sent.push_back(WriteARP(
                {.ethernetDestination = kEveryone, .operation = 1, .senderMAC = kClientMAC, .target = slot.address}));
            outcome.sent.back().resize(42);
        }
        probes.push_back({&slot, client, milliseconds + game.probe, frame});
        return true;
    }

    [[nodiscard]] static bool IsWaitedFor(const Probe& probe) {
        return probe.slot->state == kLeaseStateOffered && probe.slot->client == probe.client;
    }

    void Answered(Probe& probe, const MAC& host) {
        (void)Read(probe.frame);
        if (host == station || host == source) return;
        Bytes identity = {1};
        Append(identity, {host.begin(), host.end()});
        if (HeldFor(identity).size() >= kBelieved) return;
        Slot& slot = *probe.slot;
        probes.erase(probes.begin() + (&probe - probes.data()));
        ++seen[4];
        Hold(slot, host, identity);
        Report(Discover(), "ProbeFails");
    }

    std::vector<Slot*> HeldFor(const Bytes& identity) {
        std::vector<Slot*> held;
        for (Slot& slot : slots)
            if (slot.state == kLeaseStateHeld && slot.client == identity) held.push_back(&slot);
        return held;
    }

    void Hold(Slot& slot, const MAC& host, const Bytes& identity) {
        const std::vector<Slot*> held = HeldFor(identity);
        if (held.size() >= kBelieved) Rest(**std::ranges::min_element(held, {}, &Slot::offerTime));
        slot = {.address = slot.address,
                .state = kLeaseStateHeld,
                .mac = host,
                .offerTime = now,
                .client = identity,
                .wasLeased = slot.wasLeased,
                .isKept = slot.isKept,
                .entered = ++count};
    }

    Ostrel_Status Offer(Slot& slot) {
        const Ostrel_Status status = Send(kOffer, &slot);
        if (status == kNoErr) MarkOffered(slot);
        return status;
    }

    void MarkOffered(Slot& slot) {
        if (slot.state == kLeaseStateActive) return;
        BeginTime(slot);
        slot.state = kLeaseStateOffered;
        slot.entered = ++count;
        if (!Keep(61, slot.identifier)) Report(kOutOfMemoryErr, "MarkOffered");
    }

    // Its place among those in use is that of its time.
    void BeginTime(Slot& slot) {
        if (!slot.IsUsed() || slot.offerTime != now) slot.began = ++count;
        slot.offerTime = now;
    }

    void Claim(Slot& slot) {
        if (slot.state == kLeaseStateHeld || (slot.IsUsed() && (slot.client == client || !slot.isKept))) return;
        if (slot.client != client) slot.hadIt = false;
        slot.mac = station;
        slot.client = client;
        if (!slot.IsUsed()) slot.entered = ++count;
        if (!slot.IsUsed()) slot.offerTime = 0;
    }

    Ostrel_Status Request() {
        const IPv4 chosen = Address(54);
        if (IsForAnother()) {
            for (Slot& slot : slots)
                if (slot.state == kLeaseStateOffered && slot.client == client) Rest(slot);
            return kNoErr;
        }
        const IPv4 requested = Address(50) != 0 ? Address(50) : Ciaddr();
        Slot* const fixed = KeptSlot();
        Slot* slot = SlotOf(requested);
        bool mayHave = slot == nullptr || slot->IsFree() || slot == fixed || (slot->IsUsed() && slot->client == client);
        if (fixed != nullptr && slot != nullptr && slot != fixed) mayHave = false;
        if (mayHave && IsOfSubnet(requested))
            for (Slot& each : slots)
                if (&each != slot && each.IsUsed() && each.client == client) Rest(each);
        if (slot == nullptr || !mayHave) {
            const bool isForUs = chosen != 0 || AddressOf(std::span(frame).subspan(30)) == ToIPv4(wishes.address);
            if (!isForUs && (requested == 0 || (IsOfSubnet(requested) && slot == nullptr))) return kNoErr;
            Report(kNoFreeResourceErr, "ProcessRequest");
            return Report(Send(kNak, nullptr), "ProcessRequest");
        }
        Claim(*slot);
        BeginTime(*slot);
        slot->state = kLeaseStateActive;
        slot->mac = station;
        slot->hadIt = slot->wasLeased = true;
        return Acknowledge(*slot);
    }

    // The slot of an address, if the client has it.
    Slot* Own(IPv4 address) {
        Slot* const slot = SlotOf(address);
        if (slot == nullptr || !slot->IsUsed()) return nullptr;
        return slot->client == client || slot == KeptSlot() ? slot : nullptr;
    }

    Ostrel_Status Release() {
        if (IsForAnother()) return kNoErr;
        Slot* const slot = Own(Ciaddr());
        if (slot == nullptr) return Fail("lease", "ProcessRelease", kNoSuchItemErr);
        Rest(*slot);
        return kNoErr;
    }

    Ostrel_Status Decline() {
        if (IsForAnother()) return kNoErr;
        Slot* const slot = Own(Address(50));
        if (slot == nullptr) return Fail("lease", "ProcessDecline", kNoSuchItemErr);
        ++seen[5];
        Hold(*slot, station, client);
        return kNoErr;
    }

    Ostrel_Status Inform() {
        if (!IsOfSubnet(Ciaddr())) return kNoErr;
        return Report(Send(kAck, nullptr), "ProcessInform");
    }

    Frame Reply(uint8_t type, const Slot* slot, const Bytes& asked) override {
        const IPv4 ciaddr = type == kAck ? Ciaddr() : 0;
        const IPv4 yiaddr = slot == nullptr ? 0 : slot->address;
        const bool isToRelay = Giaddr() != 0 && (type == kNak || slot != nullptr);
        Bytes flags = Part(10, 2);
        if (type == kNak && isToRelay) flags[0] |= 0x80;
        const bool isBroadcast = type == kNak || (ciaddr == 0 && (flags[0] & 0x80) != 0);
        const IPv4 destination = isToRelay ? Giaddr() : isBroadcast ? kEveryoneIPv4 : ciaddr != 0 ? ciaddr : yiaddr;

        Bytes reply = ReplyHead(type, flags, ciaddr, yiaddr);
        const auto leaseTime = static_cast<uint32_t>(wishes.leaseTime);
        for (const auto& [code, time] :
             {std::pair{51, leaseTime}, {58, leaseTime / 2}, {59, leaseTime - (leaseTime + 7) / 8}}) {
            if (slot != nullptr) Append(reply, {static_cast<uint8_t>(code), 4});
            if (slot != nullptr) Append(reply, OfNumber(time, 4));
        }
        AddOptions(reply, type, slot, asked);
        const MAC& to = destination == kEveryoneIPv4 ? kEveryone : source;
        return InFrame(reply, to, destination, isToRelay ? 67 : 68);
    }

    void AddOptions(Bytes& reply, uint8_t type, const Slot* slot, const Bytes& asked) {
        const Option relay = FindOption(options, 82);
        const size_t last = 1 + (relay.status == kNoErr ? 2 + relay.data.size() : 0);
        const Option longest = FindOption(options, 57);
        const uint32_t size = longest.data.size() == 2 ? longest.data[0] * 256U + longest.data[1] : 0;
        const size_t limit = std::min<size_t>(std::min(wishes.mtu, std::max(size, 576U)) - 28, 2006);
        std::vector<uint8_t> present;
        const auto add = [&](uint8_t code, const Bytes& data) {
            const size_t parts = (data.size() + 254) / 255;
            if (data.empty() || reply.size() + 2 * parts + data.size() + last > limit) return;
            if (std::ranges::find(present, code) != present.end()) return;
            present.push_back(code);
            for (size_t at = 0; at < data.size(); at += 255) {
                const size_t part = std::min<size_t>(255, data.size() - at);
                Append(reply, {code, static_cast<uint8_t>(part)});
                reply.insert(reply.end(), data.begin() + static_cast<ptrdiff_t>(at),
                             data.begin() + static_cast<ptrdiff_t>(at + part));
            }
        };
        add(61, FindOption(options, 61).data);
        if (type != kNak) {
            for (const uint8_t code : asked) add(code, Answer(code, slot));
            for (const Configured& option : game.options)
                if (option.forced) add(option.code, option.data);
        }
        if (relay.status == kNoErr) Append(reply, {82, static_cast<uint8_t>(relay.data.size())});
        Append(reply, relay.data);
        reply.push_back(255);
        if (reply.size() < 300) reply.resize(300);
    }

    Bytes Answer(uint8_t code, const Slot* slot) {
        const std::optional<Bytes> usual = UsualAnswer(code);
        if (usual && !usual->empty() && !(code == 3 && wishes.router == "0.0.0.0")) return *usual;
        if (code == 12 && slot != nullptr && slot == KeptSlot()) {
            for (const auto& fixed : game.fixed)
                if (ToIPv4(fixed.address) == slot->address && !fixed.hostName.empty())
                    return {fixed.hostName.begin(), fixed.hostName.end()};
        }
        const auto place = std::ranges::find(game.options, code, &Configured::code);
        return place == game.options.end() ? Bytes{} : place->data;
    }

    [[nodiscard]] Bytes Identifier() const {
        const Bytes data = FindOption(options, 61).data;
        return data.size() < 2 ? Bytes{} : data;
    }
    [[nodiscard]] bool IsForAnother() const { return Address(54) != 0 && Address(54) != ToIPv4(wishes.address); }

    std::vector<Probe> probes;
    uint64_t count = 0;  // of all that happened

    // Of the frame at hand.
    Frame frame;
    MAC station{};
    Bytes client;
};

std::string InHex(const Bytes& bytes) {
    std::string hex;
    for (const uint8_t byte : bytes) hex += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
    return hex;
}

// The game as the keys of a request.
std::string KeysOf(const Game& game) {
    std::string keys = R"("rfc":true,"probe":)" + std::to_string(game.probe) + R"(,"fixed":[)";
    for (const Fixed& fixed : game.fixed) {
        if (keys.back() == '}') keys += ',';
        keys += R"({"clientIdentifierHex":")" + InHex(fixed.identity) + R"(","ipv4Address":")" + fixed.address + '"';
        keys += fixed.hostName.empty() ? "}" : R"(,"hostName":")" + fixed.hostName + "\"}";
    }
    keys += R"(],"options":[)";
    for (const Configured& option : game.options) {
        if (keys.back() == '}') keys += ',';
        keys += R"({"code":)" + std::to_string(option.code) + R"(,"hex":")" + InHex(option.data) + '"';
        keys += option.forced ? R"(,"forced":true})" : "}";
    }
    return keys + "]";
}

TEST(ServerModel, AgreesFrameByFrameByTheRFCRules) {
    const Bytes longData(700, 'x');
    const Fixed printer{.identity = {1, 2, 0, 0, 0, 0, 4}, .address = "192.168.1.101", .hostName = "printer"};
    Game games[] = {
        {{.maxLeases = 1, .leaseTime = 5, .dnsServers = {"10.0.0.1"}}, 3},
        {{.maxLeases = 6, .leaseTime = 60, .domainName = "lan"}, 8, 250},
        {{.router = "0.0.0.0", .maxLeases = 12, .leaseTime = 900},
         10,
         0,
         {printer, {.identity = {255, 0, 2}, .address = "192.168.1.20"}},
         {{42, {10, 0, 0, 1}}, {43, {1, 2, 3}, true}, {114, longData}}},
        {{.maxLeases = 12, .leaseTime = 900},
         10,
         250,
         {printer, {.identity = {0, 1}, .address = "192.168.1.250", .hostName = "plc"}},
         {{42, {10, 0, 0, 1}}, {28, {10, 0, 0, 2}, true}}},
        {{.maxLeases = 130, .leaseTime = 1300}, 260},
        {{.maxLeases = 63, .leaseTime = 9}, 90, 3000},
        {{.maxLeases = 130, .leaseTime = 600, .mtu = 576}, 300, 10000, {}, {{43, longData, true}}},
        // Address, mask, router, start of the range, leases, seconds.
        {{"192.168.1.1", "255.255.255.248", "0.0.0.0", "192.168.1.2", 5, 20}, 8, 250},
        {{"10.0.0.1", "255.255.0.0", "10.0.0.1", "10.0.1.0", 260, 400}, 400},
    };
    for (Game& game : games) game.wishes.keys = KeysOf(game);
    PlayGames(games, {0, 1000, 4'000'000'000},
              [](const Game& game) -> std::unique_ptr<Model> { return std::make_unique<RFCModel>(game); });
}

}  // namespace
