// What each event of a plan does, and what calm is.

#include <algorithm>

#include "Internals.h"
#include "Invariants.h"
#include "Scenario.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr Duration kCalmOfRFC = 200s;     // pauses of 64 s, after a REQUEST that nobody answers
constexpr Duration kCalmOfPlain = 1250s;  // waits of 512 s, twice
constexpr Duration kHold = 620s;          // for which a server keeps an address that somebody else has

}  // namespace

void Scenario::Happen(const Event& event) {
    if (!isRunning) return;
    if (event.what == What::Wire)
        wires.at(event.who)->faults = {
            .loss = event.values[0], .duplication = event.values[1], .delay = event.values[2], .maximumDelay = 2s};
    if (event.what == What::Sleep && !IsAsleep()) world.Suspend(event.values[0] * 1s);
    if (event.what == What::Clock) world.wallStart += static_cast<int64_t>(event.values[0]) - 100'000;
    if (event.what == What::Restart && !IsAsleep()) Restart(event.values[0]);
    if (event.what == What::Memory || event.what == What::Call) FailCalls(event);
    if (event.what == What::Listen || event.what == What::Unlisten || event.what == What::Nonsense)
        return HappenToCaller(event, callers.at(event.who));
    if (event.what == What::Bystand || event.what == What::Harm) return HappenToBystander(event);
    const bool isOfPort = event.what >= What::Link && event.who < ports.size() && plan.ports[event.who].isThere;
    if (isOfPort) HappenToPort(event, ports[event.who]);
}

void Scenario::FailCalls(const Event& event) {
    postsMayBeLost = true;
    if (event.what == What::Memory) return world.FailAllocation(1 + event.values[0]);
    const auto call = static_cast<DeviceCall>(event.values[0] % kDeviceCalls);
    world.FailCall(call, 1 + event.values[1], 1 + event.values[2]);
}

void Scenario::HappenToPort(const Event& event, PortState& port) {
    const uint32_t a = event.values[0];
    const auto setLink = [this, &port](bool isUp) {
        if (!port.isThere) return;
        port.isUp = isUp;
        world.SetLink(port.device, isUp);
    };
    if (event.what == What::Link) setLink(a != 0);
    if (event.what == What::Flaps)
        for (uint32_t i = 0; i < 2 + a; ++i)
            world.At(i * (10 + event.values[1]) * 1ms, [setLink, i] { setLink(i % 2 != 0); });
    if (event.what == What::HandOver) {
        Release(port);
        world.At(1ms + event.values[2] * 1s, [this, &port] {
            if (port.iface == nullptr && isRunning && !world.Terminated()) (void)HandOver(port);
        });
    }
    if (event.what == What::Act && (!port.plan->Serves() || port.plan->Selects())) (void)Act(port, a);
    if (event.what == What::Operate) Operate(event, port);
    if (port.isThere) HappenToDevice(event, port);
}

void Scenario::HappenToDevice(const Event& event, PortState& port) {
    const uint32_t a = event.values[0];
    if (event.what == What::Rename) {
        const std::string name = (a == 0 ? "lan" : "eth") + std::to_string(port.number);
        if (name == port.device) return;
        world.RenameInterface(port.device, name);
        port.device = name;
        port.isDisturbed = true;
    }
    if (event.what == What::TakeOut) {
        Unseat(port);
        port.isDisturbed = true;
        world.At(a * 1s, [this, &port, isAnother = event.values[1] == 0] {
            if (port.isThere) return;
            if (isAnother) port.mac[4] = static_cast<uint8_t>(port.mac[4] + 1);
            Seat(port);
        });
    }
    if (event.what == What::NewMAC) {
        port.mac[4] = static_cast<uint8_t>(a);
        port.isDisturbed = true;
        world.ChangeMAC(port.device, port.mac);
    }
    if (event.what == What::SendFault) {
        port.isShort = port.isShort || a == 0;
        world.FailSends(port.device, a == 0 ? SendFault::Short : SendFault::Error, 1 + event.values[1]);
    }
}

