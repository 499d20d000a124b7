// A DHCP client by RFC 2131 section 4.4, in the manners of clients that there are.

#include <algorithm>

#include "Neighbours.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr Duration kLongestRetry = 64s;
constexpr Duration kCheck = 300ms;
constexpr Duration kAfterDecline = 10s;
constexpr Duration kLeastExtension = 60s;

}  // namespace

void LeaseClient::Switch(bool isOn) {
    if (on == isOn && state != State::Off) return;
    if (!isOn && manner.releases && IsBound()) SendMessage(kRelease, leased, 0, server, true);
    if (!isOn && (manner.releases || !manner.keepsLease)) leased = 0;
    on = isOn;
    own = 0;
    state = State::Off;
    Never();
    if (!on) return;
    if (manner.changesIdentifier) identifier = static_cast<uint8_t>(Draw(8));
    xid = static_cast<uint32_t>(random());
    tries = 0;
    const bool knowsOne = leased != 0 && Left(1) > 0s;
    Later(Duration(static_cast<int64_t>(Draw(1'000'000))), [this, knowsOne] {
        if (knowsOne) return Ask(State::Rebooting);
        Discover();
    });
}

Duration LeaseClient::Left(double part) const {
    const auto passed = World::Get().Now() - asked;
    return std::chrono::duration_cast<Duration>(length * part) - passed;
}

void LeaseClient::SendMessage(MessageType type, IPv4 ciaddr, IPv4 requested, IPv4 chosen, bool isUnicast) {
    DHCPMessage message{.ethernetDestination = isUnicast ? serverMAC : kEveryone,
                        .ethernetSource = mac,
                        .source = ciaddr,
                        .destination = isUnicast ? server : kEveryoneIPv4,
                        .sourcePort = 68,
                        .destinationPort = 67,
                        .op = 1,
                        .xid = xid,
                        .flags = static_cast<uint16_t>(manner.wantsBroadcast && ciaddr == 0 ? 0x8000 : 0),
                        .ciaddr = ciaddr,
                        .chaddr = mac,
                        .options = {{53, {type}}, {55, {1, 3, 6, 15, 51, 54}}, {57, {0x05, 0xDC}}}};
    if (requested != 0) message.options.emplace_back(50, ToOctets(requested));
    if (chosen != 0) message.options.emplace_back(54, ToOctets(chosen));
    if (manner.hasIdentifier || manner.changesIdentifier)
        message.options.emplace_back(61, Octets{0, mac[3], mac[4], mac[5], identifier});
    segment.Send(*this, WriteDHCP(message));
}

void LeaseClient::Discover() {
    state = State::Selecting;
    own = 0;
    xid = static_cast<uint32_t>(random());
    SendMessage(kDiscover, 0, leased, 0);
    const Duration wait = std::min<Duration>(4s * (1 << std::min(tries++, 4)), kLongestRetry);
    Later(wait + Duration(static_cast<int64_t>(Draw(1'000'000))), [this] { Discover(); });
}

void LeaseClient::Ask(State next) {
    if (state != next) tries = 0;
    state = next;
    if (tries == 0) asked = next == State::Rebooting && length != 0s ? asked : World::Get().Now();
    SendMessage(kRequest, 0, leased, next == State::Requesting ? server : 0);
    const Duration wait = 4s * (1 << tries);
    Later(wait, [this, next] {
        if (++tries < 4) return Ask(next);
        tries = 0;
        leased = 0;
        Discover();
    });
}

void LeaseClient::Receive(std::span<const uint8_t> frame) {
    Neighbour::Receive(frame);
    if (!on || state == State::Off) return;
    const std::optional<DHCPMessage> message = FindFault(frame).empty() ? ReadDHCP(frame) : std::nullopt;
    if (!message || message->op != 2 || message->destinationPort != 68 || message->chaddr != mac || message->xid != xid)
        return;
    const uint8_t type = message->Type();
    const std::optional<uint32_t> from = message->Number(54);
    if (!from) return;
    if (type == kOffer && state == State::Selecting) {
        leased = message->yiaddr;
        server = *from;
        return Ask(State::Requesting);
    }
    const bool awaits = state == State::Rebooting || state == State::Requesting || state == State::Renewing ||
                        state == State::Rebinding;
    if (!awaits || (state == State::Requesting && *from != server)) return;
    if (type == kAck && message->Number(51)) return OnAck(*message);
    if (type != kNak) return;
    own = 0;
    leased = 0;
    tries = 1;
    Later(2s, [this] { Discover(); });
}

void LeaseClient::OnAck(const DHCPMessage& ack) {
    const bool isNew = own == 0;
    server = *ack.Number(54);
    serverMAC = ack.ethernetSource;
    leased = ack.yiaddr;
    length = *ack.Number(51) * Duration(1s);
    if (isNew && state == State::Rebooting) asked = World::Get().Now();
    if (!isNew || !manner.checks) return Bind();
    state = State::Checking;
    SendARP(1, 0, leased);
    Later(kCheck, [this] { Bind(); });
}

void LeaseClient::Bind() {
    state = State::Bound;
    own = leased;
    tries = 0;
    if (manner.informs) SendMessage(kInform, own, 0, 0);
    if (manner.isLazy) return Later(Left(1), [this] { Expire(); });
    Later(std::max<Duration>(Left(0.5), 1s), [this] {
        const Duration t2 = asked + length / 8 * 7;
        xid = static_cast<uint32_t>(random());
        asked = World::Get().Now();
        Extend(State::Renewing, t2);
    });
}

// Until that moment of one server, then of any, until the lease is over.
void LeaseClient::Extend(State next, Duration until) {
    state = next;
    SendMessage(kRequest, own, 0, 0, next == State::Renewing);
    const Duration left = until - World::Get().Now();
    const Duration wait = std::max<Duration>(left / 2, kLeastExtension);
    if (wait < left) return Later(wait, [this, next, until] { Extend(next, until); });
    Later(std::max<Duration>(left, 1s), [this, next, until] {
        if (next == State::Renewing) return Extend(State::Rebinding, until + length / 8);
        Expire();
    });
}

void LeaseClient::Expire() {
    own = 0;
    leased = 0;
    tries = 0;
    Discover();
}

void LeaseClient::Hear(const ARPFrame& arp) {
    if (state != State::Checking || arp.sender != leased) return;
    SendMessage(kDecline, 0, leased, server);
    leased = 0;
    tries = 0;
    Later(kAfterDecline, [this] { Discover(); });
}

}  // namespace sim
