// What must hold after each event.

#include "Invariants.h"

#include <algorithm>
#include <endian.h>
#include <utility>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/LinkLocal.h"

#include "BusService.h"
#include "DHCPClient/Machine.h"
#include "Internals.h"
#include "LeaseInvariants.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t kSeldom = 256;
constexpr Duration kGrain = 1001us;  // of the daemon's clock, and of what a check reads

// As bits.
constexpr uint32_t SetOf(std::initializer_list<Ostrel_ClientTimeout> timeouts) {
    uint32_t set = 0;
    for (const Ostrel_ClientTimeout timeout : timeouts) set |= 1U << timeout;
    return set;
}

// A wait for nothing, or two for one thing, ends in a client that hangs, or sends twice.
std::string TimeoutsFitTheState(const Scenario& scenario, const PortState& port) {
    const Ostrel_ClientObj& client = *port.iface->dhcpClient;
    std::array<uint32_t, 13> armed{};
    for (const PendingTimeout& one : const_cast<Scenario&>(scenario).world.Internals().loop.timeouts.All()) {
        if (one.context1 != &client) continue;
        for (size_t i = 0; i <= kClientTimeoutDeclining; ++i) armed.at(i) += kClientTimeouts[i].handler == one.handler;
    }
    const auto has = [&armed](Ostrel_ClientTimeout timeout) { return armed.at(timeout) != 0; };
    const bool ends = client.lease.leaseTime != kInfiniteLease && !Ostrel_DHCPClientIsStatic(&client);
    const bool isHeld = port.iface->leaseIsHeld;
    // Without a link the first two come and do nothing.
    constexpr uint32_t kSilent = SetOf({kClientTimeoutInit, kClientTimeoutRebooting, kClientTimeoutExpiry});
    uint32_t must = 0;
    uint32_t may = 0;
    switch (client.state) {
        case kClientStateUnknown:
            may = SetOf({kClientTimeoutArping, kClientTimeoutAnnouncing});
            break;
        case kClientStateInitReboot:
            break;
        case kClientStateInit:
            may = SetOf({kClientTimeoutDeclining});
            if (Ostrel_DHCPClientIsStatic(&client))
                may = SetOf(
                    {kClientTimeoutInit, kClientTimeoutArping, kClientTimeoutDeclining, kClientTimeoutAnnouncing});
            else
                must = SetOf({kClientTimeoutInit});
            break;
        case kClientStateSelecting:
            must = SetOf({kClientTimeoutSelecting});
            break;
        case kClientStateRequesting:
            must = SetOf({kClientTimeoutRequesting});
            break;
        case kClientStateRebooting:
            must = SetOf({kClientTimeoutRebooting});
            if (isHeld && ends) must |= SetOf({kClientTimeoutExpiry});
            break;
        case kClientStateBound:
            if (has(kClientTimeoutArping) || client.isChecking) {
                must = SetOf({kClientTimeoutArping});
                may = SetOf({kClientTimeoutProbing, kClientTimeoutRenewing, kClientTimeoutRebinding});
                break;
            }
            if (ends) must = SetOf({kClientTimeoutRenewing, kClientTimeoutRebinding, kClientTimeoutExpiry});
            may = SetOf({kClientTimeoutAnnouncing, kClientTimeoutRenewing, kClientTimeoutRebinding});
            break;
        case kClientStateRenewing:
            must = SetOf({kClientTimeoutRenewing});
            if (ends) must = SetOf({kClientTimeoutRenewing, kClientTimeoutRebinding, kClientTimeoutExpiry});
            may = SetOf({kClientTimeoutAnnouncing});
            break;
        case kClientStateRebinding:
            must = SetOf({kClientTimeoutRebinding});
            if (ends) must |= SetOf({kClientTimeoutExpiry});
            may = SetOf({kClientTimeoutAnnouncing});
            break;
    }
    for (size_t i = 0; i <= kClientTimeoutDeclining; ++i) {
        const uint32_t it = 1U << i;
        const bool isDue = (must & it) != 0 && !client.linkIsLost && !port.isShort;
        const bool isAlien = armed[i] != 0 && ((must | may) & it) == 0;
        const bool isVain = armed[i] != 0 && client.linkIsLost && (kSilent & it) == 0;
        if (armed[i] <= 1 && !(isDue && armed[i] == 0) && !isAlien && !isVain) continue;
        return std::string(Ostrel_ClientStateString(client.state)) + " has " + std::to_string(armed[i]) + " of " +
               kClientTimeouts[i].name + (isVain ? ", without a link" : "");
    }
    return "";
}

