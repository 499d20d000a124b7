// Every call that the daemon makes of the device fails once, in every scenario: its first, its second and so on, of
// each kind; and by seed two of them, or several in a row. What has to hold then stands in FaultStage.h. Here are the
// scenarios, each of which says what has to come about in the end, and within which time.
//
// The usual run takes samples of them. With OSTREL_FAULT_POINTS=20000, say, every one is taken, and so many seeds.

#include <cstdlib>
#include <iostream>
#include <random>

#include "FaultStage.h"
#include "ServerScene.h"

namespace sim {
namespace {

constexpr char kStatic[] =
    R"("mode":"client","ipv4Config":"static","ipv4Address":"192.0.2.7","ipv4Subnet":"255.255.255.0",)"
    R"("ipv4Router":"192.0.2.1","ipv4RangeStart":"0.0.0.0","dnsServers":["192.0.2.2"],"domainName":"lan.example")";
constexpr char kServer[] =
    R"("mode":"server","ipv4Address":"192.0.2.9","ipv4Subnet":"255.255.255.0","ipv4Router":"192.0.2.9",)"
    R"("ipv4RangeStart":"192.0.2.100","maxLeases":10,"leaseTime":600,"domainName":"lan.example",)"
    R"("dnsServers":["192.0.2.2"])";

void AwaitHeld(Stage& stage, Duration limit = 90s) {
    stage.Await("an address is held", limit, [&] { return stage.IsHeld() && stage.IsIn(kClientStateBound); });
}
void Bind(Stage& stage, const std::string& keys = "") {
    stage.SubscribeToAll();
    stage.ManageClient(keys);
    stage.Act("init");
    AwaitHeld(stage);
}
void AwaitState(Stage& stage, Ostrel_ClientState state, Duration limit) {
    stage.Await(Ostrel_ClientStateString(state), limit, [&] { return stage.IsIn(state); });
}

void ClientBinds(Stage& stage) {
    Bind(stage,
         R"(,"clientIdentifier":"kitchen","hostName":"a","vendorClass":"b","requestOptions":[42],"arpCheck":1500)");
    stage.CheckTaken(R"("clientIdentifier":"kitchen")");
}
void ClientRenews(Stage& stage) {
    Bind(stage);
    stage.server.script.domainName = "renewed.example";
    stage.Await("the lease is renewed", 540s, [&] { return stage.IsHeld() && stage.Says("renewed.example"); });
}
void ClientRebinds(Stage& stage) {
    Bind(stage);
    stage.server.script.silentToRequest = true;
    AwaitState(stage, kClientStateRebinding, 540s);
    stage.server.script.silentToRequest = false;
    AwaitHeld(stage, 150s);
}
void ClientExpires(Stage& stage) {
    Bind(stage);
    stage.server.script.silent = true;
    stage.Await("the lease ends", 601s, [&] { return !stage.IsHeld(); });
    stage.server.script.silent = false;
    AwaitHeld(stage, 150s);
}
void ClientIsRefused(Stage& stage) {
    Bind(stage);
    stage.server.script.tamper = [](DHCPMessage& answer) {
        if (answer.Type() == kAck) answer.options[0].second[0] = kNak;
    };
    stage.Await("the lease is refused", 600s, [&] { return !stage.IsHeld(); });
    stage.server.script.tamper = nullptr;
    AwaitHeld(stage, 150s);
}
void ClientFindsItsAddressTaken(Stage& stage) {
    stage.SubscribeToAll();
    stage.ManageClient();
    {
        const ArpHost owner(stage.wire, kOtherMAC, ToIPv4("192.0.2.10"));
        stage.Act("init");
        stage.Pass(2s);
        const bool wasAsked = stage.world.CallsRefused(DeviceCall::Send) == 0;  // who has the address
        EXPECT_FALSE(wasAsked && stage.IsHeld() && stage.Says("192.0.2.10"));
        stage.Pass(20s);
    }
    AwaitHeld(stage, 150s);
}
void ClientLosesItsAddressToAnother(Stage& stage) {
    Bind(stage);
    ArpHost rival(stage.wire, kOtherMAC, ToIPv4("192.0.2.10"));
    for (int i = 0; i < 3; ++i) {
        rival.Send(2, kClientMAC, ToIPv4("192.0.2.10"));
        stage.Pass(2s);
    }
    stage.wire.Detach(rival);
    AwaitHeld(stage, 150s);
    stage.wire.Attach(rival);
}
void ClientComesBack(Stage& stage) {
    Bind(stage);
    stage.Act("halt", R"(,"release":true)");
    stage.Act("init", R"(,"address":"192.0.2.10")");
    AwaitHeld(stage);
    stage.Act("renew");
    AwaitHeld(stage);
    stage.Act("rebind");
    AwaitHeld(stage);
    stage.Finalize(R"(,"release":true)");
    stage.ManageClient(R"(,"linkLocal":"fallback","clientIdentifierHex":"ff0102","sendOptions":{"224":"00ff"})");
    stage.Act("init");
    AwaitHeld(stage);
}
void StaticClient(Stage& stage) {
    stage.SubscribeToAll();
    stage.Manage(kStatic);
    stage.Await("it is held", 5s, [&] { return stage.IsHeld(); });
    stage.Act("halt");
    stage.Act("init");
    stage.Await("it is held", 5s, [&] { return stage.IsHeld(); });
}

void AwaitSelected(Stage& stage, Duration limit = 30s) {
    stage.Await("an address is selected", limit, [&] { return stage.Selects(); });
}
void SelectorHolds(Stage& stage) {
    stage.SubscribeToAll();
    stage.ManageClient(R"(,"ipv4LinkLocal":true)");
    stage.server.script.silent = true;
    stage.Act("init");
    AwaitSelected(stage);
}
void SelectorIsContested(Stage& stage) {
    SelectorHolds(stage);
    if (stage.IsOver()) return;
    for (int i = 0; i < 4 && !stage.IsOver(); ++i) {
        const IPv4 address = be32toh(stage.Interface()->linkLocal->IPv4Address);
        ArpHost(stage.wire, kOtherMAC, address).Send(2, kClientMAC, address);
        stage.Pass(3s);
    }
    AwaitSelected(stage);
}
void SelectorFallsBack(Stage& stage) {
    stage.SubscribeToAll();
    stage.ManageClient(R"(,"linkLocal":"fallback")");
    stage.server.script.silent = true;
    stage.Act("init");
    AwaitSelected(stage, 60s);
    stage.server.script.silent = false;
    AwaitHeld(stage, 150s);
    stage.Act("halt");
    stage.Act("init");
    AwaitHeld(stage);
}

// A message until it is answered so; a client that hears nothing says it again.
std::optional<DHCPMessage> Exchange(Stage& stage, Guest& guest, const DHCPMessage& message, MessageType wanted) {
    for (int tries = 0; tries < 6 && !stage.IsOver(); ++tries) {
        guest.Ask(message);
        stage.Pass(1s);
        for (const Frame& frame : guest.heard)
            if (const auto answer = ReadDHCP(frame); answer && answer->Type() == wanted) return answer;
    }
    if (!stage.IsOver()) ADD_FAILURE() << "no answer " << wanted << stage.world.Describe();
    return std::nullopt;
}
DHCPMessage From(const Guest& guest, MessageType type, const std::string& ciaddr, const std::string& requested) {
    DHCPMessage message = MessageFrom(guest.mac, type, ciaddr, requested);
    message.options.emplace_back(61, std::vector<uint8_t>{0, 'g', guest.mac[5]});
    return message;
}
void GuestIsServed(Stage& stage, Guest& guest) {
    const auto offer = Exchange(stage, guest, From(guest, kDiscover, "", ""), kOffer);
    if (!offer) return;
    DHCPMessage request = From(guest, kRequest, "", ToText(offer->yiaddr));
    request.options.emplace_back(54, AddressBytes("192.0.2.9"));
    request.options.emplace_back(12, std::vector<uint8_t>{'g'});
    const auto ack = Exchange(stage, guest, request, kAck);
    if (!ack || stage.IsOver()) return;
    EXPECT_TRUE(stage.Lists(ToText(ack->yiaddr), guest.mac)) << "what was acknowledged is in the books";
    (void)Exchange(stage, guest, From(guest, kRequest, ToText(ack->yiaddr), ""), kAck);
}
void ServerServes(Stage& stage) {
    stage.server.script.silent = true;
    stage.SubscribeToAll();
    stage.Manage(kServer);
    stage.CheckTaken(R"("domainName":"lan.example")");
    Guest one(stage.wire, 0x61), other(stage.wire, 0x62);
    GuestIsServed(stage, one);
    GuestIsServed(stage, other);
    one.Ask(From(one, kRelease, "192.0.2.100", ""));
    other.Ask(From(other, kDecline, "", "192.0.2.101"));
    GuestIsServed(stage, other);
    if (stage.rfc) (void)Exchange(stage, other, From(other, kInform, "192.0.2.50", ""), kAck);
    stage.Do("/server", "leaseAction", R"("interface":"eth0","ipv4Address":"192.0.2.105","leaseAction":"hold")");
    stage.Do("/server", "leaseAction", R"("interface":"eth0","ipv4Address":"192.0.2.105","leaseAction":"release")");
    stage.Pass(11min);  // the leases end
    GuestIsServed(stage, one);
}
void ServerWithEverything(Stage& stage) {
    stage.server.script.silent = true;
    stage.SubscribeToAll();
    stage.Manage(
        std::string(kServer) +
        R"(,"ipv4LinkLocal":true,"probe":500,"options":[{"code":42,"ipv4":["192.0.2.1"]},{"code":114,"text":"a"}],)"
        R"("fixed":[{"macAddress":"02:00:00:00:00:61","ipv4Address":"192.0.2.20","hostName":"camera"}],)"
        R"("leases":[{"ipv4Address":"192.0.2.100","mac":"02:00:00:00:00:62","remaining":300,"hostName":"x"}])");
    Guest fixed(stage.wire, 0x61), back(stage.wire, 0x62), relayed(stage.wire, 0x63);
    const ArpHost squatter(stage.wire, kOtherMAC, ToIPv4("192.0.2.101"));
    GuestIsServed(stage, fixed);
    EXPECT_TRUE(stage.IsOver() || stage.Lists("192.0.2.20", fixed.mac));
    (void)Exchange(stage, back, MessageFrom(back.mac, kRequest, "", "192.0.2.100"), kAck);
    GuestIsServed(stage, relayed);
    stage.Act("init");
    AwaitSelected(stage);
}

void LinkComesAndGoes(Stage& stage) {
    Bind(stage, R"(,"ipv4LinkLocal":true)");
    if (stage.IsOver() || !stage.rfc) return;
    stage.world.SetLink("eth0", false);
    stage.Pass(5s);
    stage.world.SetLink("eth0", true);
    AwaitHeld(stage);
    stage.world.ChangeMAC("eth0", kOtherMAC);
    AwaitHeld(stage, 150s);
    stage.Rename("eth1");
    stage.Await("the name is known", 10s, [&] { return stage.Find("eth1") != nullptr; });
    stage.Pass(5s);
    stage.Unplug();
    stage.Pass(5s);
    stage.Unplug(true);
    stage.Await("the interface is taken in", 30s, [&] { return stage.Interface()->link.isRunning; });
    AwaitHeld(stage, 150s);
    AwaitSelected(stage);
}
void ServerIsTakenOut(Stage& stage) {
    stage.server.script.silent = true;
    stage.Manage(kServer);
    Guest guest(stage.wire, 0x61);
    GuestIsServed(stage, guest);
    if (stage.IsOver() || !stage.rfc) return;
    stage.Unplug();
    stage.Pass(1s);
    stage.Unplug(true);
    stage.Await("the interface is taken in", 30s, [&] { return stage.Interface()->link.isRunning; });
    GuestIsServed(stage, guest);
}
void DeviceSleeps(Stage& stage) {
    Bind(stage, R"(,"ipv4LinkLocal":true)");
    for (const Duration time : {Duration(200s), Duration(1h)}) {
        if (stage.IsOver()) return;
        stage.world.Suspend(time);
        stage.Pass(time + 1s);
        AwaitHeld(stage, 150s);
    }
    AwaitSelected(stage);
}

void EveryMethod(Stage& stage) {
    stage.SubscribeToAll();
    stage.ManageClient();
    for (const char* method : {"interfaceState", "interfaceConfigDump"}) {
        stage.Do("/", method, "", R"({"returnValue":true,"interfaceList":[{"interface":"eth0")");
        stage.Do("/", method, R"("interface":"eth0")", R"({"returnValue":true,"interfaceList":[{"interface":"eth0")");
    }
    stage.Do("/", "setDebugLevel", R"("debugLevel":"info")");
    stage.Do("/", "interfaceFinalize", R"("interface":"none")", R"({"returnValue":false,"errorCode":-1)");
    stage.Do("/", "interfaceInitialize", R"("interface":"eth0","fixed":7)", R"({"returnValue":false,"errorCode":-1)");
    for (const char* category : {"/client", "/server"}) {
        stage.Do(category, "leaseInformation", "", R"({"returnValue":true,"interfaceList":)");
        stage.Do(category, "leaseAction", R"("interface":"eth0")", R"({"returnValue":false)");
        stage.Do(category, "leaseInformation", R"("subscribe":false)", R"({"returnValue":true,"int)", ":1.7");
    }
    stage.Subscribe("/client", "leaseInformation", ":1.7");
    stage.world.LeaveBus(":1.7");
    stage.Subscribe("/client", "leaseInformation", ":1.7");
    stage.Act("init");
    AwaitHeld(stage);
}
void SubscribersDoNotRead(Stage& stage) {
    Bind(stage);
    for (const char* caller : {":1.7", ":1.9"}) stage.world.StopReading(caller);
    for (int i = 0; i < 8 && !stage.IsOver(); ++i) {
        stage.Act("init");
        stage.Pass(5s);
    }
    for (const char* caller : {":1.7", ":1.9"}) stage.world.ReadAgain(caller);
    AwaitHeld(stage);
}
void DaemonStartsAndStops(Stage& stage) {
    if (stage.IsOver()) return;
    stage.Stop();
    stage.Start();
    Bind(stage);
}

const struct Scenario {
    const char* name;
    void (*play)(Stage&);
} kScenarios[] = {{"client binds", ClientBinds},
                  {"client renews", ClientRenews},
                  {"client rebinds", ClientRebinds},
                  {"client's lease ends", ClientExpires},
                  {"client is refused", ClientIsRefused},
                  {"client's address is taken", ClientFindsItsAddressTaken},
                  {"client loses its address", ClientLosesItsAddressToAnother},
                  {"client comes back", ClientComesBack},
                  {"static client", StaticClient},
                  {"selector holds", SelectorHolds},
                  {"selector is contested", SelectorIsContested},
                  {"selector falls back", SelectorFallsBack},
                  {"server serves", ServerServes},
                  {"server with everything", ServerWithEverything},
                  {"link comes and goes", LinkComesAndGoes},
                  {"server is taken out", ServerIsTakenOut},
                  {"device sleeps", DeviceSleeps},
                  {"every method", EveryMethod},
                  {"subscribers do not read", SubscribersDoNotRead},
                  {"daemon starts and stops", DaemonStartsAndStops}};

using Counts = std::array<size_t, kDeviceCalls>;

// How many calls of each kind were made. A daemon that has ended is started anew, and then all comes about.
Counts Play(const Scenario& scenario, bool rfc, std::span<const Refusal> refusals) {
    std::string trace = std::string(scenario.name) + (rfc ? ", rfc" : ", plain");
    for (const Refusal& one : refusals)
        trace +=
            std::string(", ") + NameOf(one.call) + " " + std::to_string(one.nth) + " x" + std::to_string(one.count);
    SCOPED_TRACE(trace);
    Stage stage(rfc, refusals);
    scenario.play(stage);
    Counts counts{};
    for (size_t i = 0; i < kDeviceCalls; ++i) counts[i] = stage.CallsMade(static_cast<DeviceCall>(i));
    if (stage.IsOver()) {
        stage.StartAnew();
        scenario.play(stage);
    }
    stage.Finish();
    EXPECT_FALSE(stage.IsOver());
    return counts;
}

// The seeds of the second test; 0: the usual run.
size_t Wish() {
    return Wished("OSTREL_FAULT_POINTS", 0);
}

TEST(FaultPoints, EveryCallFailsOnce) {
    constexpr size_t kMost = 3;  // points of a kind in a scenario, of the usual run
    size_t points = 0;
    for (const Scenario& scenario : kScenarios) {
        for (const bool rfc : {false, true}) {
            const Counts counts = Play(scenario, rfc, {});
            for (size_t i = 0; i < kDeviceCalls; ++i) {
                const size_t step = Wish() != 0 ? 1 : 1 + counts[i] / kMost;
                for (size_t nth = 1 + points % step; nth <= counts[i]; nth += step, ++points) {
                    const std::array<Refusal, 1> refusals{{{static_cast<DeviceCall>(i), nth}}};
                    Play(scenario, rfc, refusals);
                    ASSERT_FALSE(testing::Test::HasFailure());
                }
            }
        }
    }
    EXPECT_GT(points, 500U) << "nothing was tried";
    std::cout << points << " points\n";
}

TEST(FaultPoints, TwoCallsFailOrSeveralInARow) {
    const size_t seeds = Wish() != 0 ? Wish() : 100;
    for (size_t seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937_64 random(seed);
        const Scenario& scenario = kScenarios[random() % std::size(kScenarios)];
        std::array<Refusal, 2> refusals{};
        for (Refusal& one : refusals) {
            const auto draw = [&random](size_t below) { return static_cast<size_t>(random() % below); };
            const size_t most = size_t{1} << draw(7);
            one = {static_cast<DeviceCall>(draw(kDeviceCalls)), 1 + draw(most), 1 + draw(3)};
        }
        Play(scenario, random() % 2 != 0, refusals);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

}  // namespace
}  // namespace sim
