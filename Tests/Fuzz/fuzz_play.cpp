// What may happen to an interface, step by step, from each state of client, selector and server (Play.h).
//
// Whatever it is: every frame that the daemon sends is well formed, the lease table stays in order, what the daemon is
// asked is answered, and nothing is left in the end. When nothing fails any more a server serves, and a client comes to
// a lease.

#include <algorithm>
#include <array>
#include <cstring>
#include <endian.h>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/LinkLocal.h"

#include "Frames.h"
#include "LeaseInvariants.h"
#include "Scenes.h"

namespace sim::fuzz {
namespace {

using namespace std::chrono_literals;

const IPv4 kServerAddress = ToIPv4("192.0.2.1");
const IPv4 kLeased = ToIPv4("192.0.2.10");
const IPv4 kOwn = ToIPv4("192.0.2.5");  // of the daemon's server

// An input under way.
struct Playing {
    FuzzDevice device;
    bool isChanged = false;   // the interface: plain rules do not notice
    bool isWithheld = false;  // addresses of the server are, for good

    [[nodiscard]] Ostrel_InterfaceObj* Interface() const { return device.system.interfaceList; }
    [[nodiscard]] const Ostrel_ClientObj* Client() const {
        return Interface() == nullptr ? nullptr : Interface()->dhcpClient;
    }
};

uint8_t ByteOf(const Step& step, size_t at) {
    return at < step.data.size() ? step.data[at] : 0;
}

IPv4 AddressOf(const Step& step, size_t at) {
    uint32_t address = 0;
    for (size_t i = 0; i < 4; ++i) address = address << 8 | ByteOf(step, at + i);
    return address;
}

// What the client has, or asks for.
IPv4 ClientAddress(const Playing& play) {
    const Ostrel_ClientObj* const client = play.Client();
    if (client == nullptr) return kLeased;
    if (client->lease.IPv4Address != 0) return be32toh(client->lease.IPv4Address);
    if (client->rebootAddress != 0) return be32toh(client->rebootAddress);
    return client->leaseOffers ? be32toh(client->leaseOffers->address) : kLeased;
}

DHCPMessage ToClient(const Playing& play, const Step& step) {
    const Ostrel_ClientObj* const client = play.Client();
    const bool isOther = (step.argument & kOther) != 0;
    const MAC mac = client == nullptr ? kFuzzMAC : client->macAddr;
    return {.ethernetDestination = (step.argument & kStation) != 0 ? mac : kEveryone,
            .ethernetSource = isOther ? kFuzzNeighbour : play.device.server.mac,
            .source = isOther ? ToIPv4("192.0.2.9") : kServerAddress,
            .destination = (step.argument & kStation) != 0 ? ClientAddress(play) : kEveryoneIPv4,
            .sourcePort = 67,
            .destinationPort = 68,
            .op = 2,
            .xid = client == nullptr ? 0 : be32toh(client->transactionID),
            .yiaddr = (step.argument & kLiveAddress) != 0 ? ClientAddress(play) : kLeased,
            .chaddr = mac};
}

DHCPMessage ToServer(const Step& step) {
    const auto station = static_cast<uint8_t>((step.argument & kStation) / 0x40);
    DHCPMessage message = FromStation(station, 0);
    message.options.clear();
    if ((step.argument & kLiveAddress) != 0) message.ciaddr = kLeased + station;
    if ((step.argument & kOther) == 0) return message;
    message.giaddr = ToIPv4("192.0.2.250");
    message.source = message.giaddr;
    message.destination = kOwn;
    message.sourcePort = 67;
    return message;
}

// The frame of a step; `head` is what it has where the data says nothing.
Frame FrameOf(const Step& step, const DHCPMessage& head) {
    constexpr size_t kXid = 46;
    constexpr size_t kChaddr = 70;
    const Frame live = HeadOf(head);
    Frame frame = step.data;
    if ((step.argument & kWhole) == 0) {
        frame.insert(frame.begin(), live.begin(), live.end());
    } else if ((step.argument & kStranger) == 0 && frame.size() >= kChaddr + head.chaddr.size()) {
        std::copy_n(live.begin() + kXid, sizeof head.xid, frame.begin() + kXid);
        std::copy_n(live.begin() + kChaddr, head.chaddr.size(), frame.begin() + kChaddr);
    }
    if ((step.argument & kBroken) == 0) Repair(frame);
    return frame;
}

void SendDHCP(Playing& play, const Step& step) {
    const Frame frame = FrameOf(step, step.kind == StepKind::FromServer ? ToClient(play, step) : ToServer(step));
    for (int i = (step.argument & kTwice) != 0 ? 2 : 1; i > 0; --i) play.device.Inject(frame);
}

IPv4 ARPAddress(const Playing& play, uint8_t choice, IPv4 said) {
    const Ostrel_InterfaceObj* const iface = play.Interface();
    if (choice == 1) return ClientAddress(play);
    if (choice == 2)
        return iface == nullptr || iface->linkLocal == nullptr ? 0 : be32toh(iface->linkLocal->IPv4Address);
    return choice == 3 ? kOwn : said;
}

// Data: the operation, the last byte of the sender's MAC, the sender's address and the target's.
void SendARP(Playing& play, const Step& step) {
    MAC sender = (step.argument & kOurMAC) != 0 ? kFuzzMAC : kFuzzNeighbour;
    if ((step.argument & kOurMAC) == 0) sender.back() = ByteOf(step, 1);
    const ARPFrame arp{.ethernetDestination = kEveryone,
                       .operation = ByteOf(step, 0),
                       .senderMAC = sender,
                       .sender = ARPAddress(play, step.argument & kSender, AddressOf(step, 2)),
                       .targetMAC = kFuzzMAC,
                       .target = ARPAddress(play, (step.argument & kTarget) / 4, AddressOf(step, 6))};
    const Frame frame = (step.argument & kWholeARP) != 0 ? step.data : WriteARP(arp);
    for (int i = (step.argument & kRepeated) != 0 ? 5 : 1; i > 0; --i) {
        play.device.Inject(frame);
        if (i > 1) play.device.Pass(500ms);
    }
}

void Wait(Playing& play, const Step& step) {
    constexpr std::array<Duration, 6> kUnits{1ms, 50ms, 1s, 10s, 10min, 6h};
    play.device.Pass(kUnits[step.argument % kUnits.size()] * (ByteOf(step, 0) % 32 + 1));
}

struct Request {
    const char* category;
    const char* method;
    const char* payload;
};

constexpr Request kRequests[] = {
    {"/client", "leaseAction", R"({"interface":"eth0","leaseAction":"init"})"},
    {"/client", "leaseAction", R"({"interface":"eth0","leaseAction":"renew"})"},
    {"/client", "leaseAction", R"({"interface":"eth0","leaseAction":"rebind"})"},
    {"/client", "leaseAction", R"({"interface":"eth0","leaseAction":"halt"})"},
    {"/client", "leaseAction", R"({"interface":"eth0","leaseAction":"init","address":"192.0.2.10"})"},
    {"/client", "leaseAction", R"({"interface":"eth0","leaseAction":"init","address":"169.254.7.7"})"},
    {"/client", "leaseAction", R"({"interface":"eth0","leaseAction":"halt","release":true})"},
    {"/client", "leaseAction", R"({"interface":"eth0","leaseAction":"dance"})"},
    {"/client", "leaseInformation", "{}"},
    {"/", "interfaceState", "{}"},
    {"/", "interfaceConfigDump", R"({"interface":"eth0"})"},
    {"/server", "leaseInformation", R"({"interface":"eth0"})"},
    {"/server", "leaseAction", R"({"interface":"eth0","leaseAction":"release","ipv4Address":"192.0.2.10"})"},
    {"/", "interfaceFinalize", R"({"interface":"eth0"})"},
    {"/", "interfaceFinalize", R"({"interface":"eth0","release":true})"},
    {"/server", "leaseAction", R"({"interface":"eth0","leaseAction":"hold","ipv4Address":"192.0.2.10"})"},
    {"/", "trace", R"({"subscribe":true})"},
    {"/", "interfaceState", R"({"subscribe":true,"interface":"eth0"})"},
    {"/", "setDebugLevel", R"({"debugLevel":"error"})"},
    {"/server", "leaseAction", R"({"interface":"eth0","leaseAction":"release","ipv4Address":"192.0.2.77"})"},
};

// The interface is handed over anew: 200 as a server, 201 as a static client, 202 as another, by the data's flags.
void HandOver(Playing& play, const Step& step) {
    const Play wish{0, ByteOf(step, 0), {}};
    (void)play.device.Ask("/", "interfaceFinalize", R"({"interface":"eth0"})");
    (void)play.device.Ask("/", "interfaceInitialize", RequestOf(wish, step.argument == 200, step.argument == 201));
}

void Act(Playing& play, const Step& step) {
    if (step.argument >= 200 && step.argument <= 202) return HandOver(play, step);
    const Request& request = kRequests[step.argument % std::size(kRequests)];
    play.isWithheld = play.isWithheld || std::strstr(request.payload, "hold") != nullptr;
    (void)play.device.Ask(request.category, request.method, request.payload);
}

void ChangeDevice(Playing& play, const Step& step) {
    World& world = play.device.world;
    if (world.Internals().device.asleep) return;
    const bool isThere = world.Internals().FindInterface("eth0") != nullptr;
    const uint8_t choice = step.argument % 8;
    play.isChanged = play.isChanged || (choice >= 2 && choice <= 4);
    if (choice < 2 && isThere) world.SetLink("eth0", choice == 1);
    if (choice == 2 && isThere) world.RemoveInterface("eth0");
    if (choice == 2 && !isThere) world.AddInterface("eth0", kFuzzMAC, play.device.wire);
    if (choice == 3 && isThere) world.ChangeMAC("eth0", {2, 0, 0, 0, 3, ByteOf(step, 0)});
    if (choice == 4 && isThere) world.RenameInterface("eth0", "eth9");
    if (choice == 5) world.Suspend(std::chrono::minutes(ByteOf(step, 0) + 1));
    if (choice == 6) world.wallStart += (ByteOf(step, 0) - 100) * int64_t{100'000};
    if (choice == 7) world.zoneSeconds = (ByteOf(step, 0) - 128) * int64_t{900};
}

// What the server of the client does: argument 1 silent, 2 silent to REQUEST, 4 refuses, 8 for ever, 16 a short lease.
void ChangeScript(Playing& play, const Step& step) {
    ServerScript& script = play.device.server.script;
    const uint8_t how = step.argument;
    script.silent = (how & 1) != 0;
    script.silentToRequest = (how & 2) != 0;
    script.leaseTime = (how & 8) != 0 ? 0xFFFFFFFF : (how & 16) != 0 ? 1 + ByteOf(step, 0) : kFuzzLease;
    script.tamper = [how, added = ReadOptions(step.data)](DHCPMessage& answer) {
        if ((how & 4) != 0 && answer.Type() == kAck) answer.options.front().second = {kNak};
        for (const Option& option : added) {
            if (!option.length) continue;
            std::erase_if(answer.options, [&](const auto& known) { return known.first == option.code; });
            answer.options.emplace_back(option.code, option.data);
        }
    };
}

// Data: 0 or the first call that fails, and how many after it do; or else the chance that each one has.
void Fail(Playing& play, const Step& step) {
    World& world = play.device.world;
    if (step.argument == 255) return world.StopReading(":1.2");
    const auto call = static_cast<DeviceCall>(step.argument % kDeviceCalls);
    if (ByteOf(step, 0) % 4 != 0) return world.FailCall(call, ByteOf(step, 0) % 32, 1 + ByteOf(step, 1) % 8);
    world.chanceOfFailure[static_cast<size_t>(call)] = ByteOf(step, 1) * 3;
}

void Take(Playing& play, const Step& step) {
    switch (step.kind) {
        case StepKind::FromServer:
        case StepKind::FromClient:
            return SendDHCP(play, step);
        case StepKind::ARP:
            return SendARP(play, step);
        case StepKind::Wait:
            return Wait(play, step);
        case StepKind::Moments:
            return play.device.PassMoments(1 + step.argument % 16);
        case StepKind::Action:
            return Act(play, step);
        case StepKind::Device:
            return ChangeDevice(play, step);
        case StepKind::Script:
            return ChangeScript(play, step);
        case StepKind::Fail:
            return Fail(play, step);
        case StepKind::kCount:
            return;
    }
}

void CheckTable(const Playing& play) {
    const Ostrel_InterfaceObj* const iface = play.Interface();
    if (iface == nullptr || iface->dhcpServer == nullptr) return;
    const std::string fault = FindLeaseFault(*iface->dhcpServer);
    play.device.Check(fault.empty(), "the lease table is out of order: " + fault);
}

// A day later a new client is offered an address, and the day was quiet.
void CheckServes(Playing& play) {
    FuzzDevice& device = play.device;
    device.Pass(25h);
    device.Check(!device.IsWorn(), "no rest");
    const size_t before = device.framesSent;
    device.Inject(WriteDHCP(FromStation(9, kDiscover)));
    device.Pass(1s);
    CheckTable(play);
    device.Check(device.framesSent > before, "no answer");
}

// The server behaves, and the client is told to begin.
void CheckLeased(Playing& play) {
    FuzzDevice& device = play.device;
    device.server.script = {.leaseTime = kFuzzLease};
    (void)device.Ask("/client", "leaseAction", R"({"interface":"eth0","leaseAction":"init"})");
    device.Pass(10min);
    device.Check(device.IsWorn() || play.Interface()->leaseIsHeld, "no lease");
}

void End(Playing& play) {
    FuzzDevice& device = play.device;
    device.Mend();
    device.Pass(5min);
    CheckTable(play);
    for (const Request& request : kRequests)
        if (std::strcmp(request.payload, "{}") == 0) (void)device.Ask(request.category, request.method, "{}");
    const Ostrel_InterfaceObj* const iface = play.Interface();
    if (iface == nullptr || play.isChanged || play.isWithheld || device.IsWorn() || device.world.Terminated()) return;
    if (iface->dhcpServer != nullptr) CheckServes(play);
    if (iface->dhcpClient != nullptr) CheckLeased(play);
}

}  // namespace
}  // namespace sim::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace sim::fuzz;
    const Play input = ReadPlay({data, size});
    Playing play;
    SetScene(play.device, input);
    for (const Step& step : input.steps) {
        Take(play, step);
        CheckTable(play);
    }
    play.device.Pass(std::chrono::seconds(5));
    End(play);
    return 0;
}
