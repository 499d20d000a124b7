// How a scenario begins and ends: the device, the neighbours, the daemon and what its controlling process does.

#include "Scenario.h"

#include <algorithm>
#include <cstring>

#include "Ostrel/Log.h"

#include "Internals.h"
#include "Invariants.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t kPoolOurs = 100;
constexpr uint32_t kPoolTheirs = 150;
constexpr uint32_t kPoolSize = 30;
constexpr uint32_t kRouter = 254;
constexpr Duration kAftermath = 150s;  // of flaps, absences and harm that have begun

MAC MACOf(uint8_t kind, size_t number, uint8_t generation = 0) {
    return {0x02, 0x00, 0x5E, kind, generation, static_cast<uint8_t>(number)};
}

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

}  // namespace

void Tap::Receive(std::span<const uint8_t> frame) {
    scenario.Before(scenario.ports[port], frame);
    interface.Receive(frame);
}

Scenario::Scenario(const Plan& itsPlan) : plan(itsPlan), world(plan.seed) {
    Ostrel_SetDebugLevel("error");
    world.keepLog = false;
    world.interfacesAreHosts = true;
    for (uint32_t i = 0; i < plan.segments; ++i) {
        wires.push_back(&world.AddSegment());
        wires.back()->sentLimit = 0;
        wires.back()->drop = [](const Station& sender, const Station& receiver, std::span<const uint8_t>) {
            const Tap* const tap = dynamic_cast<const Tap*>(&receiver);
            return tap != nullptr && &tap->interface == &sender;
        };
    }
    World::onEverySend = [this](const Station& interface, std::span<const uint8_t> frame) { OnSend(interface, frame); };
    World::onFailure = [this](const std::string& what) { Fail("World", what); };
    ports = std::vector<PortState>(plan.ports.size());
    for (size_t i = 0; i < ports.size(); ++i) {
        ports[i].plan = &plan.ports[i];
        ports[i].number = i;
        ports[i].mac = MACOf(1, i);
        ports[i].device = "eth" + std::to_string(i);
        if (plan.ports[i].isThere) Seat(ports[i]);
    }
    for (uint32_t i = 0; i < kCallers; ++i) callers.push_back({.name = ":2." + std::to_string(i), .known = {}});
    AddNeighbours();
    Start();
    world.afterEvent = [this] { AfterEvent(); };
}

Scenario::~Scenario() {
    world.afterEvent = nullptr;
    Stop();
    World::onEverySend = nullptr;
    World::onFailure = [](const std::string& what) { failureOfEnd = "World: " + what; };
}

void Scenario::Fail(const char* invariant, const std::string& what) {
    if (!failure.empty()) return;
    failure = std::string(invariant) + ": " + what + "\n" + world.Describe();
    eloop_terminate();
}

std::string Scenario::Ask(std::string_view category, std::string_view method, std::string_view payload,
                          std::string_view caller) {
    return isRunning && !world.Terminated() ? world.Call(category, method, payload, caller) : "";
}

bool Scenario::IsAsleep() {
    return world.Internals().device.asleep;
}

void Scenario::AddNeighbours() {
    neighbours.resize(plan.bystanders.size());
    for (size_t i = 0; i < neighbours.size(); ++i)
        if (plan.bystanders[i].isThere) AddNeighbour(i);
}

