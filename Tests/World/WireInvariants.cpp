// What must hold of each frame that an interface gets or sends.

#include <algorithm>

#include "Ostrel/DHCPServer.h"

#include "DHCPServer/LeaseIndex.h"
#include "DHCPServer/LeaseTable.h"
#include "Invariants.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr size_t kIP = 14;

// The UDP destination port of a frame that isn't to be trusted; 0: none.
uint16_t PortOf(std::span<const uint8_t> frame, size_t* bootp) {
    if (frame.size() < kIP + 28 || frame[12] != 0x08 || frame[13] != 0x00 || frame[kIP] >> 4 != 4) return 0;
    const size_t udp = kIP + (frame[kIP] & 15U) * 4U;
    *bootp = udp + 8;
    return udp + 8 > frame.size() ? 0 : static_cast<uint16_t>(frame[udp + 2] << 8 | frame[udp + 3]);
}

bool IsLinkLocal(IPv4 address) {
    return address >> 16 == 0xA9FE;
}

Octets ClientOf(const DHCPMessage& message) {
    if (const Octets* const identifier = message.Find(61)) return *identifier;
    Octets client{1};
    client.insert(client.end(), message.chaddr.begin(), message.chaddr.end());
    return client;
}

// Whether it says each thing once: what it means is then beyond doubt.
bool IsClear(const DHCPMessage& message) {
    for (const uint8_t code : std::array<uint8_t, 4>{50, 53, 54, 61}) {
        const auto isIt = [code](const auto& option) { return option.first == code; };
        if (std::count_if(message.options.begin(), message.options.end(), isIt) > 1) return false;
    }
    return true;
}

// What a client has heard of the address.
void NoteGrant(Scenario& scenario, PortState& port, std::span<const uint8_t> frame, size_t bootp) {
    const std::optional<DHCPMessage> message = ReadDHCP(frame);
    const bool isClear = message && IsClear(*message);
    if ((isClear && message->Type() != kAck) || frame.size() < bootp + 240) return;
    IPv4 address = 0;
    for (size_t i = 0; i < 4; ++i) address = address << 8 | frame[bootp + 16 + i];
    Grant& grant = port.record.grants[address];
    grant.acks.push_back(scenario.world.Now());
    while (grant.acks.size() > 2 && scenario.world.Now() - grant.acks[1] > 60s) grant.acks.pop_front();
    const uint32_t length = isClear ? message->Number(51).value_or(UINT32_MAX) : UINT32_MAX;
    grant.end = std::max(grant.end, scenario.world.Now() + length * Duration(1s));
}

// What a server hears of its leases, by which they end.
void NoteEnd(PortState& port, std::span<const uint8_t> frame, size_t bootp) {
    auto& leases = port.record.leases;
    const std::optional<DHCPMessage> message = ReadDHCP(frame);
    if (!message || !IsClear(*message)) {
        if (frame.size() < bootp + 34) return;
        const auto isOfIt = [&](const auto& lease) {
            return std::equal(lease.second.hardware.begin(), lease.second.hardware.end(),
                              frame.begin() + static_cast<ptrdiff_t>(bootp) + 28);
        };
        std::erase_if(leases, isOfIt);
        return;
    }
    const Octets client = ClientOf(*message);
    const uint8_t type = message->Type();
    const IPv4 requested = message->Number(50).value_or(0);
    if (type == kRelease || type == kDecline) {
        const auto lease = leases.find(type == kRelease ? message->ciaddr : requested);
        if (lease != leases.end() && lease->second.client == client) leases.erase(lease);
    }
    if (type != kRequest) return;
    const IPv4 wanted = requested != 0 ? requested : message->ciaddr;
    std::erase_if(leases, [&](const auto& lease) { return lease.second.client == client && lease.first != wanted; });
}

