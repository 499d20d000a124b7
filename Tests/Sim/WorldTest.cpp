// The simulated device keeps the promises of Platform/Include that the daemon's own tests cannot see broken.

#include "FilterInterpreter.h"
#include "Harness.h"

namespace sim {
namespace {

TEST(FilterInterpreter, RefusesWhatTheKernelRefuses) {
    const l2_filter_instruction load{0x28, 0, 0, 12};
    const l2_filter_instruction pass{0x06, 0, 0, 7};
    const struct {
        std::vector<l2_filter_instruction> program;
        bool isValid;
        uint32_t passes;  // of two bytes
    } cases[] = {{{}, false, 0},
                 {{load}, false, 0},
                 {{{0x15, 1, 0, 0}, pass}, false, 0},
                 {{{0x15, 0, 255, 0}, pass}, false, 0},
                 {{{0xFF, 0, 0, 0}, pass}, false, 0},
                 {{load, {0x15, 1, 0, 0}, pass, pass}, true, 0},
                 {{{0x28, 0, 0, 0}, pass}, true, 7},
                 {{{0x28, 0, 0, 1}, pass}, true, 0},
                 {{{0x30, 0, 0, 0xFFFFFFFF}, pass}, true, 0},
                 {{{0xB1, 0, 0, 0}, {0x48, 0, 0, 0xFFFFFFFE}, pass}, true, 0}};
    for (const auto& [program, isValid, passes] : cases) {
        EXPECT_EQ(IsFilterValid(program), isValid);
        EXPECT_TRUE(!isValid || RunFilter(program, Frame{0x12, 0x34}) == passes);
    }
}

TEST(Daemon, EndsOnASignalAfterFiveIdleMinutesAndWithItsBus) {
    World world;
    Daemon daemon;
    world.Raise(15);
    EXPECT_FALSE(world.RunFor(1s));
    EXPECT_TRUE(world.Logged("got SIGTERM"));
    EXPECT_EQ(daemon.Stop(), kNoErr);

    Daemon second;
    EXPECT_TRUE(world.RunFor(299s));
    EXPECT_FALSE(world.RunFor(2s));
    EXPECT_EQ(world.MonotonicSeconds(), world.monotonicStart + 300);
    EXPECT_EQ(second.Stop(), kNoErr);

    Daemon third;
    world.LoseBus();
    EXPECT_TRUE(world.Terminated());
    EXPECT_EQ(third.Stop(), kGenericErr);
}

TEST(World, GivesOneTraceForOneSeed) {
    const auto run = [](uint64_t seed) {
        Lan lan(seed);
        lan.world.tracing = true;
        lan.wire.faults = {.loss = 300, .duplication = 200, .delay = 500, .maximumDelay = 2s};
        ScriptedServer server(lan.wire, {.leaseTime = 300});
        lan.Init();
        lan.RunFor(1h);
        EXPECT_GT(lan.FramesSent(), 10U);
        return std::pair(lan.world.Trace(), lan.world.TraceHash());
    };
    const auto first = run(7);
    const auto other = run(8);
    EXPECT_EQ(first, run(7));
    EXPECT_TRUE(first.first != other.first && first.second != other.second);
}

}  // namespace
}  // namespace sim