void Scenario::AddNeighbour(size_t number) {
    const Bystander& one = plan.bystanders[number];
    Segment& wire = *wires.at(one.segment);
    const MAC mac = MACOf(2, number);
    const uint64_t seed = plan.seed * 1000 + number;
    const IPv4 subnet = SubnetOf(one.segment);
    const auto bit = [&one](uint32_t place) { return ((one.manner >> place) & 1) != 0; };
    switch (one.kind) {
        case Kind::Server: {
            const uint32_t turn = static_cast<uint32_t>(std::count_if(
                plan.bystanders.begin(), plan.bystanders.begin() + static_cast<ptrdiff_t>(number),
                [&one](const Bystander& other) { return other.kind == Kind::Server && other.segment == one.segment; }));
            std::vector<Pool> pools{{subnet, subnet + kPoolTheirs + 40 * turn, kPoolSize, subnet + kRouter}};
            if (turn == 0 && one.segment == 0)
                pools.push_back({SubnetOf(1), SubnetOf(1) + 220, kPoolSize, SubnetOf(1) + kRouter});
            auto server = std::make_unique<LeaseServer>(wire, mac, seed, subnet + 2 + turn, std::move(pools));
            server->leaseTime = one.leaseTime;
            if (bit(0)) server->t1 = one.leaseTime / 3;
            if (bit(1)) server->t2 = one.leaseTime / 2;
            if (bit(2)) server->thinks = bit(3) ? 3s : 300ms;
            server->authoritative = bit(4);
            neighbours[number] = std::move(server);
            return;
        }
        case Kind::Client: {
            auto client = std::make_unique<LeaseClient>(wire, mac, seed,
                                                        ClientManner{.keepsLease = bit(0),
                                                                     .releases = bit(1),
                                                                     .checks = bit(2),
                                                                     .changesIdentifier = bit(3) && bit(4),
                                                                     .hasIdentifier = bit(4),
                                                                     .informs = bit(5),
                                                                     .isLazy = bit(6) && bit(0),
                                                                     .wantsBroadcast = bit(7)});
            client->Switch(true);
            neighbours[number] = std::move(client);
            return;
        }
        case Kind::LinkLocal:
            neighbours[number] = std::make_unique<LinkLocalHost>(wire, mac, seed);
            return neighbours[number]->Switch(true);
        case Kind::Squatter: {
            const uint32_t pool = bit(0) ? kPoolOurs : kPoolTheirs;
            neighbours[number] = std::make_unique<Neighbour>(wire, mac, seed, subnet + pool + one.manner / 2 % 6);
            return;
        }
        case Kind::Mischief:
            neighbours[number] = std::make_unique<Mischief>(wire, mac, seed);
            return neighbours[number]->Switch(false);
        case Kind::Router: {
            const bool isPlain = std::any_of(plan.ports.begin(), plan.ports.end(), [](const Port& port) {
                return port.segment == 1 && port.Serves() && !port.rfc;
            });
            router = std::make_unique<Router>(std::array{wires[0], wires[1]}, std::array{MACOf(3, 0), MACOf(3, 1)},
                                              std::array{SubnetOf(0) + kRouter, SubnetOf(1) + kRouter},
                                              isPlain ? 0 : SubnetOf(0) + 2);
            return;
        }
        case Kind::kCount:
            return;
    }
}

bool Scenario::IsServed(const Port& port) const {
    const bool isOurs = std::any_of(plan.ports.begin(), plan.ports.end(), [&port](const Port& other) {
        return other.isThere && other.Serves() && other.segment == port.segment;
    });
    return isOurs || std::any_of(plan.bystanders.begin(), plan.bystanders.end(), [&port](const Bystander& one) {
               return one.isThere && one.kind == Kind::Server && one.segment == port.segment;
           });
}

bool Scenario::IsPressed(const Port& port) const {
    return std::any_of(plan.events.begin(), plan.events.end(), [&](const Event& event) {
        if (event.what == What::NewMAC || event.what == What::TakeOut)
            return plan.ports[event.who].segment == port.segment;
        return (event.what == What::Harm || event.what == What::Bystand) &&
               plan.bystanders[event.who].segment == port.segment;
    });
}

void Scenario::Seat(PortState& port) {
    Segment& wire = *wires.at(port.plan->segment);
    port.interface = &world.AddInterface(port.device, port.mac, wire);
    port.isThere = port.isUp = true;
    Tap& tap = *port.taps.emplace_back(std::make_unique<Tap>(*this, port.number, *port.interface));
    wire.Detach(*port.interface);
    wire.Attach(tap);
}

void Scenario::Unseat(PortState& port) {
    wires.at(port.plan->segment)->Detach(*port.taps.back());
    world.RemoveInterface(port.device);
    port.isThere = false;
    port.interface = nullptr;
}

void Scenario::Start() {
    system = {};
    isRunning = Ostrel_DaemonStart(&system) == kNoErr;
    for (int i = 0; i < 5 && !isRunning; ++i) {  // whoever calls starts it again
        for (size_t call = 0; call < kDeviceCalls; ++call) world.FailCall(static_cast<DeviceCall>(call), 0);
        isRunning = Ostrel_DaemonStart(&system) == kNoErr;
    }
    if (!isRunning) return Fail("World", "the daemon does not start");
    blocksOfStart = world.LiveAllocations();
    for (PortState& port : ports)
        if (port.plan->isThere) (void)HandOver(port);
}

void Scenario::Stop() {
    for (PortState& port : ports) port.iface = nullptr;
    for (Caller& caller : callers) caller.listens = false;
    if (isRunning) (void)Ostrel_DaemonStop(&system);
    isRunning = false;
    world.posts.clear();
}

