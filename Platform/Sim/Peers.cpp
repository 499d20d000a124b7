// The scripted server and its neighbours.

#include "Peers.h"

namespace sim {
namespace {

std::vector<uint8_t> Join(const std::vector<IPv4>& addresses) {
    std::vector<uint8_t> bytes(4 * addresses.size());
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(addresses[i / 4] >> (24 - i % 4 * 8));
    return bytes;
}

}  // namespace

IPv4 ScriptedServer::LeaseOf(const MAC& client) {
    const auto [row, isNew] = leases.try_emplace(client, script.firstLease + leasesGiven);
    if (isNew) ++leasesGiven;
    return row->second;
}

DHCPMessage ScriptedServer::Answer(const DHCPMessage& request, MessageType type) {
    DHCPMessage answer{.ethernetDestination = request.ethernetSource,
                       .source = script.address,
                       .destination = kEveryoneIPv4,
                       .op = 2,
                       .xid = request.xid,
                       .chaddr = request.chaddr,
                       .options = {{53, {type}}, {54, Join({script.address})}}};
    if (type == kNak) return answer;
    answer.yiaddr = LeaseOf(request.chaddr);
    answer.destination = request.source != 0 ? request.source : answer.yiaddr;
    const auto add = [&answer](uint8_t code, const std::vector<uint8_t>& data) {
        if (!data.empty()) answer.options.emplace_back(code, data);
    };
    add(51, Join({script.leaseTime}));
    if (script.t1) add(58, Join({*script.t1}));
    if (script.t2) add(59, Join({*script.t2}));
    add(1, Join({script.mask}));
    add(3, Join(script.routers));
    add(6, Join(script.dnsServers));
    add(15, {script.domainName.begin(), script.domainName.end()});
    return answer;
}

void ScriptedServer::Send(DHCPMessage message) {
    message.ethernetSource = mac;
    message.source = script.address;
    message.sourcePort = 67;
    message.destinationPort = 68;
    segment.Send(*this, WriteDHCP(message));
}

void ScriptedServer::Receive(std::span<const uint8_t> frame) {
    const std::optional<DHCPMessage> message = ReadDHCP(frame);
    if (!message || message->destinationPort != 67 || script.silent) return;
    if (message->ethernetDestination != kEveryone && message->ethernetDestination != mac) return;
    const auto reply = [&](MessageType type) {
        DHCPMessage answer = Answer(*message, type);
        if (script.tamper) script.tamper(answer);
        Send(answer);
    };
    if (message->Type() == kDiscover) reply(kOffer);
    if (message->Type() == kDecline) leases.erase(message->chaddr);
    if (message->Type() != kRequest || script.silentToRequest) return;
    if (message->Number(54).value_or(script.address) != script.address) return;  // for another server
    const bool isOurs = message->Number(50).value_or(message->ciaddr) == LeaseOf(message->chaddr);
    reply(isOurs ? kAck : kNak);
}

void ArpHost::Receive(std::span<const uint8_t> frame) {
    const std::optional<ARPFrame> arp = ReadARP(frame);
    if (arp && arp->operation == 1 && arp->target == ipv4) Send(2, arp->senderMAC, arp->sender);
}

void ArpHost::Send(uint16_t operation, const MAC& toMAC, IPv4 to) {
    segment.Send(*this, WriteARP({toMAC, operation, mac, ipv4, toMAC, to}));
}

}  // namespace sim