void NoteBooks(const Scenario& scenario, PortState& port) {
    const Ostrel_ServerObj& server = *port.iface->dhcpServer;
    port.record.before.assign(server.numSlots, {});
    for (uint32_t slot = 0; slot < server.numSlots; ++slot) {
        const Ostrel_LeaseInformation& lease = server.leases[slot];
        if (!Ostrel_LeaseIsInUse(lease.state)) continue;
        const uint32_t life = lease.state == kLeaseStateActive ? server.leaseTime : server.offerTimeout;
        const bool lives = scenario.world.MonotonicSeconds() - lease.offerTime < life;
        port.record.before[slot] = {lives, lease.srcMAC, Ostrel_LeaseIndexKeyOf(&server, slot)};
    }
}

// A receiver drops what is wrong in lengths or checksums, and a switch learns from the source.
std::string EveryFrameIsSound(const Scenario& scenario, const PortState& port, std::span<const uint8_t> frame) {
    if (scenario.world.framesTooLong != 0) return "a frame above the MTU";
    const auto isSource = [&frame](const auto& mac) { return std::equal(mac.begin(), mac.end(), frame.begin() + 6); };
    if (!isSource(port.mac) && (port.iface == nullptr || !isSource(port.iface->macAddr))) return "source";
    return FindFault(frame);
}

// More than `most` in any time of that length.
bool IsTooMany(const std::deque<Duration>& moments, size_t most, Duration window) {
    return moments.size() > most && moments.back() - moments[moments.size() - 1 - most] <= window;
}

std::string OfBudget(std::deque<Duration>& moments, Duration now, const char* role) {
    moments.push_back(now);
    if (moments.size() > 31) moments.pop_front();
    if (IsTooMany(moments, 4, 1s)) return std::string(role) + " sends more than 4 frames in a second";
    return IsTooMany(moments, 30, 60s) ? std::string(role) + " sends more than 30 frames in a minute" : "";
}

// Where ten went out in ten seconds a second lies between two, less the grain of the daemon's clock.
std::string OfStorm(std::deque<Duration>& moments, Duration now, const char* message) {
    const bool isStorm = moments.size() == 10 && now - moments.front() < 10s - 1ms;
    if (isStorm && now - moments.back() < 1s - 1ms) return std::string("a storm of ") + message;
    moments.push_back(now);
    if (moments.size() > 10) moments.pop_front();
    return "";
}

// Whatever servers, neighbours and strangers do, a network has to bear what our stations make of it.
std::string NobodySendsTooMuch(const Scenario& scenario, PortState& port, std::span<const uint8_t> frame) {
    const Duration now = scenario.world.Now();
    PortState::Record& record = port.record;
    ++record.frames;
    if (const std::optional<ARPFrame> arp = ReadARP(frame)) {
        if (!IsLinkLocal(arp->target))
            return port.plan->Serves() || !port.plan->rfc ? "" : OfBudget(record.clientFrames, now, "the client");
        if (port.plan->rfc) return OfBudget(record.selectorFrames, now, "the selector");
        if (arp->sender != 0 || arp->target == record.candidate) return "";
        record.candidate = arp->target;
        record.candidates.push_back(now);
        const size_t most = 75 + record.actions;  // ten at once, then one a minute
        if (record.candidates.size() > most + 1) record.candidates.pop_front();
        return IsTooMany(record.candidates, most, 3600s) ? "the selector tries too many addresses in an hour" : "";
    }
    const std::optional<DHCPMessage> message = ReadDHCP(frame);
    if (!message || message->op != 1) return "";
    if (message->Type() == kDiscover) {
        if (std::string storm = OfStorm(record.discovers, now, "DISCOVERs"); !storm.empty()) return storm;
    }
    if (message->Type() == kDecline) {
        if (std::string storm = OfStorm(record.declines, now, "DECLINEs"); !storm.empty()) return storm;
    }
    const bool isCounted = port.plan->rfc && message->Type() != kRelease;
    return isCounted ? OfBudget(record.clientFrames, now, "the client") : "";
}

