// The server's rfc rules a second time, as ServerModelTest.cpp has the plain ones: an array of slots that every
// question walks from its start, clients compared by all bytes of their identity, times looked for in every slot.
// Nothing is the daemon's but its numbers. Where slots fall free in one moment, their order is told by a count of all
// that happened.
//
// The frames are those of stations that have identifiers, or share them, or share an address; of relays near and far;
// of hosts that answer for addresses that are probed; damaged, and with sends and allocations that fail.

#include <endian.h>
#include <gtest/gtest.h>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Log.h"

#include "LeaseInvariants.h"
#include "ServerModel.h"

namespace {

using namespace sim;
using namespace sim::model;
using sim::model::Bytes;

constexpr uint32_t kHold = 600;
constexpr uint32_t kBelieved = 4;  // slots held because of one
constexpr size_t kProbes = 32;

struct Fixed {
    Bytes identity;  // an identifier, or 1 and an Ethernet address
    std::string address;
    std::string hostName{};
};

struct Configured {
    uint8_t code;
    Bytes data;
    bool forced = false;
};

struct Game {
    ServerWishes wishes;
    uint32_t stations;
    uint32_t probe = 0;  // milliseconds
    std::vector<Fixed> fixed{};
    std::vector<Configured> options{};
};

struct Slot {
    IPv4 address;
    uint32_t state = kLeaseStateFree;
    MAC mac{};
    uint32_t offerTime = 0;
    std::optional<Bytes> identifier{};
    std::optional<Bytes> hostName{};
    // What the server keeps elsewhere.
    Bytes client{};  // that has it, had it last, or made it held; empty: nobody
    bool hadIt = false;
    bool wasLeased = false;
    bool isKept = false;
    bool isHeldForGood = false;
    uint64_t began = 0;    // when its time began
    uint64_t entered = 0;  // when it was last offered, held or free