// As its controlling process does it: servers get their tables back, clients ask for what they had. 0: all of it is
// lost.
void Scenario::Restart(uint32_t givesBack) {
    const bool isKept = givesBack % 4 != 0 && !world.Terminated();
    std::vector<std::string> tables(ports.size());
    std::vector<IPv4> addresses(ports.size());
    std::vector<std::map<IPv4, Holder>> leases(ports.size());
    for (PortState& port : ports) {
        if (!isKept || port.iface == nullptr) continue;
        const std::string name = port.iface->ifname.data();
        if (port.plan->Serves()) {
            const std::string reply = Ask("/server", "leaseInformation", "{\"interface\":" + Quoted(name) + "}");
            const size_t start = reply.find("\"interfaceList\":");
            if (start == std::string::npos) continue;
            tables[port.number] = reply.substr(start + 16, reply.size() - start - 17);
            leases[port.number] = port.record.leases;
        }
        addresses[port.number] = port.record.held;
    }
    Stop();
    system = {};
    isRunning = Ostrel_DaemonStart(&system) == kNoErr;
    if (!isRunning) return Start();
    blocksOfStart = world.LiveAllocations();
    for (PortState& port : ports) {
        if (!port.plan->isThere) continue;
        const bool took = HandOver(port, tables[port.number]);
        if (took && !tables[port.number].empty()) port.record.leases = std::move(leases[port.number]);
    }
    for (Caller& caller : callers) Subscribe(caller);
}

std::string Scenario::RequestFor(const PortState& port, const std::string& leases) const {
    const Port& is = *port.plan;
    const auto bit = [&is](uint32_t place) { return ((is.manner >> place) & 1) != 0; };
    const IPv4 subnet = SubnetOf(is.segment);
    const IPv4 own = is.Serves()               ? subnet + 1
                     : is.role == Role::Static ? subnet + 20 + static_cast<IPv4>(port.number)
                                               : 0;
    const bool hasSubnet = own != 0;
    std::string text = "{\"interface\":" + Quoted(port.device) +
                       ",\"mode\":" + (is.Serves() ? "\"server\"" : "\"client\"") +
                       ",\"ipv4Config\":" + (is.role == Role::Static ? "\"static\"" : "\"dhcp\"") +
                       ",\"ipv4Address\":" + Quoted(ToText(own)) +
                       ",\"ipv4Subnet\":" + (hasSubnet ? "\"255.255.255.0\"" : "\"0.0.0.0\"") +
                       ",\"ipv4Router\":" + Quoted(ToText(hasSubnet ? subnet + kRouter : 0)) +
                       ",\"ipv4RangeStart\":" + Quoted(ToText(is.Serves() ? subnet + kPoolOurs : 0)) +
                       ",\"rfc\":" + (is.rfc ? "true" : "false");
    if (is.role == Role::ClientAndSelector || is.role == Role::ServerAndSelector) text += ",\"ipv4LinkLocal\":true";
    if (is.role == Role::Fallback) text += ",\"linkLocal\":\"fallback\"";
    if (is.Serves()) {
        text += ",\"maxLeases\":" + std::to_string(is.slots) + ",\"leaseTime\":" + std::to_string(is.leaseTime) +
                ",\"dnsServers\":[\"10.0.0.53\"],\"domainName\":\"lan\"";
        if (bit(0)) text += ",\"probe\":0";
        if (bit(1))
            text += R"(,"options":[{"code":42,"ipv4":["10.0.0.1"]},{"code":43,"hex":"01020304","forced":true}])";
        if (bit(2))
            text += R"(,"fixed":[{"macAddress":"02:00:5e:02:00:01","ipv4Address":")" + ToText(subnet + 60) + "\"}]";
        if (!leases.empty()) text += ",\"leases\":" + leases;
        return text + "}";
    }
    if (bit(0)) text += ",\"hostName\":\"host.example\"";
    if (bit(1)) text += ",\"broadcast\":true";
    if (bit(2)) text += ",\"requestOptions\":[42,121,12]";
    if (bit(3)) text += ",\"clientIdentifier\":\"device " + std::to_string(port.number) + "\"";
    if (bit(4)) text += ",\"sendOptions\":{\"224\":\"00ff\"}";
    return text + "}";
}

bool Scenario::HandOver(PortState& port, const std::string& leases) {
    if (!port.isThere) return false;
    (void)Ask("/", "interfaceInitialize", RequestFor(port, leases));
    port.iface = system.interfaceList;  // managed, even where the reply was lost
    while (port.iface != nullptr && port.iface->ifname.data() != port.device) port.iface = port.iface->next;
    if (port.iface == nullptr) return false;
    port.record = {};
    port.isDisturbed = false;
    NoteShort(port);
    if (port.plan->Asks() || port.plan->Selects()) (void)Act(port, 0);
    return true;
}