// A selector with two waits sends twice as often, one without selects nothing.
std::string SelectorWaitsOnce(const Scenario& scenario, const PortState& port) {
    const Ostrel_LinkLocalObj* const selector = port.iface->linkLocal;
    size_t armed = 0;
    for (const PendingTimeout& one : const_cast<Scenario&>(scenario).world.Internals().loop.timeouts.All())
        armed += one.context1 == selector;
    const bool hasTo = (selector->state == kLinkLocalStateProbe || selector->state == kLinkLocalStateDefend) &&
                       port.iface->link.isRunning && !port.isShort && selector->isWanted;
    if (armed <= 1 && !(hasTo && armed == 0)) return "";
    return std::string(Ostrel_LinkLocalStateString(selector->state)) + " with " + std::to_string(armed) + " timeouts";
}

// Whoever gives an address to the kernel takes the daemon's word that a server granted it and that nobody else has it.
std::string WhatIsHeldWasGranted(Scenario& scenario, PortState& port) {
    const Ostrel_ClientObj& client = *port.iface->dhcpClient;
    const Duration now = scenario.world.Now();
    const IPv4 held = Ostrel_DHCPClientHolds(&client) ? be32toh(client.lease.IPv4Address) : 0;
    const IPv4 before = std::exchange(port.record.held, held);
    if (held == 0) return "";
    const auto found = port.record.grants.find(held);
    if (found == port.record.grants.end()) return ToText(held) + " is held, which nobody has granted";
    const Grant& grant = found->second;
    const Duration check = client.arpCheck * Duration(1ms);
    if (grant.end + check + 2s < now) return ToText(held) + " is held, whose lease is over";
    if (held == before) return "";
    port.record.since = now;
    const bool isKept = port.plan->rfc && client.state == kClientStateRebinding;  // nobody has objected
    const bool isChecked = std::any_of(grant.acks.begin(), grant.acks.end(), [&](Duration ack) {
        return now - ack + kGrain >= check && grant.conflict <= ack;
    });
    return isKept || isChecked ? "" : ToText(held) + " is held, without a check that it has passed";
}

// What has been given back may be somebody else's memory, socket or time by now.
std::string NothingOutlivesItsObject(Scenario& scenario) {
    static std::vector<const void*> objects;
    objects.clear();
    size_t sockets = 0;
    const auto open = [&sockets](const Ostrel_PacketFilter& filter) { sockets += filter.l2 != nullptr; };
    for (const Ostrel_InterfaceObj* one = scenario.system.interfaceList; one != nullptr; one = one->next) {
        open(one->arpFilter);
        if (one->dhcpClient != nullptr) open(one->dhcpClient->packetFilter);
        if (one->dhcpServer != nullptr) open(one->dhcpServer->packetFilter);
        objects.insert(objects.end(), {one, one->dhcpClient, one->dhcpServer, one->linkLocal});
    }
    if (scenario.world.OpenSockets() != sockets) return std::to_string(scenario.world.OpenSockets()) + " sockets";
    const auto lives = [&](const void* context) {
        return std::find(objects.begin(), objects.end(), context) != objects.end();
    };
    for (const PendingTimeout& one : scenario.world.Internals().loop.timeouts.All()) {
        const bool isOfRole = one.context2 != nullptr;  // those of the bus and the log have one context
        if (isOfRole && !(lives(one.context1) && lives(one.context2))) return "a timeout of nobody";
    }
    return "";
}

