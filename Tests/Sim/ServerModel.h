// The server's rules a second time, as slowly and plainly as they can be told: an array of slots that every question
// walks from its start, options searched for from the first one each time, replies put together byte by byte. Nothing
// is indexed or kept that could go stale, and nothing is the daemon's but its numbers.
//
// Here is what both sets of rules have in common; what they do with a message is a model's own. ServerPlay.h plays the
// server and a model at one table.
#pragma once

#include <string>
#include <utility>

#include "Ostrel/DHCPServer.h"

#include "ModelParts.h"
#include "ServerScene.h"

namespace sim::model {

struct Outcome {
    std::vector<Frame> sent;  // with checksums of zero
    std::string reports;      // as ServerLan::Reports has them
    std::string lines{};      // of the debug output, where the model tells them
    std::string posts{};      // likewise, of the table

    bool operator==(const Outcome&) const = default;
};

// A client's own address, and the name that it is told is its own.
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

// A server, and how many stations come to it. All but the first two are for the rfc rules only.
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
    // What the server keeps elsewhere, by the rfc rules.
    Bytes client{};  // that has it, had it last, or made it held; empty: nobody
    bool hadIt = false;
    bool wasLeased = false;
    bool isKept = false;
    uint64_t began = 0;    // when its time began
    uint64_t entered = 0;  // when it was last offered, held or free

    [[nodiscard]] bool IsUsed() const { return state == kLeaseStateOffered || state == kLeaseStateActive; }
    [[nodiscard]] bool IsFree() const { return state == kLeaseStateFree; }
    [[nodiscard]] bool IsNew() const { return IsFree() && !wasLeased && client.empty(); }
    [[nodiscard]] auto Shown() const { return std::tie(state, mac, offerTime, identifier, hostName); }
};

class Model {
public:
    // `interesting` things are counted that a play should bring about.
    Model(const Game& ofGame, size_t interesting) : game(ofGame), wishes(game.wishes), seen(interesting) {
        for (int32_t i = 0; i < wishes.maxLeases; ++i)
            slots.push_back({ToIPv4(wishes.rangeStart) + static_cast<uint32_t>(i)});
    }
    virtual ~Model() = default;

    // A message; times are milliseconds.
    Outcome Receive(const Frame& received, uint64_t time, const Trouble& trouble) {
        Begin(time, trouble);
        Prune();
        Report(Read(received), "PacketFilterHandler");
        const Option type = FindOption(options, 53);
        Ostrel_Status status = type.status == kNoErr && type.data.empty() ? kBadSizeErr : type.status;
        if (status == kNoErr) Say(800, "[eth0] DHCP Server RX msg type ", TypeName(type.data[0]), ".");
        if (status == kNoErr) status = Process(type.data[0]);
        Report(status, "PacketFilterHandler");
        return outcome;
    }
    // What comes of time alone, and of an ARP frame.
    virtual Outcome PassTo(uint64_t) { return {}; }
    virtual Outcome Hear(const ARPFrame&, uint64_t, const Trouble&) { return {}; }

    // The first free one from a slot on, or that slot's.
    [[nodiscard]] IPv4 FreeAddress(size_t from) const {
        for (size_t slot = from; slot < slots.size(); ++slot)
            if (slots[slot].IsFree()) return slots[slot].address;
        return slots[from].address;
    }
    // What the station has, or 0.
    [[nodiscard]] IPv4 AddressHeldBy(const MAC& mac) const {
        for (const Slot& slot : slots)
            if (slot.IsUsed() && slot.mac == mac) return slot.address;
        return 0;
    }
    // Any that is being probed, or 0.
    [[nodiscard]] virtual IPv4 ProbedAddress(uint64_t) const { return 0; }

    // Whether it tells what is written and posted.
    [[nodiscard]] virtual bool Tells() const { return false; }

    int32_t threshold = 1000;
    bool isHeard = false;    // its posts
    int64_t wallOffset = 0;  // of the wall clock, from the monotonic one, in seconds
    const Game game;
    const ServerWishes& wishes;
    std::vector<Slot> slots;
    std::vector<uint64_t> seen;

protected:
    virtual void Prune() = 0;
    virtual Ostrel_Status Process(uint8_t type) = 0;
    virtual Frame Reply(uint8_t type, const Slot* slot, const Bytes& asked) = 0;

    void Begin(uint64_t time, const Trouble& trouble) {
        outcome = {};
        milliseconds = time;
        now = static_cast<uint32_t>(time / 1000);
        untilSendFault = trouble.send;
        untilNoMemory = trouble.failingAllocation;
        isPostRefused = trouble.post;
    }

