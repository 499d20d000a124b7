// A received frame for a DHCP server, from a station that it knows or doesn't. Whatever it is, the lease table stays in
// order and the server serves on.
//
// The low two bits of the first byte pick what the station has, 0x04 puts its address into ciaddr, the others are
// FuzzDevice's flags.

#include "FuzzDevice.h"
#include "LeaseInvariants.h"

namespace {

using namespace std::chrono_literals;
using sim::FuzzDevice;

constexpr uint8_t kStationMask = 0x03;  // 0 nothing, 1 an offer, 2 a lease, 3 nothing, and others have the pool
constexpr uint8_t kFlagHolder = 0x04;

sim::DHCPMessage Message(uint8_t station, uint8_t type) {
    sim::DHCPMessage message{.ethernetDestination = sim::kEveryone,
                             .ethernetSource = sim::kFuzzNeighbour,
                             .destination = sim::kEveryoneIPv4,
                             .sourcePort = 68,
                             .destinationPort = 67,
                             .op = 1,
                             .xid = 0xA1B2C3D4,
                             .chaddr = sim::kFuzzNeighbour,
                             .options = {{53, {type}}, {61, {1, 2, 3, station}}, {12, {'h', station}}}};
    message.ethernetSource[4] = message.chaddr[4] = station;
    if (type == sim::kRequest) message.options.push_back({50, {192, 0, 2, static_cast<uint8_t>(10 + station)}});
    return message;
}

void Say(FuzzDevice& device, uint8_t station, uint8_t type) {
    device.Inject(sim::WriteDHCP(Message(station, type)));
    device.world.RunFor(1ms);
}

void Reach(FuzzDevice& device, uint8_t has) {
    const uint8_t first = has == 3 ? 1 : 0;
    const uint8_t end = has == 0 ? 0 : has == 3 ? 5 : 1;
    for (uint8_t station = first; station < end; ++station) {
        Say(device, station, sim::kDiscover);
        if (has > 1) Say(device, station, sim::kRequest);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzDevice device;
    if (size == 0) return 0;
    if (size % 8 == 0) device.Listen();
    device.Run(sim::FuzzConfig(kOstrelModeDHCPServer, 0), [&](Ostrel_InterfaceObj& iface) {
        Reach(device, data[0] & kStationMask);
        sim::DHCPMessage head = Message(0, 0);
        if ((data[0] & kFlagHolder) != 0) head.ciaddr = sim::ToIPv4("192.0.2.10");
        const sim::Frame frame = sim::FuzzFrame({data, size}, head);
        for (int i = (data[0] & sim::kFlagTwice) != 0 ? 2 : 1; i > 0; --i) {
            device.Inject(frame);
            device.world.RunFor(1s);
            device.Check(FindLeaseFault(*iface.dhcpServer).empty(), "the lease table is out of order");
        }
        (void)device.world.Call("/server", "leaseInformation", "{}");
        device.world.RunFor(std::chrono::hours(25));
        const size_t before = device.framesSent;
        Say(device, 9, sim::kDiscover);
        device.Check(FindLeaseFault(*iface.dhcpServer).empty(), "the lease table is out of order later");
        device.Check(device.framesSent == before + 1, "no answer");
    });
    return 0;
}