// What a stranger can make it keep has a bound: per interface, per lease, per caller.
std::string MemoryIsBounded(Scenario& scenario) {
    size_t interfaces = 0;
    size_t slots = 0;
    for (const Ostrel_InterfaceObj* one = scenario.system.interfaceList; one != nullptr; one = one->next) {
        ++interfaces;
        slots += one->dhcpServer != nullptr ? one->dhcpServer->numSlots : 0;
    }
    const World& world = scenario.world;
    const size_t blocks = world.LiveAllocations() - scenario.blocksOfStart;
    if (blocks > 60 * interfaces + 2 * slots + 40 * kCallers) return std::to_string(blocks) + " blocks";
    if (world.BusAccounts() > kCallers + 1) return std::to_string(world.BusAccounts()) + " accounts";
    if (world.PendingTimeouts() > 8 + 8 * interfaces) return std::to_string(world.PendingTimeouts()) + " timeouts";
    return "";
}

// The times follow clocks of whole seconds, which change at different moments where the device has slept.
std::string Comparable(const Scenario& scenario, const std::string& state) {
    if (scenario.world.TimeAwake() == scenario.world.Now() && scenario.world.wallStart == 1'780'000'000) return state;
    std::string text = state;
    for (size_t at = text.find(":1"); at != std::string::npos; at = text.find(":1", at + 1)) {
        const size_t end = text.find_first_not_of("0123456789", at + 1);
        if (end != std::string::npos && end - at == 11)
            std::fill(text.begin() + static_cast<ptrdiff_t>(at) + 1, text.begin() + static_cast<ptrdiff_t>(end), '0');
    }
    return text;
}

// Who only listens acts on what it was told: it must be what one is told who asks.
std::string PictureIsTrue(Scenario& scenario, const Caller& caller) {
    if (!caller.listens || !caller.reads || scenario.postsMayBeLost || scenario.world.Terminated()) return "";
    const BusPeer* const peer = BusFindPeer(scenario.world.Internals().bus.get(), caller.name);
    if (peer == nullptr || peer->enrolments.empty()) return caller.name + " is enrolled no more";
    if (!peer->wanted.empty()) return "";  // more than it can take at once
    for (const auto& port : scenario.ports) {
        if (port.iface == nullptr || port.iface->pictureIsStale) continue;
        const std::string name = port.iface->ifname.data();
        const std::string request = "{\"interface\":\"" + name + "\"}";
        const std::string asked = StateIn(scenario.Ask("/", "interfaceState", request));
        const auto known = caller.known.find(name);
        const std::string told = known == caller.known.end() ? "" : known->second;
        if (asked.empty()) continue;  // the reply had no memory
        if (Comparable(scenario, told) != Comparable(scenario, asked))
            return caller.name + " knows " + told + " of " + asked;
    }
    return "";
}

}  // namespace

std::string StateIn(const std::string& text) {
    const size_t start = text.find(R"({"interface":)");
    if (start == std::string::npos || text.find(R"("managed":false)") != std::string::npos) return "";
    return text.substr(start, text.find(R"(,"counters":)") - start);
}

bool HasHalted(const PortState& port) {
    const bool client = port.plan->Asks() && port.iface->dhcpClient->state == kClientStateInitReboot;
    return client || (port.plan->Selects() && !port.iface->linkLocal->isWanted);
}

void CheckAfterEvent(Scenario& scenario, uint64_t event) {
    if (scenario.world.Terminated()) return;
    const auto judge = [&scenario](const char* name, const std::string& fault) {
        if (!fault.empty()) scenario.Fail(name, fault);
    };
    for (PortState& port : scenario.ports) {
        if (port.iface == nullptr) continue;
        const auto of = [&port](const std::string& fault) {
            return fault.empty() ? fault : "port " + std::to_string(port.number) + ": " + fault;
        };
        if (port.iface->dhcpClient != nullptr) {
            judge("TimeoutsFitTheState", of(TimeoutsFitTheState(scenario, port)));
            if (port.plan->Asks()) judge("WhatIsHeldWasGranted", of(WhatIsHeldWasGranted(scenario, port)));
        }
        if (port.iface->linkLocal != nullptr) judge("SelectorWaitsOnce", of(SelectorWaitsOnce(scenario, port)));
        if (std::exchange(port.record.booksMoved, false))
            judge("BooksAgree", of(FindLeaseFault(*port.iface->dhcpServer)));
    }
    judge("NothingOutlivesItsObject", NothingOutlivesItsObject(scenario));
    judge("MemoryIsBounded", MemoryIsBounded(scenario));
    if (event % kSeldom != 0) return;
    for (const Caller& caller : scenario.callers) judge("PictureIsTrue", PictureIsTrue(scenario, caller));
}

