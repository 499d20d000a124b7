// A station that means harm: what it sends is right in all but what it lies about, or wrong in every way that there is.

#include <algorithm>
#include <utility>

#include "Neighbours.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr size_t kHeard = 32;
constexpr size_t kIP = 14;
constexpr size_t kOptions = 282;
constexpr int kBurst = 40;

// The IPv4 header's and the UDP checksum, as far as the frame has both; 0: none, of UDP.
void MendChecksums(Frame& frame) {
    if (frame.size() < kIP + 28) return;
    const auto sum = [&frame](size_t from, size_t to) {
        uint32_t total = 0;
        for (size_t i = from; i < to; ++i) total += static_cast<uint32_t>(frame[i]) << (i % 2 == 0 ? 8 : 0);
        while (total > 0xFFFF) total = (total & 0xFFFF) + (total >> 16);
        return static_cast<uint16_t>(~total);
    };
    const size_t header = std::min<size_t>(kIP + (frame[kIP] & size_t{15}) * 4, frame.size());
    frame[kIP + 10] = frame[kIP + 11] = 0;
    const uint16_t checksum = sum(kIP, header);
    frame[kIP + 10] = static_cast<uint8_t>(checksum >> 8);
    frame[kIP + 11] = static_cast<uint8_t>(checksum);
    if (header + 8 <= frame.size()) frame[header + 6] = frame[header + 7] = 0;
}

}  // namespace

const char* HarmName(Harm harm) {
    constexpr std::array<const char*, kHarms> kNames{
        "mutated frames",  "forged refusals",    "forged offers and grants",
        "ARP conflicts",   "starvation",         "storms",
        "replayed frames", "off-link datagrams", "a host that has every address"};
    return kNames.at(static_cast<size_t>(harm));
}

void Mischief::Receive(std::span<const uint8_t> frame) {
    Neighbour::Receive(frame);
    if (!on || harms.empty()) return;
    heard.emplace_back(frame.begin(), frame.end());
    if (heard.size() > kHeard) heard.pop_front();
    if (const std::optional<ARPFrame> arp = ReadARP(frame)) spoken = arp->target != 0 ? arp->target : spoken;
    const std::optional<DHCPMessage> message = ReadDHCP(frame);
    if (!message) return;
    (message->op == 1 ? asked : answered) = message;
    if (message->yiaddr != 0) spoken = message->yiaddr;
    if (message->op == 1 && harms.contains(Harm::Refusals) && Draw(2) == 0) Do(Harm::Refusals);
    if (message->op == 1 && harms.contains(Harm::Grants) && Draw(2) == 0) Do(Harm::Grants);
    if (message->op == 2 && harms.contains(Harm::Starvation) && message->Type() == kOffer &&
        message->chaddr[0] == 0x0A) {
        DHCPMessage request = *message;
        request.ethernetDestination = kEveryone;
        request.source = 0;
        std::swap(request.sourcePort, request.destinationPort);
        request.destination = kEveryoneIPv4;
        request.op = 1;
        request.options = {{53, {kRequest}}, {50, ToOctets(message->yiaddr)}};
        request.yiaddr = 0;
        Put(WriteDHCP(request));
    }
}

void Mischief::Begin(Harm harm, Duration pace) {
    on = true;
    if (!std::exchange(harms[harm], true)) Act(harm, pace, round);
    ownsEverything = harms.contains(Harm::OwnsAll);
}

void Mischief::Switch(bool isOn) {
    on = isOn;
    ++round;
    harms.clear();
    heard.clear();
    ownsEverything = false;
}

void Mischief::Act(Harm harm, Duration pace, uint64_t ofRound) {
    World::Get().At(pace / 2 + Duration(static_cast<int64_t>(Draw(static_cast<uint64_t>(pace.count()) + 1))),
                    [this, harm, pace, ofRound] {
                        if (ofRound != round) return;
                        Do(harm);
                        Act(harm, pace, ofRound);
                    });
}

void Mischief::Put(const Frame& frame) {
    ++framesSent;
    segment.Send(*this, frame);
}

void Mischief::Do(Harm harm) {
    const Frame* const known = heard.empty() ? nullptr : &heard[Draw(heard.size())];
    switch (harm) {
        case Harm::Mutants:
            if (known != nullptr) Put(Mutate(*known));
            return;
        case Harm::Refusals:
            if (asked) Answer(*asked, kNak);
            return;
        case Harm::Grants:
            if (asked) Answer(*asked, Draw(2) == 0 ? kOffer : kAck);
            return;
        case Harm::Conflicts:
            SendARP(static_cast<uint16_t>(1 + Draw(2)), Draw(4) == 0 ? 0 : spoken, spoken);
            ++framesSent;
            return;
        case Harm::Starvation:
            return Starve();
        case Harm::Storm:
            for (int i = 0; i < kBurst && known != nullptr; ++i) Put(*known);
            return;
        case Harm::Replay:
            if (known != nullptr) Put(*known);
            return;
        case Harm::OffLink:
            if (!answered || gateway == MAC{}) return;
            answered->ethernetDestination = gateway;
            answered->ethernetSource = mac;
            answered->source = Draw(2) == 0 ? answered->source : beyond;
            answered->destination = beyond;
            return Put(Draw(2) == 0 ? WriteDHCP(*answered) : MutateDHCP(*answered));
        case Harm::OwnsAll:
        case Harm::kCount:
            return;
    }
}