void Scenario::Operate(const Event& event, PortState& port) {
    if (!port.plan->Serves() || port.iface == nullptr) return;
    const IPv4 address = SubnetOf(port.plan->segment) + 100 + event.values[1];
    const std::string name = port.iface->ifname.data();
    (void)Ask("/server", "leaseAction",
              "{\"interface\":\"" + name + "\",\"ipv4Address\":\"" + ToText(address) +
                  "\",\"leaseAction\":" + (event.values[0] == 0 ? "\"hold\"}" : "\"release\"}"));
    port.record.leases.erase(address);
}

void Scenario::HappenToCaller(const Event& event, Caller& caller) {
    if (event.what == What::Nonsense) return TalkNonsense(event, caller);
    if (event.what == What::Listen) {
        world.ReadAgain(caller.name);
        caller.reads = true;
        Drain();
        return Subscribe(caller);
    }
    switch (event.values[0] % 4) {
        case 0:
            (void)Ask("/", "interfaceState", R"({"subscribe":false})", caller.name);
            caller.listens = false;
            return;
        case 1:
            world.LeaveBus(caller.name);
            caller.listens = false;
            caller.reads = true;
            return;
        case 2:
            world.StopReading(caller.name);
            caller.reads = false;
            return;
        default:
            world.ReadAgain(caller.name);
            Drain();
            if (!caller.reads && caller.listens) Subscribe(caller);  // it may have been unsubscribed meanwhile
            caller.reads = true;
    }
}

void Scenario::TalkNonsense(const Event& event, const Caller& caller) {
    constexpr std::array<std::pair<const char*, const char*>, 9> kMethods{{{"/", "interfaceInitialize"},
                                                                           {"/", "interfaceFinalize"},
                                                                           {"/", "interfaceConfigDump"},
                                                                           {"/", "interfaceState"},
                                                                           {"/", "trace"},
                                                                           {"/client", "leaseAction"},
                                                                           {"/client", "leaseInformation"},
                                                                           {"/server", "leaseAction"},
                                                                           {"/server", "leaseEvents"}}};
    constexpr std::array<const char*, 10> kTexts{
        "",
        "{",
        "null",
        R"({"interface":7})",
        R"({"interface":"nowhere","leaseAction":"init"})",
        R"({"interface":"eth0","leaseAction":"dance"})",
        R"({"interface":"eth0","mode":"server","rfc":true})",
        R"({"interface":"","subscribe":"yes"})",
        R"({"interface":"eth0","ipv4Address":"10.1.0.300","leaseAction":"hold"})",
        R"({"interface":"eth0","mode":"client","ipv4Config":"dhcp","ipv4Address":"0.0.0.0","ipv4Subnet":"0.0.0.0","ipv4Router":"0.0.0.0","ipv4RangeStart":"0.0.0.0","fixed":[1]})"};
    const auto& [category, method] = kMethods.at(event.values[0] % kMethods.size());
    const std::string text = kTexts.at(event.values[1] % kTexts.size());
    if (method == std::string("interfaceFinalize") && text.find("eth0") != std::string::npos) return;  // it is none
    (void)Ask(category, method, text, caller.name);
}

void Scenario::HappenToBystander(const Event& event) {
    const auto [a, b, c] = event.values;
    if (plan.bystanders.at(event.who).kind == Kind::Router && router) {
        if (event.what == What::Bystand) router->on = a % 2 != 0;
        return;
    }
    Neighbour* const one = neighbours.at(event.who).get();
    if (one == nullptr) return;
    auto* const mischief = dynamic_cast<Mischief*>(one);
    if (event.what == What::Harm) {
        if (mischief == nullptr) return;
        const uint32_t segment = plan.bystanders[event.who].segment;
        mischief->gateway = router ? MAC{0x02, 0x00, 0x5E, 3, 0, static_cast<uint8_t>(segment)} : MAC{};
        mischief->beyond = SubnetOf(1 - segment) + 100 + b % 8;
        mischief->Begin(static_cast<Harm>(a % kHarms), (20 + b) * 1ms);
        return world.At((1 + c) * 1s, [mischief] { mischief->Switch(false); });
    }
    if (mischief != nullptr) return;
    auto* const server = dynamic_cast<LeaseServer*>(one);
    if (server == nullptr) return one->Switch(a % 2 != 0);
    server->silent = a % 8 == 0;
    server->silentToRequest = a % 8 == 1;
    server->refuses = a % 8 == 2;
    if (a % 8 == 3) server->Forget();
    if (a % 8 != 4) return;
    server->leaseTime = 5 + b * 10;  // for a while
    world.At(600s, [server, before = plan.bystanders[event.who].leaseTime] { server->leaseTime = before; });
}