namespace {

// In calm an address is there within the time that the rules promise.
std::string EverybodyIsServed(const Scenario& scenario, const PortState& port) {
    const Port& plan = *port.plan;
    const std::string of = "port " + std::to_string(port.number) + " ";
    if (port.iface == nullptr) return of + "is not managed";
    const bool isServed = plan.Asks() && scenario.IsServed(plan);
    if (isServed && !Ostrel_DHCPClientHolds(port.iface->dhcpClient))
        return of + "has no lease, in " + Ostrel_ClientStateString(port.iface->dhcpClient->state);
    const bool needsNone = plan.role == Role::Fallback && Ostrel_DHCPClientHolds(port.iface->dhcpClient);
    if (plan.Selects() && !needsNone && !Ostrel_LinkLocalHolds(port.iface->linkLocal))
        return of + "holds no link-local address, in " + Ostrel_LinkLocalShownState(port.iface->linkLocal);
    return "";
}

}  // namespace

void CheckLiveness(Scenario& scenario, bool ofPlain, bool ofPressed) {
    for (const PortState& port : scenario.ports) {
        if (!port.plan->isThere || (!ofPlain && !port.plan->rfc)) continue;
        if (!ofPressed && scenario.IsPressed(*port.plan)) continue;
        const std::string fault = EverybodyIsServed(scenario, port);
        if (!fault.empty()) return scenario.Fail("EverybodyIsServed", fault);
    }
    for (const Caller& caller : scenario.callers) {
        if (!caller.listens) return scenario.Fail("EverybodyIsTold", caller.name + " could not subscribe");
        const std::string fault = PictureIsTrue(scenario, caller);
        if (!fault.empty()) return scenario.Fail("EverybodyIsTold", fault);
    }
    for (size_t i = 0; i < scenario.neighbours.size(); ++i) {
        const auto* const client = dynamic_cast<const LeaseClient*>(scenario.neighbours[i].get());
        if (client == nullptr || !ofPressed || client->manner.isLazy) continue;  // those are without one now and then
        const uint32_t segment = scenario.plan.bystanders[i].segment;
        const auto isPlain = [segment](const Port& port) {
            return port.isThere && port.segment == segment && port.Serves() && !port.rfc;
        };
        if (std::any_of(scenario.plan.ports.begin(), scenario.plan.ports.end(), isPlain)) continue;
        if (scenario.IsServed({.segment = segment}) && !client->IsBound())
            return scenario.Fail("EverybodyIsServed", "neighbour " + std::to_string(i) + " has no lease");
    }
}

void CheckQuiet(Scenario& scenario, const std::function<bool()>& hour) {
    for (PortState& port : scenario.ports) port.record.frames = 0;
    if (!hour()) return;
    for (const PortState& port : scenario.ports) {
        if (!port.plan->isThere || !port.plan->Asks() || port.iface == nullptr) continue;
        const uint32_t lease = std::max(port.iface->dhcpClient->lease.renewalTime, 1U);
        const uint64_t due = 4 * (3600 / lease + 1) + (scenario.IsServed(*port.plan) ? 0 : 4000);
        if (port.record.frames > due)
            scenario.Fail("QuietStaysQuiet", "port " + std::to_string(port.number) + " sends " +
                                                 std::to_string(port.record.frames) + " frames in a calm hour");
    }
}

void CheckMemoryAtEnd(Scenario& scenario, const std::function<void()>& leave) {
    if (scenario.HasFailed()) return;
    leave();
    const size_t left = scenario.world.LiveAllocations();
    if (left != scenario.blocksOfStart)
        scenario.Fail("MemoryIsBounded", std::to_string(left) + " blocks are left of " +
                                             std::to_string(scenario.blocksOfStart) + " at the start");
}

}  // namespace sim
