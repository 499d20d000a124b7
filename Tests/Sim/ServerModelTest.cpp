// The server's plain rules a second time, as slowly and plainly as they can be told, beside the daemon's server: an
// array of slots that every question walks from its start, options searched for from the first one each time, replies
// put together byte by byte. Nothing is indexed or kept that could go stale, and nothing is the daemon's but its
// numbers. Both get the same frames, and after each of them must have sent the same bytes, reported the same failures
// and hold the same table.
//
// The frames are what stations send and what they had better not: cut, with headers that lie, options twice, endless or
// in no order, from the address of all zeros; the server's sends fall short, its memory runs out, its debug level
// changes between the one where it walks and the one where its index answers. OSTREL_MODEL_FRAMES asks for more frames
// than the usual ones.

#include <endian.h>
#include <gtest/gtest.h>

#include "Ostrel/Log.h"

#include "LeaseInvariants.h"
#include "ServerModel.h"

namespace {

using namespace sim;
using namespace sim::model;
using sim::model::Bytes;

struct Slot {
    IPv4 address;
    uint32_t state = kLeaseStateFree;
    MAC mac{};
    uint32_t offerTime = 0;
    std::optional<Bytes> identifier{};
    std::optional<Bytes> hostName{};

    bool operator==(const Slot&) const = default;
};

class Model {
public:
    explicit Model(const ServerWishes& configuration) : wishes(configuration) {
        Bytes octets = AddressBytes(wishes.rangeStart);
        for (int32_t i = 0; i < wishes.maxLeases; ++i) {
            slots.push_back({AddressOf(octets)});
            if (++octets[3] == 0 && ++octets[2] == 0) ++octets[1];
        }
    }

    Outcome Receive(const Frame& received, uint32_t time, const Trouble& trouble) {
        outcome = {};
        now = time;
        untilSendFault = trouble.send;
        untilNoMemory = trouble.failingAllocation;
        Prune();
        const Ostrel_Status read = Read(received);
        if (read != kNoErr) Report(read, "PacketFilterHandler");
        const Option type = FindOption(options, 53);
        Ostrel_Status status = type.status == kNoErr && type.data.empty() ? kBadSizeErr : type.status;
        if (status == kNoErr) status = Process(type.data[0]);
        if (status != kNoErr) Report(status, "PacketFilterHandler");
        return outcome;
    }

    // The first free one from a slot on, or that slot's.
    [[nodiscard]] IPv4 FreeAddress(size_t from) const {
        for (size_t slot = from; slot < slots.size(); ++slot)
            if (slots[slot].state == kLeaseStateFree) return slots[slot].address;
        return slots[from].address;
    }

    const ServerWishes wishes;
    std::vector<Slot> slots;

private:
    void Prune() {
        for (Slot& slot : slots) {
            const uint32_t life = slot.state == kLeaseStateActive ? static_cast<uint32_t>(wishes.leaseTime) : 10;
            if (slot.state != kLeaseStateFree && now - slot.offerTime >= life) slot = {slot.address};
        }
    }

    Ostrel_Status Read(const Frame& received) {
        options.clear();
        const size_t headers = 14 + (received.size() > 14 ? 4 * (received[14] & 0x0FU) : 20) + 8;
        if (received.size() < headers + 240) return kBadSizeErr;
        std::copy_n(received.begin() + 6, station.size(), station.begin());
        message.assign(received.begin() + static_cast<ptrdiff_t>(headers), received.end());
        if (AddressOf(std::span(message).subspan(236)) != 0x63825363) return kBadFormatErr;
        options.assign(message.begin() + 240, message.end());
        return kNoErr;
    }

    Ostrel_Status Process(uint8_t type) {
        if (type == kDiscover) return Discover();
        if (type == kRequest) return Request();
        if (type == kRelease) return Release();
        return type == kInform ? Inform() : kNoErr;
    }

