// The client's and the selector's plain rules in a play against both; ClientPlay.h has what that is.

#include "ClientPlay.h"

namespace sim::model {
namespace {

constexpr uint64_t kEventsOfAGame = 1'000;

TEST(ClientModel, AgreesEventByEvent) {
    const ClientConfig configs[] = {
        {.linkLocal = true},
        {.identifier = "kitchen"},
        {.config = "dhcpManualAddress", .address = "192.0.2.11", .identifier = "", .linkLocal = true},
        {.config = "static",
         .address = "192.0.2.7",
         .mask = "255.255.255.0",
         .router = "192.0.2.1",
         .dnsServers = {"10.0.0.1", "0.0.0.0", "10.0.0.3"},
         .domainName = "static.example",
         .linkLocal = true},
        {.linkLocal = true},
    };
    constexpr uint32_t kClocks[] = {0, 1000, UINT32_MAX - 4000};
    const uint64_t events = Wished("OSTREL_MODEL_FRAMES", 80'000);
    std::array<uint64_t, 9> entered{};
    uint64_t leases = 0;
    for (uint64_t seed = 1; seed * kEventsOfAGame <= events; ++seed) {
        ClientPlay play(configs[seed % std::size(configs)], seed, kClocks[seed / 5 % 3]);
        for (uint64_t step = 0; step < kEventsOfAGame; ++step) {
            const std::string difference = play.Step();
            ASSERT_TRUE(difference.empty()) << difference << "\nseed " << seed << ", event " << step;
        }
        for (size_t i = 0; i < entered.size(); ++i) entered[i] += play.entered[i];
        leases += play.leases;
    }
    for (const uint32_t state : {1, 3, 4, 5, 6, 7, 8}) EXPECT_GT(entered[state], events / 200) << StateName(state);
    EXPECT_GT(leases, events / 100);
}

}  // namespace
}  // namespace sim::model