// A server that says more than it is asked can be made to flood somebody.
std::string AServerOnlyAnswers(PortState& port, std::span<const uint8_t> frame) {
    PortState::Record& record = port.record;
    const std::optional<ARPFrame> arp = ReadARP(frame);
    if (arp && !IsLinkLocal(arp->target)) ++record.probes;
    if (!arp) ++record.answered;
    if (record.answered > record.asked) return "more answers than requests";
    return record.probes > record.asked + record.heardARP ? "more probes than requests" : "";
}

// Two hosts with one address cut each other off.
std::string NoAddressIsGrantedTwice(const Scenario& scenario, PortState& port, std::span<const uint8_t> frame) {
    const std::optional<DHCPMessage> answer = ReadDHCP(frame);
    if (!answer || answer->yiaddr == 0 || answer->op != 2) return "";
    const Ostrel_ServerObj& server = *port.iface->dhcpServer;
    const Ostrel_LeaseInformation* const lease = Ostrel_LeaseSlotOfAddress(&server, htobe32(answer->yiaddr));
    if (lease != nullptr) {
        const uint32_t slot = Ostrel_LeaseSlotNumber(&server, lease);
        const SlotBefore& before = port.record.before.at(slot);
        const bool isAnother =
            port.plan->rfc ? before.key != Ostrel_LeaseIndexKeyOf(&server, slot) && before.holder != answer->chaddr
                           : before.holder != answer->ethernetDestination;
        if (before.lives && isAnother && answer->Type() != kNak)
            return ToText(answer->yiaddr) + " is another's by the server's own books";
    }
    if (!port.plan->rfc || answer->Type() != kAck) return "";
    const Octets client = ClientOf(*answer);
    Holder& holder = port.record.leases[answer->yiaddr];
    const Duration now = scenario.world.Now();
    const bool isAnothers = !holder.client.empty() && holder.client != client && holder.hardware != answer->chaddr;
    if (isAnothers && holder.end - 1s > now) return ToText(answer->yiaddr) + " is granted twice";
    holder = {client, answer->chaddr, now + answer->Number(51).value_or(0) * Duration(1s)};
    return "";
}

}  // namespace

void CheckReceiving(Scenario& scenario, PortState& port, std::span<const uint8_t> frame) {
    if (const std::optional<ARPFrame> arp = ReadARP(frame)) {
        ++port.record.heardARP;
        const auto grant = port.record.grants.find(arp->sender != 0 ? arp->sender : arp->target);
        const bool counts = port.plan->rfc ? arp->sender != 0 || arp->operation == 1 : arp->operation == 2;
        if (counts && grant != port.record.grants.end() && arp->senderMAC != port.iface->macAddr)
            grant->second.conflict = scenario.world.Now();
    }
    size_t bootp = 0;
    const uint16_t to = PortOf(frame, &bootp);
    if (to == 68 && port.plan->Asks()) NoteGrant(scenario, port, frame, bootp);
    if (!port.plan->Serves()) return;
    port.record.booksMoved = true;
    NoteBooks(scenario, port);
    if (to != 67) return;
    ++port.record.asked;
    NoteEnd(port, frame, bootp);
}

void CheckSending(Scenario& scenario, PortState& port, std::span<const uint8_t> frame) {
    ++scenario.tally.frames;
    const auto judge = [&](const char* name, const std::string& fault) {
        if (!fault.empty())
            scenario.Fail(name, "port " + std::to_string(port.number) + ": " + fault + ", " + DescribeFrame(frame));
    };
    judge("EveryFrameIsSound", EveryFrameIsSound(scenario, port, frame));
    judge("NobodySendsTooMuch", NobodySendsTooMuch(scenario, port, frame));
    if (!port.plan->Serves() || port.iface == nullptr) return;
    judge("AServerOnlyAnswers", AServerOnlyAnswers(port, frame));
    if (port.record.before.empty()) NoteBooks(scenario, port);
    judge("NoAddressIsGrantedTwice", NoAddressIsGrantedTwice(scenario, port, frame));
}

}  // namespace sim