    Ostrel_Status Discover() {
        Slot* slot = First([this](const Slot& each) { return each.mac == station; });
        if (slot == nullptr) slot = First([](const Slot& each) { return each.state == kLeaseStateFree; });
        if (slot == nullptr) return Report(kNoFreeResourceErr, "ProcessDiscover");
        if (slot->state == kLeaseStateFree) slot->mac = station;
        const Ostrel_Status status = Send(kOffer, slot->mac, slot);
        if (status != kNoErr) return Report(status, "ProcessDiscover");
        slot->state = kLeaseStateOffered;
        slot->offerTime = now;
        return kNoErr;
    }

    Ostrel_Status Request() {
        const Option option = FindOption(options, 50);
        const bool isGiven = option.status == kNoErr && option.data.size() == 4 && AddressOf(option.data) != 0;
        const IPv4 requested = isGiven ? AddressOf(option.data) : Ciaddr();
        Slot* slot = SlotOf(requested);
        const bool isTaken = slot != nullptr && slot->state != kLeaseStateFree && slot->mac != station;
        if (IsOfSubnet(requested) && !isTaken)
            for (Slot& each : slots)
                if (&each != slot && each.mac == station) each = {each.address};
        Ostrel_Status status = kNoErr;
        if (slot == nullptr || isTaken) {
            Report(kNoFreeResourceErr, "ProcessRequest");
            status = Send(kNak, station, nullptr);
        } else {
            Take(*slot, slot->offerTime == 0);
            if (!Keep(61, slot->identifier)) return Fail("lease->clientIdentifier", "ProcessRequest", kOutOfMemoryErr);
            if (!Keep(12, slot->hostName)) return Fail("lease->hostName", "ProcessRequest", kOutOfMemoryErr);
            status = Send(kAck, slot->mac, slot);
        }
        return status == kNoErr ? status : Report(status, "ProcessRequest");
    }

    Ostrel_Status Release() {
        Slot* const slot = SlotOf(Ciaddr());
        if (slot == nullptr || slot->state == kLeaseStateFree || slot->mac != station)
            return Fail("lease", "ProcessRelease", kNoSuchItemErr);
        *slot = {slot->address};
        return kNoErr;
    }

    Ostrel_Status Inform() {
        Slot* slot = SlotOf(Ciaddr());
        const Slot* const held =
            First([this](const Slot& each) { return each.state != kLeaseStateFree && each.mac == station; });
        if (slot != nullptr && slot->state == kLeaseStateFree && held != nullptr) slot = nullptr;
        if (slot != nullptr && slot->state != kLeaseStateFree && slot->mac != station) slot = nullptr;
        if (slot != nullptr && slot->state == kLeaseStateFree) Take(*slot, false);
        const Ostrel_Status status = Send(slot != nullptr ? kAck : kNak, station, slot);
        return status == kNoErr ? status : Report(status, "ProcessInform");
    }

    void Take(Slot& slot, bool anew) {
        if (anew || slot.state == kLeaseStateFree) {
            slot.mac = station;
            slot.offerTime = now;
        }
        slot.state = kLeaseStateActive;
    }

    bool Keep(uint8_t code, std::optional<Bytes>& kept) {
        kept.reset();
        const Option option = FindOption(options, code);
        if (option.status != kNoErr) return true;
        if (untilNoMemory != 0 && --untilNoMemory == 0) return false;
        kept = option.data;
        return true;
    }