    virtual Ostrel_Status Read(const Frame& received) {
        options.clear();
        const size_t headers = 14 + (received.size() > 14 ? 4 * (received[14] & 0x0FU) : 20) + 8;
        if (received.size() < headers + 240) {
            Say(8000, "DHCP Packet too small; need ", headers + 240, " bytes, only have ", received.size(), " bytes");
            return kBadSizeErr;
        }
        std::copy_n(received.begin() + 6, source.size(), source.begin());
        message.assign(received.begin() + static_cast<ptrdiff_t>(headers), received.end());
        if (const IPv4 cookie = AddressOf(std::span(message).subspan(236)); cookie != 0x63825363) {
            Say(8000, "Invalid options cookie; expected 99.130.83.99, got ", ToText(cookie));
            return kBadFormatErr;
        }
        options.assign(message.begin() + 240, message.end());
        return kNoErr;
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

    // A REQUEST's answer, after what the client says of itself is kept.
    Ostrel_Status Acknowledge(Slot& slot) {
        if (!Keep(61, slot.identifier)) return Fail("lease->clientIdentifier", "ProcessRequest", kOutOfMemoryErr);
        if (!Keep(12, slot.hostName)) return Fail("lease->hostName", "ProcessRequest", kOutOfMemoryErr);
        return Publish(Send(kAck, &slot));
    }

    // What is told after a REQUEST that was answered.
    virtual Ostrel_Status Publish(Ostrel_Status sent) { return Report(sent, "ProcessRequest"); }

    Ostrel_Status Send(uint8_t type, const Slot* slot) {
        const Option asked = FindOption(options, 55);
        if (asked.status == kTooShortErr) return Report(asked.status, "Send_BOOTPReply");
        const Frame reply = Reply(type, slot, asked.data);
        const SendFault fault = std::exchange(untilSendFault, SendFault::None);
        if (fault == SendFault::Short) return Report(kSendFailedErr, "Send_BOOTPReply");
        if (fault == SendFault::Error) return kNoErr;  // as if it had been lost on the wire
        outcome.sent.push_back(reply);
        return kNoErr;
    }

    // As far as the server's identifier.
    [[nodiscard]] Bytes ReplyHead(uint8_t type, const Bytes& flags, IPv4 ciaddr, IPv4 yiaddr) const {
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
        return reply;
    }

    [[nodiscard]] Frame InFrame(const Bytes& reply, const MAC& to, IPv4 destination, uint16_t port) const {
        return FramedUDP(reply, to, ToIPv4(wishes.address), 67, destination, port);
    }

    // What the usual keys of the request say of an option; nothing, when none does.
    [[nodiscard]] std::optional<Bytes> UsualAnswer(uint8_t code) const {
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
    [[nodiscard]] IPv4 Giaddr() const { return AddressOf(Part(24, 4)); }
    // Of an option; 0: there is none.
    [[nodiscard]] IPv4 Address(uint8_t code) const {
        const Option option = FindOption(options, code);
        return option.data.size() == 4 ? AddressOf(option.data) : 0;
    }
    [[nodiscard]] bool IsOfSubnet(IPv4 address) const {
        return address != 0 && ((address ^ ToIPv4(wishes.address)) & ToIPv4(wishes.mask)) == 0;
    }
    Slot* SlotOf(IPv4 address) {
        if (!IsOfSubnet(address)) return nullptr;
        return First([=](const Slot& slot) { return slot.address == address; });
    }

    template <typename Condition>
    Slot* First(const Condition& fits) {
        const auto place = std::find_if(slots.begin(), slots.end(), fits);
        return place == slots.end() ? nullptr : &*place;
    }

    template <typename... Parts>
    void Say(int32_t level, const Parts&... parts) {
        if (level >= threshold) outcome.lines += Join(parts..., "\n");
    }
    // Only what failed.
    Ostrel_Status Report(Ostrel_Status status, const std::string& function) {
        if (status != kNoErr) outcome.reports += std::to_string(status) + " @" + function + "; ";
        return status;
    }
    Ostrel_Status Fail(const std::string& expression, const std::string& function, Ostrel_Status status) {
        outcome.reports += "0 " + expression + "@" + function + "; ";
        return status;
    }

    // Of the frame at hand.
    uint64_t milliseconds = 0;
    uint32_t now = 0;
    SendFault untilSendFault{};
    size_t untilNoMemory = 0;
    bool isPostRefused = false;
    MAC source{};
    Bytes message;
    Bytes options;
    Outcome outcome;
};

}  // namespace sim::model
