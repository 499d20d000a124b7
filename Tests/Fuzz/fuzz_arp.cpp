// A received ARP frame for an interface that runs every role.
//
// The first byte says how: 0x01 lets the client hold a lease, 0x02 lets the link-local selector announce its address
// first, 0x08 makes it ARP for IPv4 over Ethernet, 0x10 puts the lease's address and 0x20 the link-local one into its
// sender field, 0x80 sends it five times. The rest is the frame.

#include <algorithm>
#include <cstring>

#include "Ostrel/ARPShared.h"
#include "Ostrel/DHCPClient.h"
#include "Ostrel/LinkLocal.h"

#include "FuzzDevice.h"

namespace {

using namespace std::chrono_literals;

constexpr uint8_t kFlagLease = 0x01;
constexpr uint8_t kFlagAnnounced = 0x02;
constexpr uint8_t kFlagPatch = 0x08;
constexpr uint8_t kFlagLeaseSender = 0x10;
constexpr uint8_t kFlagLinkLocalSender = 0x20;
constexpr uint8_t kFlagRepeat = 0x80;

constexpr size_t kTypeOffset = 12;
constexpr size_t kSenderOffset = 28;

void PutSender(sim::Frame& frame, Ostrel_IPv4 address) {
    if (frame.size() >= kSenderOffset + sizeof address) std::memcpy(&frame[kSenderOffset], &address, sizeof address);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static sim::FuzzDevice device;
    if (size == 0) return 0;
    const uint8_t flags = data[0];
    const auto config = sim::FuzzConfig(kOstrelModeDHCPClient | kOstrelModeLinkLocal | kOstrelModeDHCPServer, 0);
    if (size % 8 == 0) device.Listen();
    device.Run(config, [&](Ostrel_InterfaceObj& iface) {
        if ((flags & kFlagLease) != 0) (void)Ostrel_DHCPClientLeaseAction(&iface, "init");
        (void)Ostrel_LinkLocalAction(&iface, "init");
        device.world.RunFor((flags & kFlagAnnounced) != 0 ? 30s : 2s);

        sim::Frame frame(data + 1, data + size);
        constexpr std::array<uint8_t, 8> kTypes{0x08, 0x06, 0, 1, 0x08, 0, 6, 4};
        if ((flags & kFlagPatch) != 0 && frame.size() >= kTypeOffset + kTypes.size()) {
            std::copy(kTypes.begin(), kTypes.end(), frame.begin() + kTypeOffset);
        }
        if ((flags & kFlagLeaseSender) != 0) PutSender(frame, iface.dhcpClient->lease.IPv4Address);
        if ((flags & kFlagLinkLocalSender) != 0) PutSender(frame, iface.linkLocal->IPv4Address);
        for (int i = (flags & kFlagRepeat) != 0 ? 5 : 1; i > 0; --i) {
            device.Inject(frame);
            device.world.RunFor(500ms);
        }
        device.world.RunFor(70s);
    });
    return 0;
}
