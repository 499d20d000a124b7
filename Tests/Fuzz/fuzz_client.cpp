// A received frame for a dhcp client in each of its states.
//
// The low three bits of the first byte pick the state, kFlagRFC the set of rules, the others are FuzzDevice's flags.

#include <endian.h>

#include "Ostrel/DHCPClient.h"

#include "FuzzDevice.h"

namespace {

using namespace std::chrono_literals;
using sim::FuzzDevice;

constexpr uint8_t kStateMask = 0x07;
constexpr uint8_t kFlagRFC = 0x20;

// Where the daemon and its server must stand before the frame comes.
void Reach(FuzzDevice& device, Ostrel_InterfaceObj& iface, uint8_t state) {
    if (state == 0) return;  // INIT-REBOOT, or a static client
    device.server.script.silent = state == 1;
    device.server.script.silentToRequest = state == 2;
    (void)Ostrel_DHCPClientLeaseAction(&iface, "init");
    device.world.RunFor(100us);              // 1 SELECTING, 2 REQUESTING, 3 under the ARP check
    if (state > 3) device.world.RunFor(3s);  // 4 BOUND
    device.server.script.silent = true;
    if (state > 4) device.world.RunFor(std::chrono::seconds(sim::kFuzzLease / 2));      // 5 RENEWING
    if (state > 5) device.world.RunFor(std::chrono::seconds(sim::kFuzzLease * 3 / 8));  // 6 REBINDING
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzDevice device;
    if (size == 0) return 0;
    const uint8_t state = data[0] & kStateMask;
    const bool isStatic = state == 7;
    auto config =
        sim::FuzzConfig(kOstrelModeDHCPClient, isStatic ? kOstrelConfigStatic : kOstrelConfigDHCPManualAddress);
    config.rfc = (data[0] & kFlagRFC) != 0;
    if (size % 8 == 0) device.Listen();
    device.Run(config, [&](Ostrel_InterfaceObj& iface) {
        Reach(device, iface, isStatic ? 0 : state);
        const sim::Frame frame = sim::FuzzFrame({data, size}, {.ethernetSource = sim::kFuzzNeighbour,
                                                               .source = sim::ToIPv4("192.0.2.1"),
                                                               .sourcePort = 67,
                                                               .destinationPort = 68,
                                                               .op = 2,
                                                               .xid = be32toh(iface.dhcpClient->transactionID),
                                                               .yiaddr = sim::ToIPv4("192.0.2.10"),
                                                               .chaddr = sim::kFuzzMAC});
        for (int i = (data[0] & sim::kFlagTwice) != 0 ? 2 : 1; i > 0; --i) device.Inject(frame);
        device.world.RunFor(5s);
        (void)device.world.Call("/client", "leaseInformation", "{}");
        device.world.RunFor(std::chrono::hours(2));
    });
    return 0;
}
