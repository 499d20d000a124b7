// A DHCP server by RFC 2131 section 4.3, with a pool for each subnet that it serves.

#include <algorithm>

#include "Neighbours.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr IPv4 kMask = 0xFFFFFF00;
constexpr Duration kOfferTime = 30s;
constexpr Duration kQuarantine = 300s;

// Its identifier, or else its hardware address (section 4.2).
Octets ClientOf(const DHCPMessage& message) {
    const Octets* const identifier = message.Find(61);
    return identifier != nullptr ? *identifier : Octets(message.chaddr.begin(), message.chaddr.end());
}

}  // namespace

const Pool* LeaseServer::PoolFor(const DHCPMessage& message) const {
    const IPv4 link = message.giaddr != 0 ? message.giaddr : message.ciaddr != 0 ? message.ciaddr : own;
    for (const Pool& pool : pools)
        if (IsOnLink(pool.subnet, link, kMask)) return &pool;
    return message.giaddr != 0 ? nullptr : pools.data();
}

IPv4 LeaseServer::AddressOf(const Octets& client, const Pool& pool) const {
    for (const auto& [address, lease] : leases)
        if (lease.client == client && !lease.isQuarantine && IsOnLink(address, pool.subnet, kMask)) return address;
    return 0;
}

bool LeaseServer::IsFree(IPv4 address, const Octets& client) const {
    const auto lease = leases.find(address);
    if (lease == leases.end() || lease->second.end <= World::Get().Now()) return true;
    return !lease->second.isQuarantine && lease->second.client == client;
}

// Its own address, the one that it asks for, or any that is free (section 4.3.1).
IPv4 LeaseServer::Choose(const DHCPMessage& message, const Octets& client, const Pool& pool) {
    const IPv4 former = AddressOf(client, pool);
    if (former != 0 && IsFree(former, client)) return former;
    const IPv4 wished = message.Number(50).value_or(0);
    if (wished - pool.first < pool.size && IsFree(wished, client)) return wished;
    for (uint32_t i = 0; i < pool.size; ++i)
        if (IsFree(pool.first + i, client)) return pool.first + i;
    return 0;
}

void LeaseServer::OnDiscover(const DHCPMessage& message, const Pool& pool) {
    const Octets client = ClientOf(message);
    const IPv4 address = Choose(message, client, pool);
    if (address == 0) return;
    const Duration now = World::Get().Now();
    Lease& lease = leases[address];
    const bool isItsLease = lease.client == client && lease.end > now;
    lease = {client, isItsLease ? std::max(lease.end, now + kOfferTime) : now + kOfferTime, false};
    Reply(message, kOffer, address, pool);
}

// Section 4.3.2: who has chosen this server, who comes back, who extends its lease.
void LeaseServer::OnRequest(const DHCPMessage& message, const Pool& pool) {
    if (message.Number(54).value_or(own) != own) return;
    const Octets client = ClientOf(message);
    const IPv4 wanted = message.Number(50).value_or(message.ciaddr);
    const bool isServed = wanted - pool.first < pool.size;
    const bool isChosen = message.Number(54).has_value();
    if (isServed && IsFree(wanted, client) && !refuses) {
        leases[wanted] = {client, World::Get().Now() + leaseTime * 1s, false};
        return Reply(message, kAck, wanted, pool);
    }
    if (isChosen || refuses || isServed || (authoritative && !IsOnLink(wanted, pool.subnet, kMask)))
        Reply(message, kNak, 0, pool);
}

void LeaseServer::Receive(std::span<const uint8_t> frame) {
    Neighbour::Receive(frame);
    const std::optional<DHCPMessage> message = FindFault(frame).empty() ? ReadDHCP(frame) : std::nullopt;
    if (!on || silent || !message || message->op != 1 || message->destinationPort != 67) return;
    if (message->ethernetDestination != kEveryone && message->ethernetDestination != mac) return;
    if (message->destination != kEveryoneIPv4 && message->destination != own) return;
    const Pool* const pool = PoolFor(*message);
    if (pool == nullptr) return;
    const Duration wait(static_cast<int64_t>(Draw(static_cast<uint64_t>(thinks.count()) + 1)));
    World::Get().At(wait, [this, message = *message, pool] {
        const uint8_t type = message.Type();
        if (type == kDiscover) OnDiscover(message, *pool);
        if (type == kRequest && !silentToRequest) OnRequest(message, *pool);
        if (type == kInform) Reply(message, kAck, 0, *pool);
        const IPv4 address = type == kDecline ? message.Number(50).value_or(0) : message.ciaddr;
        const auto lease = leases.find(address);
        if (lease == leases.end() || lease->second.client != ClientOf(message)) return;
        if (type == kDecline) lease->second = {{}, World::Get().Now() + kQuarantine, true};
        if (type == kRelease) lease->second.end = World::Get().Now();
    });
}

// Where an answer goes: section 4.1. What is in it: table 3.
void LeaseServer::Reply(const DHCPMessage& to, MessageType type, IPv4 yiaddr, const Pool& pool) {
    const bool isUnicast = to.giaddr != 0 || to.ciaddr != 0 || ((to.flags & 0x8000) == 0 && yiaddr != 0);
    const IPv4 target = to.giaddr != 0 ? to.giaddr : to.ciaddr != 0 ? to.ciaddr : yiaddr;
    const bool isBroadcast = !isUnicast || (type == kNak && to.giaddr == 0);
    DHCPMessage reply{.ethernetDestination = isBroadcast ? kEveryone : to.ethernetSource,
                      .ethernetSource = mac,
                      .source = own,
                      .destination = isBroadcast ? kEveryoneIPv4 : target,
                      .sourcePort = 67,
                      .destinationPort = static_cast<uint16_t>(to.giaddr != 0 ? 67 : 68),
                      .op = 2,
                      .xid = to.xid,
                      .flags = static_cast<uint16_t>(type == kNak && to.giaddr != 0 ? 0x8000 : to.flags),
                      .ciaddr = type == kAck ? to.ciaddr : 0,
                      .yiaddr = yiaddr,
                      .giaddr = to.giaddr,
                      .chaddr = to.chaddr,
                      .options = {{53, {type}}, {54, ToOctets(own)}}};
    if (type != kNak) {
        if (yiaddr != 0) reply.options.emplace_back(51, ToOctets(leaseTime));
        if (yiaddr != 0 && t1) reply.options.emplace_back(58, ToOctets(*t1));
        if (yiaddr != 0 && t2) reply.options.emplace_back(59, ToOctets(*t2));
        reply.options.emplace_back(1, ToOctets(kMask));
        reply.options.emplace_back(3, ToOctets(pool.router));
        reply.options.emplace_back(6, ToOctets(own));
        reply.options.emplace_back(15, Octets{'l', 'a', 'n'});
    }
    if (const Octets* const identifier = to.Find(61)) reply.options.emplace_back(61, *identifier);
    segment.Send(*this, WriteDHCP(reply));
}

}  // namespace sim