void Mischief::Starve() {
    const auto number = static_cast<uint32_t>(random());
    MAC station{0x0A, 0, 0};
    for (size_t i = 3; i < station.size(); ++i) station[i] = static_cast<uint8_t>(number >> (8 * i - 24));
    Put(WriteDHCP({.ethernetDestination = kEveryone,
                   .ethernetSource = Draw(2) == 0 ? station : mac,
                   .destination = kEveryoneIPv4,
                   .sourcePort = 68,
                   .destinationPort = 67,
                   .op = 1,
                   .xid = number,
                   .flags = 0x8000,
                   .chaddr = station,
                   .options = {{53, {kDiscover}}}}));
}

// In the name of the server that answered last, or in its own.
void Mischief::Answer(const DHCPMessage& message, MessageType type) {
    const bool isForged = answered && Draw(2) == 0;
    const IPv4 server = isForged ? answered->Number(54).value_or(answered->source) : IPv4{0x0A0000FE};
    DHCPMessage answer{.ethernetDestination = Draw(2) == 0 ? kEveryone : message.ethernetSource,
                       .ethernetSource = isForged ? answered->ethernetSource : mac,
                       .source = server,
                       .destination = kEveryoneIPv4,
                       .sourcePort = 67,
                       .destinationPort = 68,
                       .op = 2,
                       .xid = Draw(8) == 0 ? static_cast<uint32_t>(random()) : message.xid,
                       .flags = 0x8000,
                       .yiaddr = type == kNak ? 0 : spoken + static_cast<IPv4>(Draw(3)),
                       .chaddr = message.chaddr,
                       .options = {{53, {type}}, {54, ToOctets(server)}}};
    if (type != kNak && Draw(8) != 0) answer.options.emplace_back(51, ToOctets(static_cast<uint32_t>(Draw(7200))));
    if (type != kNak && Draw(4) != 0) answer.options.emplace_back(1, ToOctets(0xFFFFFF00));
    Put(WriteDHCP(answer));
}

Frame Mischief::MutateDHCP(DHCPMessage message) {
    auto& options = message.options;
    const auto any = [&]() -> auto& {
        return options[Draw(options.size())];
    };
    for (uint64_t i = 1 + Draw(3); i > 0 && !options.empty(); --i) {
        const bool isFull = Draw(2) == 0;
        switch (Draw(10)) {
            case 0:
                options.erase(options.begin() + static_cast<ptrdiff_t>(Draw(options.size())));
                break;
            case 1:
                options.push_back(any());
                break;
            case 2:
                any().second.resize(Draw(40));
                break;
            case 3:
                any().second.resize(200 + Draw(56), 0xC0);
                break;
            case 4:
                for (uint8_t& byte : any().second) byte = static_cast<uint8_t>(isFull ? 255 : 0);
                break;
            case 5:
                any().first = static_cast<uint8_t>(1 + Draw(254));
                break;
            case 6:
                options[0].second.assign(1, static_cast<uint8_t>(Draw(10)));
                break;
            case 7:
                message.xid = static_cast<uint32_t>(random());
                break;
            case 8:
                message.yiaddr = Draw(2) == 0 ? spoken : static_cast<IPv4>(random());
                break;
            default:
                message.giaddr = Draw(2) == 0 ? 0x0A0100FE : static_cast<IPv4>(random());
        }
    }
    message.ethernetSource = Draw(2) == 0 ? mac : message.ethernetSource;
    return WriteDHCP(message);
}

Frame Mischief::Mutate(Frame frame) {
    const std::optional<DHCPMessage> message = ReadDHCP(frame);
    if (message && Draw(3) != 0) frame = MutateDHCP(*message);
    const auto any = [&]() -> uint8_t& { return frame[Draw(frame.size())]; };
    switch (frame.size() < 60 ? 9 : Draw(9)) {
        case 0:
            frame.resize(14 + Draw(frame.size() - 14));
            break;
        case 1:
            frame.resize(frame.size() + Draw(200), 0);
            break;
        case 2:
            any() = static_cast<uint8_t>(random());
            break;
        case 3:
            if (frame.size() > kOptions)
                frame[kOptions + Draw(frame.size() - kOptions)] = static_cast<uint8_t>(random());
            break;
        case 4:  // another header length
            frame[kIP] = static_cast<uint8_t>(0x40 | Draw(16));
            if (Draw(2) == 0 && frame[kIP] > 0x45)
                frame.insert(frame.begin() + kIP + 20, (frame[kIP] - size_t{0x45}) * 4, 0);
            break;
        case 5:  // a fragment
            frame[kIP + 6] = static_cast<uint8_t>(Draw(2) == 0 ? 0x20 : Draw(32));
            break;
        case 6:  // lengths that lie
            frame[Draw(2) == 0 ? kIP + 3 : kIP + 25] = static_cast<uint8_t>(random());
            break;
        default:
            break;
    }
    if (Draw(4) != 0 && frame.size() > kIP + 1 && frame[12] == 0x08 && frame[13] == 0x00) MendChecksums(frame);
    return frame;
}

}  // namespace sim
