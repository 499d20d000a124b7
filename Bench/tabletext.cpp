// What the text of a server's lease table costs: made anew, and put together for a post after one lease has changed.
//
//     tabletext [LEASES]      by default 1000
//
// On the simulated platform, so without the bus; its local times are cheaper than the device's.
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "DHCPServer/LeaseTable.h"
#include "OstrelVoroBus/LeaseTexts.h"
#include "Sim.h"

namespace {

template <typename Work>
double MicrosecondsOf(Work work) {
    constexpr int kRounds = 200;
    const auto begun = std::chrono::steady_clock::now();
    for (int i = 0; i < kRounds; ++i) work();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begun).count() / kRounds;
}

}  // namespace

int main(int argc, char* argv[]) {
    const uint32_t leases = argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : 1000;
    sim::World world;
    world.AddInterface("usb0", {2, 0, 0, 0, 0, 1}, world.AddSegment());
    Ostrel_SystemObj system{};
    if (Ostrel_DaemonStart(&system) != kNoErr) return 1;
    (void)QxLogGetContext(kServiceName, &gLogCxt);  // with a level, so that debug lines cost nothing
    world.keepLog = false;
    (void)world.Call("/", "interfaceInitialize",
                     R"({"interface":"usb0","mode":"server","ipv4Address":"10.0.0.1","ipv4Subnet":"255.0.0.0",)"
                     R"("ipv4Router":"10.0.0.1","ipv4RangeStart":"10.0.1.0","leaseTime":7200,"maxLeases":)" +
                         std::to_string(leases) + "}");
    Ostrel_ServerObj* server = system.interfaceList->dhcpServer;
    const std::string name = "a-host-name.example";
    for (uint32_t i = 0; i < leases; ++i) {
        Ostrel_LeaseInformation& slot = server->leases[i];
        const Ostrel_MAC mac{
            2, 0, 0, static_cast<uint8_t>(i >> 16), static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        Ostrel_DHCPServer_LeaseActivate(server, &slot, mac, world.MonotonicSeconds(), {});
        (void)Ostrel_DHCPServer_LeaseKeepHostName(&slot, {reinterpret_cast<const uint8_t*>(name.data()), name.size()});
    }

    std::string text;
    const double anew = MicrosecondsOf([&] { (void)Ostrel_LeaseTextsWrite(&system, server, &text); });
    (void)world.Call("/server", "leaseInformation", R"({"subscribe":true})");
    const double next = MicrosecondsOf([&] {
        server->leases[leases / 2].changed = true;
        (void)Ostrel_LeaseTextsWrite(&system, server, &text);
    });
    std::printf("%u leases, %zu bytes: anew %.0f us, after one change %.0f us\n", leases, text.size(), anew, next);
    return Ostrel_DaemonStop(&system) == kNoErr ? 0 : 1;
}
