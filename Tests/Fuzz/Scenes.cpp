// The scripted beginnings of a play.

#include "Scenes.h"

#include <array>

#include "Ostrel/LinkLocal.h"

namespace sim::fuzz {
namespace {

using namespace std::chrono_literals;

constexpr char kUsual[] = R"("interface":"eth0","ipv4Address":"192.0.2.5","ipv4Subnet":"255.255.255.0",)"
                          R"("ipv4Router":"192.0.2.1","ipv4RangeStart":"192.0.2.10","maxLeases":4,"leaseTime":3600,)"
                          R"("dnsServers":["192.0.2.2","192.0.2.3"],"domainName":"lan.example")";
constexpr char kClientValues[] =
    R"(,"hostName":"camera.lan.example","vendorClass":"v1","userClass":["a","bc"],"broadcast":true,)"
    R"("clientIdentifierHex":"ff0102030405","requestOptions":[42,43,66,100,101,114,119,120,121,125,160,249],)"
    R"("sendOptions":{"43":"0102","125":"000000090201aa"})";
constexpr char kServerValues[] =
    R"(,"fixed":[{"macAddress":"02:00:00:00:01:66","ipv4Address":"192.0.2.11"},)"
    R"({"clientIdentifierHex":"01020302","ipv4Address":"192.0.2.77","hostName":"printer"}],)"
    R"("options":[{"code":42,"ipv4":["192.0.2.5"]},{"code":43,"hex":"0102","forced":true},{"code":66,"text":"boot"}])";
constexpr char kServerLeases[] =
    R"(,"leases":[{"ipv4Address":"192.0.2.12","mac":"02:00:00:00:02:66","remaining":600,"age":60,"hostName":"h"}])";

void Manage(FuzzDevice& device, const Play& play, bool isServer, bool isStatic) {
    (void)device.Ask("/", "interfaceInitialize", RequestOf(play, isServer, isStatic));
}

void Act(FuzzDevice& device, const char* values) {
    (void)device.Ask("/client", "leaseAction", std::string(R"({"interface":"eth0",)") + values + "}");
}

// A client, so far as `stage` says: 0 idle, 1 SELECTING, 2 REQUESTING, 3 under the ARP check, 4 BOUND, 5 RENEWING,
// 6 REBINDING, 7 REBOOTING, 8 its link lost and back.
void SetClient(FuzzDevice& device, uint8_t stage) {
    if (stage == 0) return;
    device.server.script.silent = stage == 1;
    device.server.script.silentToRequest = stage == 2 || stage == 7;
    Act(device, stage == 7 ? R"("leaseAction":"init","address":"192.0.2.10")" : R"("leaseAction":"init")");
    device.Pass(stage < 3 ? 1200ms : 1100ms);
    if (stage == 3 || stage == 7) return;
    if (stage > 3) device.Pass(20s);
    device.server.script.silent = true;
    if (stage == 5 || stage == 6) device.Pass(std::chrono::seconds(kFuzzLease / 2));
    if (stage == 6) device.Pass(std::chrono::seconds(kFuzzLease * 3 / 8));
    if (stage != 8) return;
    device.world.SetLink("eth0", false);
    device.Pass(2s);
    device.world.SetLink("eth0", true);
    device.Pass(2s);
}

// A selector beside a silent client: 0 probing, 1 announcing, 2 held, 3 defending.
void SetSelector(FuzzDevice& device, uint8_t stage) {
    constexpr std::array kTimes{1500ms, 8000ms, 40'000ms, 40'000ms};
    device.server.script.silent = true;
    Act(device, R"("leaseAction":"init")");
    device.Pass(kTimes[stage]);
    if (stage != 3) return;
    const Ostrel_InterfaceObj* const iface = device.system.interfaceList;
    if (iface == nullptr || iface->linkLocal == nullptr) return;
    const IPv4 address = be32toh(iface->linkLocal->IPv4Address);
    device.Inject(WriteARP({kEveryone, 1, kFuzzNeighbour, address, {}, address}));
    device.Pass(1ms);
}

void Say(FuzzDevice& device, uint8_t station, uint8_t type) {
    device.Inject(WriteDHCP(FromStation(station, type)));
    device.Pass(300ms);
}

// A server, of which stations have: 0 nothing, 1 an offer, 2 a lease, 3 all but one address, 4 declined one, 5 an
// offer that is still probed.
void SetServer(FuzzDevice& device, uint8_t stage) {
    if (stage == 5) return device.Inject(WriteDHCP(FromStation(0, kDiscover)));
    const uint8_t stations = stage == 0 ? 0 : stage == 3 ? 4 : 1;
    for (uint8_t station = 0; station < stations; ++station) {
        Say(device, station, kDiscover);
        if (stage > 1) Say(device, station, kRequest);
    }
    if (stage == 4) Say(device, 0, kDecline);
}

}  // namespace

std::string RequestOf(const Play& play, bool isServer, bool isStatic) {
    std::string request = std::string("{") + kUsual + (isServer ? R"(,"mode":"server")" : R"(,"mode":"client")");
    const auto add = [&](uint8_t flag, const char* text) {
        if ((play.flags & flag) != 0) request += text;
    };
    if (isStatic) request += R"(,"ipv4Config":"static")";
    if (!isServer && !isStatic) add(kManual, R"(,"ipv4Config":"dhcpManualAddress")");
    add(kRFC, R"(,"rfc":true)");
    add(kLinkLocal, R"(,"ipv4LinkLocal":true)");
    if (!isServer) add(kFallback, R"(,"ipv4LinkLocal":true,"linkLocal":"fallback")");
    if (isServer) add(kManual, kServerLeases);
    add(kValues, isServer ? kServerValues : kClientValues);
    add(kUnchecked, isServer ? R"(,"probe":0)" : R"(,"arpCheck":0)");
    return request + "}";
}

DHCPMessage FromStation(uint8_t station, uint8_t type) {
    DHCPMessage message{.ethernetDestination = kEveryone,
                        .ethernetSource = kFuzzNeighbour,
                        .destination = kEveryoneIPv4,
                        .sourcePort = 68,
                        .destinationPort = 67,
                        .op = 1,
                        .xid = 0xA1B2C3D4,
                        .chaddr = kFuzzNeighbour,
                        .options = {{53, {type}}, {61, {1, 2, 3, station}}, {12, {'h', station}}}};
    message.ethernetSource[4] = message.chaddr[4] = station;
    if (type == kRequest || type == kDecline)
        message.options.push_back({50, {192, 0, 2, static_cast<uint8_t>(10 + station)}});
    return message;
}

void SetScene(FuzzDevice& device, const Play& play) {
    const uint8_t scene = play.scene % kNumScenes;
    if ((play.flags & kTalkative) != 0) (void)device.Ask("/", "setDebugLevel", R"({"debugLevel":"chatty"})");
    if ((play.flags & kListened) != 0) device.Listen();
    if (scene < 9) {
        Manage(device, play, false, false);
        return SetClient(device, scene);
    }
    Play withSelector = play;
    withSelector.flags |= kLinkLocal;
    if (scene < 11) {
        Manage(device, play, false, true);
        if (scene == 10) Act(device, R"("leaseAction":"init")");
        return;
    }
    if (scene < 15) {
        Manage(device, withSelector, false, false);
        return SetSelector(device, scene - 11);
    }
    Manage(device, scene == 21 ? withSelector : play, true, false);
    if (scene == 21) return Act(device, R"("leaseAction":"init")");
    SetServer(device, scene - 15);
}

}  // namespace sim::fuzz