void Scenario::CalmPort(PortState& port) {
    if (!port.plan->isThere) return;
    world.FailSends(port.device, SendFault::None, 0);
    if (!port.isThere) {
        Seat(port);
        port.isDisturbed = true;
    }
    const std::string name = "eth" + std::to_string(port.number);
    if (port.device != name) world.RenameInterface(port.device, name);
    port.device = name;
    port.isUp = true;
    world.SetLink(port.device, true);
}

// Nothing fails any more, everybody is there and behaves, and what the plain rules leave to the controlling process is
// done. Then everything has to be well within the time that the rules promise.
void Scenario::CalmDown() {
    for (size_t call = 0; call < kDeviceCalls; ++call) world.FailCall(static_cast<DeviceCall>(call), 0);
    for (Segment* wire : wires) wire->faults = {};
    for (const auto& one : neighbours) {
        if (!one) continue;
        auto* const server = dynamic_cast<LeaseServer*>(one.get());
        const bool isFriend = server != nullptr || dynamic_cast<LeaseClient*>(one.get()) != nullptr ||
                              dynamic_cast<LinkLocalHost*>(one.get()) != nullptr;
        if (server != nullptr) server->silent = server->silentToRequest = server->refuses = false;
        one->Switch(isFriend);
    }
    if (router) router->on = true;
    for (PortState& port : ports)
        if (port.plan->isThere && port.isThere) world.FailSends(port.device, SendFault::None, 0);
    if (IsAsleep() && !RunUntil(world.Now() + 20'001s)) return;
    for (PortState& port : ports) {
        if (!port.plan->isThere) continue;
        if (!port.isThere) Seat(port), port.isDisturbed = true;
        CalmPort(port);
    }
    if (!RunUntil(world.Now() + 30s)) return;
    isCalm = true;
    for (PortState& port : ports) {
        if (!port.plan->isThere) continue;
        const bool isFollowed = port.plan->rfc && world.IsWatched();
        const bool hasItsName = port.iface != nullptr && port.iface->ifname.data() == port.device;
        if (port.isDisturbed && !(isFollowed && hasItsName)) Release(port);
        const bool isNew = port.iface == nullptr;
        if (isNew && !HandOver(port)) return Fail("EverybodyIsServed", "a hand-over is refused");
        if (!isNew && (port.isShort || HasHalted(port))) (void)Act(port, 0);
    }
    for (Caller& caller : callers) {
        world.ReadAgain(caller.name);
        Drain();
        caller.reads = true;
        Subscribe(caller);
    }
    postsMayBeLost = false;
}

void Scenario::CheckEnd() {
    if (HasFailed() || !RunUntil(world.Now() + kCalmOfRFC)) return;
    CheckLiveness(*this, false, false);
    if (!RunUntil(world.Now() + kCalmOfPlain)) return;
    CheckLiveness(*this, true, false);
    uint32_t longest = 0;
    for (const Port& port : plan.ports) longest = std::max(longest, port.Serves() ? port.leaseTime : 0);
    for (const Bystander& one : plan.bystanders) longest = std::max(longest, one.leaseTime);
    if (!RunUntil(world.Now() + std::max<Duration>(longest * 1s, 3600s) + kHold)) return;
    CheckLiveness(*this, true, true);
    if (HasFailed()) return;
    CheckQuiet(*this, [this] { return RunUntil(world.Now() + 1h); });
    CheckMemoryAtEnd(*this, [this] {
        for (Caller& caller : callers) world.LeaveBus(caller.name);
        for (PortState& port : ports) Release(port);
    });
}

}  // namespace sim