    [[nodiscard]] bool IsUsed() const { return state == kLeaseStateOffered || state == kLeaseStateActive; }
    [[nodiscard]] bool IsFree() const { return state == kLeaseStateFree; }
    [[nodiscard]] bool IsNew() const { return IsFree() && !wasLeased && client.empty(); }
    [[nodiscard]] auto Shown() const { return std::tie(state, mac, offerTime, identifier, hostName); }
};

struct Probe {
    Slot* slot;
    Bytes client;
    uint64_t end;
    Frame frame;
};

class Model {
public:
    explicit Model(const Game& ofGame) : game(ofGame), wishes(game.wishes) {
        for (int32_t i = 0; i < wishes.maxLeases; ++i)
            slots.push_back({ToIPv4(wishes.rangeStart) + static_cast<uint32_t>(i)});
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

    Outcome Receive(const Frame& received, uint64_t time, const Trouble& trouble) {
        Begin(time, trouble);
        Prune();
        const Ostrel_Status read = Read(received);
        if (read != kNoErr) Report(read, "PacketFilterHandler");
        const Option type = FindOption(options, 53);
        Ostrel_Status status = type.status == kNoErr && type.data.empty() ? kBadSizeErr : type.status;
        if (status == kNoErr) status = Process(type.data[0]);
        if (status != kNoErr) Report(status, "PacketFilterHandler");
        return outcome;
    }

    // Probes that nobody has answered.
    Outcome PassTo(uint64_t time) {
        Begin(time, {});
        while (!probes.empty() && probes.front().end <= time) {
            const Probe probe = probes.front();
            probes.erase(probes.begin());
            if (!IsWaitedFor(probe)) continue;
            now = static_cast<uint32_t>(probe.end / 1000);
            (void)Read(probe.frame);
            const Ostrel_Status status = Offer(*probe.slot);
            if (status != kNoErr) Report(status, "ProbeEnds");
        }
        return outcome;
    }

    Outcome Hear(const ARPFrame& arp, uint64_t time, const Trouble& trouble) {
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

    [[nodiscard]] IPv4 FreeAddress(size_t from) const {
        for (size_t slot = from; slot < slots.size(); ++slot)
            if (slots[slot].IsFree()) return slots[slot].address;
        return slots[from].address;
    }
    // What the station has, or 0.
    [[nodiscard]] IPv4 AddressOf(const MAC& mac) const {
        for (const Slot& slot : slots)
            if (slot.IsUsed() && slot.mac == mac) return slot.address;
        return 0;
    }
    [[nodiscard]] IPv4 ProbedAddress(uint64_t any) const {
        return probes.empty() ? 0 : probes[any % probes.size()].slot->address;
    }

    const Game game;
    const ServerWishes& wishes;
    std::vector<Slot> slots;
    std::array<uint64_t, 6> seen{};  // how often something of interest happened

private:
    void Begin(uint64_t time, const Trouble& trouble) {
        outcome = {};
        milliseconds = time;
        now = static_cast<uint32_t>(time / 1000);
        untilSendFault = trouble.send;
        untilNoMemory = trouble.failingAllocation;
    }

    // What is over falls free: held ones, offers, leases; of each kind the oldest first.
    void Prune() {
        const auto life = [this](const Slot& slot) {
            if (slot.state == kLeaseStateHeld) return kHold;
            return slot.state == kLeaseStateActive ? static_cast<uint32_t>(wishes.leaseTime) : 10 + game.probe / 1000;
        };
        for (const uint32_t state : {kLeaseStateHeld, kLeaseStateOffered, kLeaseStateActive}) {
            std::vector<Slot*> over;
            for (Slot& slot : slots)
                if (slot.state == state && !slot.isHeldForGood && now - slot.offerTime >= life(slot))
                    over.push_back(&slot);
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

    Ostrel_Status Read(const Frame& received) {
        frame = received;
        options.clear();
        const size_t headers = 14 + (received.size() > 14 ? 4 * (received[14] & 0x0FU) : 20) + 8;
        if (received.size() < headers + 240) return kBadSizeErr;
        message.assign(received.begin() + static_cast<ptrdiff_t>(headers), received.end());
        if (model::AddressOf(std::span(message).subspan(236)) != 0x63825363) return kBadFormatErr;
        options.assign(message.begin() + 240, message.end());
        std::copy_n(received.begin() + 6, source.size(), source.begin());
        std::copy_n(message.begin() + 28, station.size(), station.begin());
        client = Identifier();
        if (client.empty()) {
            client = {message[1]};
            Append(client, Part(28, std::min<ptrdiff_t>(message[2], 16)));
        }
        return kNoErr;
    }

    Ostrel_Status Process(uint8_t type) {
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
        const Ostrel_Status status = Offer(*slot);
        return status == kNoErr ? status : Report(status, "ProcessDiscover");
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
        const Ostrel_Status status = Discover();
        if (status != kNoErr) Report(status, "ProbeFails");
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
        Ostrel_Status status = kNoErr;
        if (slot == nullptr || !mayHave) {
            const bool isForUs =
                chosen != 0 || model::AddressOf(std::span(frame).subspan(30)) == ToIPv4(wishes.address);
            if (!isForUs && (requested == 0 || (IsOfSubnet(requested) && slot == nullptr))) return kNoErr;
            Report(kNoFreeResourceErr, "ProcessRequest");
            status = Send(kNak, nullptr);
        } else {
            Claim(*slot);
            BeginTime(*slot);
            slot->state = kLeaseStateActive;
            slot->mac = station;
            slot->hadIt = slot->wasLeased = true;
            if (!Keep(61, slot->identifier)) return Fail("lease->clientIdentifier", "ProcessRequest", kOutOfMemoryErr);
            if (!Keep(12, slot->hostName)) return Fail("lease->hostName", "ProcessRequest", kOutOfMemoryErr);
            status = Send(kAck, slot);
        }
        return status == kNoErr ? status : Report(status, "ProcessRequest");
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
        const Ostrel_Status status = Send(kAck, nullptr);
        return status == kNoErr ? status : Report(status, "ProcessInform");
    }

    bool Allocate() { return untilNoMemory == 0 || --untilNoMemory != 0; }

    bool Keep(uint8_t code, std::optional<Bytes>& kept) {
        kept.reset();
        const Option option = FindOption(options, code);
        if (option.status != kNoErr) return true;
        if (!Allocate()) return false;
        kept = option.data;
        return true;
    }

    Ostrel_Status Send(uint8_t type, const Slot* slot) {
        const Option asked = FindOption(options, 55);
        if (asked.status == kTooShortErr) return Report(asked.status, "Send_BOOTPReply");
        const SendFault fault = std::exchange(untilSendFault, SendFault::None);
        if (fault == SendFault::Short) return Report(kSendFailedErr, "Send_BOOTPReply");
        if (fault == SendFault::Error) return kNoErr;  // as if it had been lost on the wire

        const IPv4 ciaddr = type == kAck ? Ciaddr() : 0;
        const IPv4 yiaddr = slot == nullptr ? 0 : slot->address;
        const bool isToRelay = Giaddr() != 0 && (type == kNak || slot != nullptr);
        Bytes flags = Part(10, 2);
        if (type == kNak && isToRelay) flags[0] |= 0x80;
        const bool isBroadcast = type == kNak || (ciaddr == 0 && (flags[0] & 0x80) != 0);
        const IPv4 destination = isToRelay ? Giaddr() : isBroadcast ? kEveryoneIPv4 : ciaddr != 0 ? ciaddr : yiaddr;

        Bytes reply = {2, 1, 6, 0};
        for (const Bytes& part : {Part(4, 4),
                                  Bytes(2),
                                  flags,
                                  OfNumber(ciaddr, 4),
                                  OfNumber(yiaddr, 4),
                                  Bytes(4),
                                  Part(24, 4),
                                  Part(28, 16),
                                  Bytes(192),
                                  {0x63, 0x82, 0x53, 0x63},
                                  {53, 1, type, 54, 4},
                                  AddressBytes(wishes.address)})
            Append(reply, part);
        const auto leaseTime = static_cast<uint32_t>(wishes.leaseTime);
        for (const auto& [code, time] :
             {std::pair{51, leaseTime}, {58, leaseTime / 2}, {59, leaseTime - (leaseTime + 7) / 8}}) {
            if (slot != nullptr) Append(reply, {static_cast<uint8_t>(code), 4});
            if (slot != nullptr) Append(reply, OfNumber(time, 4));
        }
        AddOptions(reply, type, slot, asked.data);
        const MAC& to = destination == kEveryoneIPv4 ? kEveryone : source;
        outcome.sent.push_back(InFrame(reply, to, destination, isToRelay ? 67 : 68));
        return kNoErr;
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
        if (code == 1) return AddressBytes(wishes.mask);
        if (code == 3 && wishes.router != "0.0.0.0") return AddressBytes(wishes.router);
        if (code == 15 && !wishes.domainName.empty()) return Bytes(wishes.domainName.begin(), wishes.domainName.end());
        Bytes servers;
        for (const std::string& server : wishes.dnsServers) Append(servers, AddressBytes(server));
        if (code == 6 && !servers.empty()) return servers;
        if (code == 12 && slot != nullptr && slot == KeptSlot()) {
            for (const auto& fixed : game.fixed)
                if (ToIPv4(fixed.address) == slot->address && !fixed.hostName.empty())
                    return {fixed.hostName.begin(), fixed.hostName.end()};
        }
        const auto place = std::ranges::find(game.options, code, &Configured::code);
        return place == game.options.end() ? Bytes{} : place->data;
    }

    [[nodiscard]] Frame InFrame(const Bytes& reply, const MAC& to, IPv4 destination, uint8_t port) const {
        Frame built(to.begin(), to.end());
        const auto size = static_cast<uint32_t>(reply.size());
        for (const Bytes& part : {Bytes(kClientMAC.begin(), kClientMAC.end()),
                                  {8, 0, 0x45, 0},
                                  OfNumber(size + 28, 2),
                                  {0, 0, 0, 0},
                                  {128, 17, 0, 0},
                                  AddressBytes(wishes.address),
                                  OfNumber(destination, 4),
                                  {0, 67, 0, port},
                                  OfNumber(size + 8, 2),
                                  {0, 0},
                                  reply})
            Append(built, part);
        return built;
    }

    [[nodiscard]] Bytes Part(ptrdiff_t at, ptrdiff_t size) const {
        return {message.begin() + at, message.begin() + at + size};
    }
    [[nodiscard]] IPv4 Ciaddr() const { return model::AddressOf(Part(12, 4)); }
    [[nodiscard]] IPv4 Giaddr() const { return model::AddressOf(Part(24, 4)); }
    [[nodiscard]] IPv4 Address(uint8_t code) const {
        const Option option = FindOption(options, code);
        return option.data.size() == 4 ? model::AddressOf(option.data) : 0;
    }
    [[nodiscard]] Bytes Identifier() const {
        const Bytes data = FindOption(options, 61).data;
        return data.size() < 2 ? Bytes{} : data;
    }
    [[nodiscard]] bool IsForAnother() const { return Address(54) != 0 && Address(54) != ToIPv4(wishes.address); }
    [[nodiscard]] bool IsOfSubnet(IPv4 address) const {
        return address != 0 && ((address ^ ToIPv4(wishes.address)) & ToIPv4(wishes.mask)) == 0;
    }
    Slot* SlotOf(IPv4 address) {
        return First([=](const Slot& slot) { return slot.address == address; });
    }

    template <typename Condition>
    Slot* First(const Condition& fits) {
        const auto place = std::find_if(slots.begin(), slots.end(), fits);
        return place == slots.end() ? nullptr : &*place;
    }

    Ostrel_Status Report(Ostrel_Status status, const std::string& function) {
        outcome.reports += std::to_string(status) + " @" + function + "; ";
        return status;
    }
    Ostrel_Status Fail(const std::string& expression, const std::string& function, Ostrel_Status status) {
        outcome.reports += "0 " + expression + "@" + function + "; ";
        return status;
    }

    std::vector<Probe> probes;
    uint64_t count = 0;  // of all that happened

    // Of the frame at hand.
    uint64_t milliseconds = 0;
    uint32_t now = 0;
    SendFault untilSendFault{};
    size_t untilNoMemory = 0;
    Frame frame;
    MAC source{};
    MAC station{};
    Bytes client;
    Bytes message;
    Bytes options;
    Outcome outcome;
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

ServerWishes WithKeys(const Game& game) {
    ServerWishes wishes = game.wishes;
    wishes.keys = KeysOf(game);
    return wishes;
}

// The server and its model at one table.
class Play {
public:
    Play(const Game& ofGame, uint64_t seed, uint32_t clock)
        : game(ofGame), lan(WithKeys(game), seed), model(game), shown(model.slots), random(lan.world.random) {
        lan.world.monotonicStart = clock;
        lan.world.LeaveBus(":1.7");  // nobody listens: the table as JSON is another test's
        lan.wire.sentLimit = 0;
        lan.world.onSend = [this](std::span<const uint8_t> frame) {
            sent.emplace_back(frame.begin(), frame.end());
            if (ReadARP(frame)) return;
            fault += FindFault(frame);
            for (const size_t checksum : {24, 25, 40, 41}) sent.back()[checksum] = 0;
            if (const auto answer = ReadDHCP(frame)) ++answers.at(answer->Type());
        };
        lan.Reports();
    }

    // What differs after one more frame; empty when nothing does.
    std::string Step() {
        PassTime();
        const Trouble trouble = {.send = Draw(20) != 0  ? SendFault::None
                                         : Draw(2) == 0 ? SendFault::Short
                                                        : SendFault::Error,
                                 .failingAllocation = Draw(20) != 0 ? 0 : 1 + Draw(2)};
        const IPv4 probed = model.ProbedAddress(random());
        if (game.probe != 0 && probed != 0 && Draw(game.probe > 5000 ? 30 : 3) == 0) return Answer(probed, trouble);
        const Frame frame = DrawFrame();
        Meet(trouble, [&] { Ostrel_BOOTPServerPacketFilterHandler(Interface(), nullptr, frame); });
        Compare(model.Receive(frame, Now(), trouble));
        return fault.empty() ? "" : fault + " after " + DescribeFrame(frame);
    }

    std::array<uint64_t, 256> answers{};
    [[nodiscard]] const Model& Played() const { return model; }

private:
    uint32_t Draw(uint32_t below) { return DrawBelow(random, below); }
    Ostrel_InterfaceObj* Interface() { return lan.daemon.system.interfaceList; }
    uint64_t Now() {
        return lan.world.monotonicStart * uint64_t{1000} + static_cast<uint64_t>(lan.world.TimeAwake() / 1ms);
    }

    template <typename Event>
    void Meet(const Trouble& trouble, const Event& event) {
        lan.world.FailSends("eth0", trouble.send, trouble.send == SendFault::None ? 0 : 1);
        lan.world.FailAllocation(trouble.failingAllocation);
        sent.clear();
        event();
        lan.world.FailSends("eth0", SendFault::None, 0);
        lan.world.FailAllocation(0);
    }

    std::string Answer(IPv4 probed, const Trouble& trouble) {
        const MAC host = Draw(4) == 0 ? DrawStation() : MAC{2, 0, 0, 0, 9, static_cast<uint8_t>(Draw(4))};
        const ARPFrame arp = {.ethernetDestination = kClientMAC,
                              .operation = static_cast<uint16_t>(1 + Draw(2)),
                              .senderMAC = Draw(20) == 0 ? kClientMAC : host,
                              .sender = Draw(4) == 0 ? 0 : probed,
                              .target = probed};
        const Frame frame = WriteARP(arp);
        Meet(trouble, [&] { Ostrel_ARPPacketFilterHandler(Interface(), nullptr, frame); });
        Compare(model.Hear(arp, Now(), trouble));
        return fault.empty() ? "" : fault + " after " + DescribeFrame(frame);
    }

    void PassTime() {
        if (Draw(20) == 0) Ostrel_SetDebugLevel(Draw(2) == 0 && game.wishes.maxLeases < 50 ? "trace" : "info");
        Duration time = Draw(isFilling ? 40 : 4) != 0 ? 0s : (Draw(3) == 0 ? Draw(12) : Draw(2)) * 1s;
        if (!isFilling && Draw(40) == 0) time += game.wishes.leaseTime / 2 * 1s;
        if (Draw(400) == 0) time += 500s;
        if (Draw(2) == 0) time += 100ms;
        if (Draw(200) == 0) isFilling = !isFilling;
        sent.clear();
        lan.world.RunFor(time);
        Compare(model.PassTo(Now()));
        if (!fault.empty()) fault += " as time passes, before";
    }

    IPv4 DrawAddress(const MAC& mac) {
        const uint32_t choice = Draw(12);
        if (choice > 7 && !isFilling) return model.AddressOf(mac);
        if (choice < 2) return choice == 0 ? 0 : 0xAC100001;
        if (choice == 2 && !game.fixed.empty())
            return ToIPv4(game.fixed[Draw(static_cast<uint32_t>(game.fixed.size()))].address);
        if (isFilling && choice < 11) return model.FreeAddress(Draw(static_cast<uint32_t>(game.wishes.maxLeases)));
        return ToIPv4(game.wishes.rangeStart) + Draw(static_cast<uint32_t>(game.wishes.maxLeases) + 2) - 1;
    }

    MAC DrawStation() {
        const auto number = static_cast<uint16_t>(Draw(game.stations));
        if (number == 0) return {};  // one has no address of its own
        return {2, 0, 0, 0, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    }

    Frame DrawFrame() {
        constexpr std::array kTypes{kDiscover, kDiscover, kRequest, kRequest, kRequest, kInform, kRelease, kDecline};
        const MAC mac = DrawStation();
        const auto type = Draw(40) == 0 ? static_cast<MessageType>(Draw(256))
                                        : kTypes[Draw(!isFilling          ? 8
                                                      : game.probe > 5000 ? 2
                                                                          : 5)];
        DHCPMessage message = MessageFrom(mac, type);
        if (Draw(8) == 0) message.ethernetSource = {2, 0, 0, 0, 8, 8};  // an extender
        message.xid = static_cast<uint32_t>(random());
        message.flags = static_cast<uint16_t>(random());
        message.ciaddr = Draw(3) == 0 ? 0 : DrawAddress(message.chaddr);
        if (Draw(8) == 0) message.giaddr = Draw(2) == 0 ? 0x0A010001 : ToIPv4(game.wishes.address) + 1;
        if (Draw(8) == 0) message.destination = ToIPv4(game.wishes.address);
        AddOptions(message);
        Frame frame = WriteDHCP(message);
        if (Draw(50) == 0) frame[43] = static_cast<uint8_t>(random());  // htype
        if (Draw(50) == 0) frame[44] = static_cast<uint8_t>(Draw(20));  // hlen
        if (Draw(10) == 0) Damage(frame, random);
        return frame;
    }

    // Of four stations one has no identifier, one says its address, one has one of its own, and one several.
    void AddIdentifier(DHCPMessage& message) {
        auto& options = message.options;
        const uint8_t low = message.chaddr[5];
        if (low % 4 == 1) options.emplace_back(61, Bytes{1});
        if (low % 4 == 1) Append(options.back().second, {message.chaddr.begin(), message.chaddr.end()});
        if (low % 4 == 2) options.emplace_back(61, Bytes{255, message.chaddr[4], low});
        if (low % 4 == 3)
            options.emplace_back(61, Draw(10) == 0 ? DrawBytes(random, 4) : Bytes{0, static_cast<uint8_t>(Draw(3))});
    }

    void AddOptions(DHCPMessage& message) {
        auto& options = message.options;
        AddIdentifier(message);
        if (Draw(2) == 0) options.emplace_back(50, OfNumber(DrawAddress(message.chaddr), Draw(8) == 0 ? 3 : 4));
        if (Draw(4) == 0)
            options.emplace_back(54,
                                 OfNumber(ToIPv4(game.wishes.address) + (Draw(3) == 0 ? 5 : 0), Draw(8) == 0 ? 5 : 4));
        if (Draw(4) == 0) options.emplace_back(12, DrawBytes(random, Draw(20) == 0 ? 256 : 8));
        if (Draw(2) == 0) options.emplace_back(55, Bytes{1, 3, 6, 15, 12, 28, 51, 42, 43, 114, 3});
        if (Draw(6) == 0) options.emplace_back(55, DrawBytes(random, Draw(20) == 0 ? 256 : 8));
        if (Draw(6) == 0)
            options.emplace_back(57, OfNumber(Draw(2) == 0 ? Draw(3000) : Draw(65536), Draw(8) == 0 ? 1 : 2));
        if (Draw(6) == 0) options.emplace_back(82, DrawBytes(random, Draw(20) == 0 ? 256 : 12));
        if (Draw(8) == 0) options.push_back(options[Draw(static_cast<uint32_t>(options.size()))]);
        if (Draw(8) == 0) options.emplace_back(static_cast<uint8_t>(1 + Draw(254)), DrawBytes(random, 8));
        if (Draw(4) == 0) std::shuffle(options.begin(), options.end(), random);
    }

    void Compare(const Outcome& expected) {
        const std::string reports = lan.Reports();
        if (reports != expected.reports) fault += "reports " + reports + "instead of " + expected.reports;
        if (sent != expected.sent) {
            fault += "other frames are sent:";
            for (const Frame& frame : sent) fault += "\n  " + DescribeFrame(frame);
            fault += "\n instead of:";
            for (const Frame& frame : expected.sent) fault += "\n  " + DescribeFrame(frame);
        }
        if (fault.empty()) CompareSlots();
    }

    void CompareSlots() {
        Ostrel_ServerObj& server = lan.Server();
        const Ostrel_LeaseInformation* used = Ostrel_DHCPServer_LeaseNextUsed(&server, nullptr);
        for (size_t i = 0; i < model.slots.size(); ++i) {
            Ostrel_LeaseInformation& lease = server.leases[i];
            const Slot& slot = model.slots[i];
            const bool isUsed = used == &lease;
            if (isUsed) used = Ostrel_DHCPServer_LeaseNextUsed(&server, used);
            if (!IsSame(lease, slot) || isUsed != slot.IsUsed() || (!lease.changed && slot.Shown() != shown[i].Shown()))
                fault = "slot " + std::to_string(i) + " differs";
            if (lease.changed) shown[i] = slot;
            lease.changed = false;
        }
        if (fault.empty() && Draw(50) == 0) fault = FindLeaseFault(server);
    }

    static bool IsSame(const Ostrel_LeaseInformation& lease, const Slot& slot) {
        return be32toh(lease.IPv4Address) == slot.address && lease.state == slot.state && lease.srcMAC == slot.mac &&
               lease.offerTime == slot.offerTime &&
               IsKeptIn(lease.clientIdentifier, lease.clientIdentifierLength, slot.identifier) &&
               IsKeptIn(lease.hostName, lease.hostNameLength, slot.hostName);
    }

    const Game game;
    ServerLan lan;
    Model model;
    std::vector<Slot> shown;  // each slot when it last said that it changed
    std::mt19937_64& random;
    bool isFilling = false;  // the stations take what they can get, and little time passes
    std::vector<Frame> sent;
    std::string fault;
};

TEST(ServerModel, AgreesFrameByFrameByTheRFCRules) {
    const Bytes longData(700, 'x');
    const Fixed printer{.identity = {1, 2, 0, 0, 0, 0, 4}, .address = "192.168.1.101", .hostName = "printer"};
    const Game games[] = {
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
        {{.mask = "255.255.255.248", .router = "0.0.0.0", .rangeStart = "192.168.1.2", .maxLeases = 5, .leaseTime = 20},
         8,
         250},
        {{.address = "10.0.0.1",
          .mask = "255.255.0.0",
          .router = "10.0.0.1",
          .rangeStart = "10.0.1.0",
          .maxLeases = 260,
          .leaseTime = 400},
         400},
    };
    const uint64_t frames = FramesToPlay();
    std::array<uint64_t, 256> answers{};
    std::array<uint64_t, 6> seen{};
    for (uint64_t seed = 1; seed * kFramesOfAGame <= frames; ++seed) {
        Play play(games[seed % std::size(games)], seed, std::array{0U, 1000U, 4'000'000'000U}[seed / 9 % 3]);
        for (uint64_t step = 0; step < kFramesOfAGame; ++step)
            ASSERT_EQ(play.Step(), "") << "seed " << seed << ", frame " << step;
        for (size_t type = 0; type < answers.size(); ++type) answers[type] += play.answers[type];
        for (size_t i = 0; i < seen.size(); ++i) seen[i] += play.Played().seen[i];
    }
    // The games were worth playing: replies of each kind; addresses that were the client's, asked for, and free for
    // longest; too many probes; probes that were answered, and DECLINEs.
    for (const auto type : {kOffer, kAck, kNak}) EXPECT_GT(answers[type], frames / 20) << type;
    for (size_t i = 0; i < seen.size(); ++i) EXPECT_GT(seen[i], frames / 2000) << i;
}

}  // namespace