    Ostrel_Status Send(uint8_t type, const MAC& to, const Slot* slot) {
        const Option asked = FindOption(options, 55);
        if (asked.status == kTooShortErr) return Report(asked.status, "Send_BOOTPReply");
        if (untilSendFault == SendFault::Short) return Report(kSendFailedErr, "Send_BOOTPReply");
        if (untilSendFault == SendFault::Error) return kNoErr;  // as if it had been lost on the wire

        const IPv4 ciaddr = type == kAck ? Ciaddr() : 0;
        const IPv4 yiaddr = type == kNak ? 0 : slot->address;
        const IPv4 giaddr = AddressOf(Part(24, 4));
        const bool isBroadcast = type == kNak || (ciaddr == 0 && (message[10] & 0x80) != 0);
        const IPv4 destination = giaddr != 0 ? giaddr : isBroadcast ? kEveryoneIPv4 : ciaddr != 0 ? ciaddr : yiaddr;

        Bytes reply = {2, 1, 6, 0};
        for (const Bytes& part : {Part(4, 4),
                                  Bytes(2),
                                  Part(10, 2),
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
        if (type != kNak) Append(reply, {51, 4});
        if (type != kNak) Append(reply, OfNumber(static_cast<uint32_t>(wishes.leaseTime), 4));
        for (const uint8_t code : asked.data) {
            const std::optional<Bytes> answer = Answer(code);
            if (!answer || reply.size() + 2 + answer->size() + 1 > std::min(wishes.mtu - 28, 2006U)) continue;
            Append(reply, {code, static_cast<uint8_t>(answer->size())});
            Append(reply, *answer);
        }
        reply.push_back(255);
        outcome.sent.push_back(InFrame(reply, to, destination));
        return kNoErr;
    }

    [[nodiscard]] Frame InFrame(const Bytes& reply, const MAC& to, IPv4 destination) const {
        Frame frame(to.begin(), to.end());
        const auto size = static_cast<uint32_t>(reply.size());
        for (const Bytes& part : {Bytes(kClientMAC.begin(), kClientMAC.end()),
                                  {8, 0, 0x45, 0},
                                  OfNumber(size + 28, 2),
                                  {0, 0, 0, 0},
                                  {128, 17, 0, 0},
                                  AddressBytes(wishes.address),
                                  OfNumber(destination, 4),
                                  {0, 67, 0, 68},
                                  OfNumber(size + 8, 2),
                                  {0, 0},
                                  reply})
            Append(frame, part);
        return frame;
    }

    [[nodiscard]] std::optional<Bytes> Answer(uint8_t code) const {
        if (code == 1) return AddressBytes(wishes.mask);
        if (code == 3) return AddressBytes(wishes.router);
        if (code == 15 && !wishes.domainName.empty()) return Bytes(wishes.domainName.begin(), wishes.domainName.end());
        if (code != 6) return std::nullopt;
        Bytes servers;
        for (const std::string& server : wishes.dnsServers) Append(servers, AddressBytes(server));
        return servers;
    }

    [[nodiscard]] Bytes Part(ptrdiff_t at, ptrdiff_t size) const {
        return {message.begin() + at, message.begin() + at + size};
    }
    [[nodiscard]] IPv4 Ciaddr() const { return AddressOf(Part(12, 4)); }
    [[nodiscard]] bool IsOfSubnet(IPv4 address) const {
        return address != 0 && ((address ^ ToIPv4(wishes.address)) & ToIPv4(wishes.mask)) == 0;
    }
    Slot* SlotOf(IPv4 address) {
        return IsOfSubnet(address) ? First([=](const Slot& slot) { return slot.address == address; }) : nullptr;
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

    // Of the frame at hand.
    uint32_t now = 0;
    SendFault untilSendFault{};
    size_t untilNoMemory = 0;
    MAC station{};
    Bytes message;
    Bytes options;
    Outcome outcome;
};

struct Game {
    ServerWishes wishes;
    uint32_t stations;
};

// The server and its model at one table.
class Play {
public:
    Play(const Game& ofGame, uint64_t seed, uint32_t clock)
        : game(ofGame), lan(game.wishes, seed), model(game.wishes), seen(model.slots), random(lan.world.random) {
        lan.world.monotonicStart = clock;
        lan.world.LeaveBus(":1.7");  // nobody listens: the table as JSON is another test's
        lan.wire.sentLimit = 0;
        lan.world.onSend = [this](std::span<const uint8_t> frame) {
            fault += FindFault(frame);
            sent.emplace_back(frame.begin(), frame.end());
            for (const size_t checksum : {24, 25, 40, 41}) sent.back()[checksum] = 0;
            if (const auto answer = ReadDHCP(frame)) ++answers.at(answer->Type());
        };
        lan.Reports();
    }

    // What differs after one more frame; empty when nothing does.
    std::string Step() {
        PassTime();
        const Frame frame = DrawFrame();
        const Trouble trouble = {.send = Draw(20) != 0  ? SendFault::None
                                         : Draw(2) == 0 ? SendFault::Short
                                                        : SendFault::Error,
                                 .failingAllocation = Draw(20) != 0 ? 0 : 1 + Draw(2)};
        lan.world.FailSends("eth0", trouble.send, trouble.send == SendFault::None ? 0 : 1);
        lan.world.FailAllocation(trouble.failingAllocation);
        sent.clear();
        Ostrel_BOOTPServerPacketFilterHandler(lan.daemon.system.interfaceList, nullptr, frame);
        lan.world.FailSends("eth0", SendFault::None, 0);
        lan.world.FailAllocation(0);

        const Outcome expected = model.Receive(frame, lan.world.MonotonicSeconds(), trouble);
        const std::string reports = lan.Reports();
        if (reports != expected.reports) fault += "reports " + reports + "instead of " + expected.reports;
        if (sent != expected.sent) fault += "other frames are sent";
        if (fault.empty()) Compare();
        return fault.empty() ? "" : fault + " after " + DescribeFrame(frame);
    }

    std::array<uint64_t, 256> answers{};

private:
    uint32_t Draw(uint32_t below) { return static_cast<uint32_t>(random() % below); }

    void PassTime() {
        if (Draw(isFilling ? 40 : 4) == 0) lan.world.RunFor((Draw(3) == 0 ? Draw(12) : Draw(2)) * 1s);
        if (!isFilling && Draw(40) == 0) lan.world.RunFor(game.wishes.leaseTime / 2 * 1s);
        if (Draw(200) == 0) isFilling = !isFilling;
        if (Draw(20) == 0) Ostrel_SetDebugLevel(Draw(2) == 0 && game.wishes.maxLeases < 50 ? "trace" : "info");
    }

    // Mostly an address of the range (while the table is filled a free one) or just past either end of it; sometimes
    // none, or another subnet's.
    IPv4 DrawAddress() {
        const uint32_t choice = Draw(12);
        if (choice < 2) return choice == 0 ? 0 : 0xAC100001;
        if (isFilling && choice < 11) return model.FreeAddress(Draw(static_cast<uint32_t>(game.wishes.maxLeases)));
        return ToIPv4(game.wishes.rangeStart) + Draw(static_cast<uint32_t>(game.wishes.maxLeases) + 2) - 1;
    }

    Frame DrawFrame() {
        // One station has no address of its own.
        const auto number = static_cast<uint16_t>(Draw(game.stations));
        const auto low = static_cast<uint8_t>(number);
        const MAC mac = number == 0 ? MAC{} : MAC{2, 0, 0, 0, static_cast<uint8_t>(number >> 8), low};
        const auto type = Draw(40) == 0 ? static_cast<MessageType>(Draw(256))
                          : isFilling   ? std::array{kInform, kDiscover}[Draw(8) / 7]
                                        : std::array{kDiscover, kRequest, kInform, kRelease}[Draw(4)];
        DHCPMessage message = MessageFrom(mac, type);
        message.xid = static_cast<uint32_t>(random());
        message.flags = static_cast<uint16_t>(random());
        message.ciaddr = Draw(3) == 0 ? 0 : DrawAddress();
        message.giaddr = Draw(8) == 0 ? 0x0A010001 : 0;
        AddOptions(message);
        Frame frame = WriteDHCP(message);
        for (size_t at = 70; at < 86; ++at) frame[at] = static_cast<uint8_t>(random());  // chaddr, all sixteen
        if (Draw(10) == 0) Damage(frame, random);
        return frame;
    }

    void AddOptions(DHCPMessage& message) {
        auto& options = message.options;
        if (Draw(2) == 0) options.emplace_back(50, OfNumber(DrawAddress(), Draw(8) == 0 ? 3 : 4));
        if (Draw(2) == 0) options.emplace_back(61, DrawBytes(random, Draw(20) == 0 ? 256 : 8));
        if (Draw(2) == 0) options.emplace_back(12, DrawBytes(random, Draw(20) == 0 ? 256 : 8));
        if (Draw(2) == 0) options.emplace_back(55, Bytes{1, 3, 6, 15, 28, 51});
        if (Draw(4) == 0) options.emplace_back(55, DrawBytes(random, Draw(20) == 0 ? 256 : 8));
        if (Draw(8) == 0) options.push_back(options[Draw(static_cast<uint32_t>(options.size()))]);
        if (Draw(8) == 0) options.emplace_back(static_cast<uint8_t>(1 + Draw(254)), DrawBytes(random, 8));
        if (Draw(8) == 0) options.emplace_back(55, DrawLongList());
        if (Draw(4) == 0) std::shuffle(options.begin(), options.end(), random);
    }

    // More than any frame has room for.
    Bytes DrawLongList() {
        Bytes codes(255);
        for (uint8_t& code : codes) code = std::array<uint8_t, 4>{1, 3, 6, 15}[Draw(4)];
        return codes;
    }

    // Every slot, whether it says that it changed, and the walk over those in use.
    void Compare() {
        Ostrel_ServerObj& server = lan.Server();
        const Ostrel_LeaseInformation* used = Ostrel_DHCPServer_LeaseNextUsed(&server, nullptr);
        for (size_t i = 0; i < model.slots.size(); ++i) {
            Ostrel_LeaseInformation& lease = server.leases[i];
            const Slot& slot = model.slots[i];
            const bool isUsed = used == &lease;
            if (isUsed) used = Ostrel_DHCPServer_LeaseNextUsed(&server, used);
            if (!IsSame(lease, slot) || isUsed != (slot.state != kLeaseStateFree) ||
                (!lease.changed && !(slot == seen[i])))
                fault = "slot " + std::to_string(i) + " differs";
            if (lease.changed) seen[i] = slot;
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
    std::vector<Slot> seen;  // each slot when it last said that it changed
    std::mt19937_64& random;
    bool isFilling = false;  // the stations take what they can get, and little time passes
    std::vector<Frame> sent;
    std::string fault;
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
        {{.address = "10.0.0.1",
          .mask = "255.0.0.0",
          .router = "10.0.0.1",
          .rangeStart = "10.1.255.250",
          .maxLeases = 40,
          .leaseTime = 20},
         60},
        {{.address = "10.0.0.5",
          .mask = "0.0.0.0",
          .router = "10.0.0.5",
          .rangeStart = "10.255.255.254",
          .maxLeases = 4,
          .leaseTime = 20},
         4},
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
    for (size_t seed = 1; seed * kFramesOfAGame <= frames; ++seed) {
        // Clocks from zero on, from anywhere, and across their end.
        Play play(games[seed % std::size(games)], seed, std::array{0U, 1000U, UINT32_MAX - 50}[seed / 9 % 3]);
        for (uint64_t step = 0; step < kFramesOfAGame; ++step)
            ASSERT_EQ(play.Step(), "") << "seed " << seed << ", frame " << step;
        for (size_t type = 0; type < answers.size(); ++type) answers[type] += play.answers[type];
    }
    // The games were worth playing.
    for (const auto type : {kOffer, kAck, kNak}) EXPECT_GT(answers[type], frames / 20) << type;
}

}  // namespace
