// What every neighbour does, link-local hosts, and the router.

#include "Neighbours.h"

#include <algorithm>

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr IPv4 kMask = 0xFFFFFF00;
constexpr size_t kIP = 14;
constexpr size_t kIPDestination = kIP + 16;

IPv4 AddressAt(std::span<const uint8_t> frame, size_t offset) {
    return IPv4{frame[offset]} << 24 | IPv4{frame[offset + 1]} << 16 | IPv4{frame[offset + 2]} << 8 | frame[offset + 3];
}

}  // namespace

Octets ToOctets(IPv4 address) {
    return {static_cast<uint8_t>(address >> 24), static_cast<uint8_t>(address >> 16),
            static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address)};
}

void Neighbour::Receive(std::span<const uint8_t> frame) {
    const std::optional<ARPFrame> arp = ReadARP(frame);
    if (!on || !arp || arp->senderMAC == mac) return;
    const bool isAsked = own != 0 ? arp->target == own : ownsEverything;
    if (arp->operation == 1 && isAsked) SendARP(2, arp->target, arp->sender, arp->senderMAC);
    Hear(*arp);
}

void Neighbour::SendARP(uint16_t operation, IPv4 sender, IPv4 target, const MAC& to) {
    segment.Send(*this, WriteARP({to, operation, mac, sender, operation == 1 ? MAC{} : to, target}));
}

void Neighbour::Later(Duration delay, std::function<void()> act) {
    World::Get().At(delay, [this, act = std::move(act), mine = ++turn] {
        if (mine == turn) act();
    });
}

// RFC 3927 sections 2.2 to 2.4, with the constants of section 9.
void LinkLocalHost::Switch(bool isOn) {
    on = isOn;
    own = 0;
    Never();
    if (!on) return;
    candidate = ToIPv4("169.254.1.0") + static_cast<IPv4>(Draw(65024));
    Later(Duration(static_cast<int64_t>(Draw(1'000'000))), [this] { Probe(1); });
}

void LinkLocalHost::Probe(int number) {
    SendARP(1, number > 3 ? candidate : 0, candidate);
    if (number == 5) return;
    if (number == 4) own = candidate;
    const Duration wait = number < 3 ? 1s + Duration(static_cast<int64_t>(Draw(1'000'000))) : 2s;
    Later(wait, [this, number] { Probe(number + 1); });
}

void LinkLocalHost::Hear(const ARPFrame& arp) {
    const bool isProbe = own == 0 && arp.sender == 0 && arp.target == candidate && arp.operation == 1;
    if (candidate != 0 && (arp.sender == candidate || isProbe)) Switch(true);
}

Router::Router(std::array<Segment*, 2> wires, const std::array<MAC, 2>& macs, const std::array<IPv4, 2>& addresses,
               IPv4 dhcpServer)
    : server(dhcpServer) {
    for (size_t side = 0; side < legs.size(); ++side)
        legs[side] = std::make_unique<Leg>(*this, side, *wires[side], macs[side], addresses[side]);
}

void Router::Leg::Receive(std::span<const uint8_t> frame) {
    Neighbour::Receive(frame);
    if (!router.on || frame.size() < kIP + 20 || frame[12] != 0x08 || frame[13] != 0x00) return;
    MAC destination;
    MAC source;
    std::copy_n(frame.begin(), 6, destination.begin());
    std::copy_n(frame.begin() + 6, 6, source.begin());
    router.Learn(side, AddressAt(frame, kIP + 12), source);
    if (destination != mac && destination != kEveryone) return;
    const IPv4 to = AddressAt(frame, kIPDestination);
    const std::optional<DHCPMessage> message = FindFault(frame).empty() ? ReadDHCP(frame) : std::nullopt;
    if (message && message->destinationPort == 67 && (to == kEveryoneIPv4 || to == own))
        return router.Relay(side, *message);
    if (destination == mac && to != own) router.Forward(side, frame);
}

void Router::Learn(size_t side, IPv4 address, const MAC& mac) {
    if (IsOnLink(address, legs[side]->own, kMask)) known[side][address] = mac;
}

// RFC 1542 section 4.1. A server's answer goes to where the client can hear it (RFC 2131 section 4.1).
void Router::Relay(size_t side, DHCPMessage message) {
    if (message.op == 1) {
        const size_t towards = 1 - side;
        if (!IsOnLink(server, legs[towards]->own, kMask) || message.hops >= 4 || message.giaddr != 0) return;
        const auto mac = known[towards].find(server);
        message.giaddr = legs[side]->own;
        ++message.hops;
        message.ethernetDestination = mac == known[towards].end() ? kEveryone : mac->second;
        message.ethernetSource = legs[towards]->mac;
        message.source = legs[side]->own;
        message.destination = server;
        message.sourcePort = 67;
        legs[towards]->segment.Send(*legs[towards], WriteDHCP(message));
        return;
    }
    for (const auto& leg : legs) {
        if (message.giaddr != leg->own || message.op != 2) continue;
        const bool isBroadcast = message.flags != 0 || message.yiaddr == 0;
        message.ethernetDestination = isBroadcast ? kEveryone : message.chaddr;
        message.ethernetSource = leg->mac;
        message.destination = isBroadcast ? kEveryoneIPv4 : message.yiaddr;
        message.source = leg->own;
        message.destinationPort = 68;
        if (message.Type() == kAck) known[static_cast<size_t>(&leg - legs.data())][message.yiaddr] = message.chaddr;
        leg->segment.Send(*leg, WriteDHCP(message));
    }
}

void Router::Forward(size_t side, std::span<const uint8_t> frame) {
    const size_t towards = 1 - side;
    const auto mac = known[towards].find(AddressAt(frame, kIPDestination));
    if (mac == known[towards].end() || frame[kIP + 8] < 2) return;
    Frame forwarded(frame.begin(), frame.end());
    std::copy(mac->second.begin(), mac->second.end(), forwarded.begin());
    std::copy(legs[towards]->mac.begin(), legs[towards]->mac.end(), forwarded.begin() + 6);
    --forwarded[kIP + 8];
    if (++forwarded[kIP + 10] == 0) ++forwarded[kIP + 11];  // RFC 1141: the time to live is a high byte
    legs[towards]->segment.Send(*legs[towards], forwarded);
}

}  // namespace sim