void Scenario::Release(PortState& port) {
    if (port.iface == nullptr) return;
    const std::string name = port.iface->ifname.data();
    (void)Ask("/", "interfaceFinalize", "{\"interface\":" + Quoted(name) + "}");
    // A reply that could not be sent has done it as well.
    const Ostrel_InterfaceObj* one = system.interfaceList;
    while (one != nullptr && one != port.iface) one = one->next;
    if (one == nullptr) port.iface = nullptr;
}

// Whether a step of its roles may end where it stands.
void Scenario::NoteShort(PortState& port) {
    const auto* const interface = static_cast<const Interface*>(port.interface);
    port.isShort = interface != nullptr && interface->faultySends != 0 && interface->fault == SendFault::Short;
}

bool Scenario::Act(PortState& port, uint32_t word) {
    if (port.iface == nullptr) return false;
    constexpr std::array<const char*, 6> kWords{R"("init")",   R"("init","address":)",     R"("renew")",
                                                R"("rebind")", R"("halt","release":true)", R"("halt")"};
    const std::string name = port.iface->ifname.data();
    std::string text = "{\"interface\":" + Quoted(name) + ",\"leaseAction\":" + kWords.at(word % kWords.size());
    if (word % kWords.size() == 1)
        text += Quoted(ToText(port.record.held != 0 ? port.record.held : SubnetOf(port.plan->segment) + 105));
    ++port.record.actions;
    NoteShort(port);
    return Ask("/client", "leaseAction", text + "}").starts_with(R"({"returnValue":true)");
}

void Scenario::Subscribe(Caller& caller) {
    const std::string reply = Ask("/", "interfaceState", R"({"subscribe":true})", caller.name);
    caller.listens = reply.find("\"subscribed\":true") != std::string::npos;
    caller.known.clear();
    (void)Ask("/client", "leaseInformation", R"({"subscribe":true})", caller.name);
    (void)Ask("/server", "leaseInformation", R"({"subscribe":true})", caller.name);
    if (caller.name.back() == '0') (void)Ask("/server", "leaseEvents", R"({"subscribe":true})", caller.name);
    if (caller.name.back() == '1') (void)Ask("/", "trace", R"({"subscribe":true})", caller.name);
    Learn(caller);
}

// What a caller that subscribes is told of all that is.
void Scenario::Learn(Caller& caller) {
    for (const Ostrel_InterfaceObj* iface = system.interfaceList; iface != nullptr; iface = iface->next) {
        const std::string name = iface->ifname.data();
        caller.known[name] = StateIn(Ask("/", "interfaceState", "{\"interface\":" + Quoted(name) + "}"));
    }
}

void Scenario::Drain() {
    for (const Post& post : world.posts) {
        if (post.category != "/" || post.method != "interfaceState") continue;
        const size_t key = post.payload.find("\"interface\":\"");
        if (key == std::string::npos) continue;
        const size_t start = key + 13;
        callers.at(static_cast<size_t>(post.subscriber.back() - '0'))
            .known[post.payload.substr(start, post.payload.find('"', start) - start)] = StateIn(post.payload);
    }
    world.posts.clear();
}

void Scenario::AfterEvent() {
    ++tally.events;
    Drain();
    if (!HasFailed()) CheckAfterEvent(*this, tally.events);
}

void Scenario::Before(PortState& port, std::span<const uint8_t> frame) {
    if (port.iface != nullptr && port.isUp && !IsAsleep()) CheckReceiving(*this, port, frame);
}

void Scenario::OnSend(const Station& interface, std::span<const uint8_t> frame) {
    for (PortState& port : ports)
        if (port.interface == &interface && !HasFailed()) CheckSending(*this, port, frame);
}

bool Scenario::RunUntil(Duration end) {
    while (!HasFailed() && world.Now() < end) {
        const Duration before = world.Now();
        if (world.RunFor(end - before) || HasFailed()) break;
        Restart(0);  // it has ended by itself, and who calls it starts it again
    }
    return !HasFailed();
}

std::string Scenario::Run() {
    for (const Event& event : plan.events) {
        if (!RunUntil(event.time)) return failure;
        if (event.time > plan.turmoil) break;
        ++tally.faults.at(static_cast<size_t>(event.what));
        Happen(event);
        Drain();
    }
    if (!RunUntil(std::max(plan.turmoil + kAftermath, world.Now()))) return failure;
    CalmDown();
    CheckEnd();
    const auto ours = static_cast<double>(
        std::count_if(plan.ports.begin(), plan.ports.end(), [](const Port& port) { return port.isThere; }));
    tally.deviceDays = ours * std::chrono::duration<double>(world.Now()).count() / 86400;
    for (size_t i = 0; i < neighbours.size(); ++i)
        if (const auto* const mischief = dynamic_cast<const Mischief*>(neighbours[i].get()))
            tally.harm += mischief->framesSent;
    return failure;
}

}  // namespace sim
