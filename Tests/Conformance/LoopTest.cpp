// The event loop, the clocks, entropy and memory: what Platform/Include promises of them, on both platforms.
#include <algorithm>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>

#include "Lab.h"
#include "eloop.h"
#include "os_memory.h"
#include "os_random.h"
#include "os_time.h"
#include "wpabuf.h"

namespace {

using Texts = std::vector<std::string>;
Texts happened;

void Happen(void* text, void* action) {
    happened.emplace_back(static_cast<const char*>(text));
    if (action != nullptr) (*static_cast<std::function<void()>*>(action))();
}
void* Text(const char* text) {
    return const_cast<char*>(text);
}
int After(uint32_t milliseconds, const char* text, std::function<void()>* action = nullptr) {
    return eloop_register_timeout(0, milliseconds, Happen, Text(text), action);
}
int Alarm(uint32_t milliseconds, const char* name, std::function<void()>* action = nullptr) {
    return eloop_register_timeout_rtc(0, milliseconds, name, Happen, Text(name), action);
}
std::function<void()> endLoop = eloop_terminate;

class Loop : public testing::Test {
protected:
    void SetUp() override { happened.clear(); }
    lab::Lab lab;
};

TEST_F(Loop, FiresByDeadlineThenByRegistrationAndNeverEarly) {
    const uint64_t start = os_monotonic_milliseconds();
    EXPECT_TRUE(After(30, "third") == 0 && After(10, "first") == 0 && After(10, "second") == 0);
    EXPECT_TRUE(Alarm(70, "end", &endLoop) == 0 && Alarm(50, "alarm") == 0);
    for (const uint32_t far : {UINT32_MAX, kEloopMaxSeconds + 1, kEloopMaxSeconds}) {
        EXPECT_EQ(eloop_register_timeout(far, UINT32_MAX, Happen, Text("in 68 years"), nullptr), 0);
        EXPECT_EQ(eloop_register_timeout_rtc(far, UINT32_MAX, "far", Happen, Text("in 68 years"), nullptr), 0);
    }
    eloop_run();
    EXPECT_EQ(happened, (Texts{"first", "second", "third", "alarm", "end"}));
    EXPECT_GE(os_monotonic_milliseconds() - start, 69U);
}

TEST_F(Loop, APassFiresWhatWasRegisteredBeforeItAndNotCancelledInIt) {
    const char* const cancelled = "cancelled";
    std::function<void()> first = [&] {
        EXPECT_EQ(eloop_cancel_timeout(Happen, Text(cancelled), nullptr), 2);
        After(0, "registered in the pass");
        After(0, "end", &endLoop);
        After(0, "behind the end");
    };
    After(0, "first", &first);
    After(0, cancelled);
    After(0, cancelled);
    After(0, "same pass");
    eloop_run();
    eloop_run();  // ended before it begins
    EXPECT_EQ(happened, (Texts{"first", "same pass", "registered in the pass", "end"}));
}

TEST_F(Loop, ATimeoutFiresOnceAndMayCancelOrRepeatItself) {
    int left = 3;
    std::function<void()> again = [&] {
        EXPECT_EQ(eloop_cancel_timeout(Happen, Text("again"), &again), 0) << "it has left the queue";
        if (--left > 0) After(1, "again", &again);
    };
    After(1, "again", &again);
    EXPECT_TRUE(lab.RunUntil([&] { return left == 0; }));
    After(5, "last");
    EXPECT_TRUE(lab.RunUntil([] { return happened.back() == "last"; }));
    EXPECT_EQ(happened, (Texts{"again", "again", "again", "last"}));
}

TEST_F(Loop, IdentityIsHandlerContextsAndAlarmName) {
    const char* const a = "a";
    After(60'000, a);
    eloop_register_timeout_rtc(60, 0, "x", Happen, Text(a), nullptr);
    EXPECT_EQ(eloop_cancel_timeout(Happen, Text(a), this), 0);
    EXPECT_EQ(eloop_cancel_timeout([](void*, void*) {}, Text(a), nullptr), 0);
    EXPECT_EQ(eloop_cancel_timeout_rtc("y", Happen, Text(a), nullptr), 0);
    EXPECT_EQ(eloop_cancel_timeout_rtc("x", Happen, Text(a), nullptr), 1);
    EXPECT_EQ(eloop_cancel_timeout(Happen, Text(a), nullptr), 1);
}

TEST_F(Loop, IsOneAndTakesNothingWhenItIsGone) {
    EXPECT_EQ(eloop_init(nullptr), -1);
    EXPECT_NE(eloop_get_gnome_loop(), nullptr);
    After(0, "never");
    eloop_destroy();
    EXPECT_EQ(eloop_get_gnome_loop(), nullptr);
    EXPECT_EQ(eloop_cancel_timeout(Happen, Text("never"), nullptr), 0);
    EXPECT_EQ(After(0, "never"), -1);
    EXPECT_EQ(Alarm(0, "never"), -1);
    EXPECT_EQ(eloop_register_signal_terminate([](int, void*, void*) {}, nullptr), -1);
    EXPECT_EQ(eloop_init(nullptr), 0);
    EXPECT_EQ(After(0, "end", &endLoop), 0);
    eloop_run();
    EXPECT_EQ(happened, Texts{"end"});
}

TEST_F(Loop, SignalsBeforeAndAfterTheHandlerReachItThroughTheLoop) {
    static std::vector<int> signals;
    static std::vector<void*> contexts;
    static lab::Lab* raiser;
    signals.clear();
    raiser = &lab;
    lab.Raise(SIGTERM);
    const auto handler = [](int signal, void* loopContext, void* handlerContext) {
        signals.push_back(signal);
        contexts = {loopContext, handlerContext};
        if (signals.size() == 1) raiser->Raise(SIGINT);
        if (signals.size() == 2) eloop_terminate();
    };
    ASSERT_EQ(eloop_register_signal_terminate(handler, &happened), 0);
    EXPECT_TRUE(signals.empty());
    eloop_run();
    EXPECT_EQ(signals, (std::vector<int>{SIGTERM, SIGINT}));
    EXPECT_EQ(contexts, (std::vector<void*>{&lab, &happened}));
}

TEST_F(Loop, ClocksAgreeAndTimesAreTexts) {
    const uint64_t before = os_monotonic_milliseconds();
    const int64_t wall = os_wall_microseconds();
    After(20, "end");
    EXPECT_TRUE(lab.RunUntil([] { return !happened.empty(); }));
    EXPECT_GE(os_monotonic_milliseconds() - before, 19U);
    EXPECT_GE(os_wall_microseconds() - wall, 19'000);
    EXPECT_LE(os_wall_seconds() - wall / 1'000'000, 60);
    EXPECT_LE(os_monotonic_seconds() - static_cast<uint32_t>(before / 1000), 60U);
    std::array<char, 64> text{};
    EXPECT_TRUE(os_local_time_text(wall / 1'000'000, text));
    EXPECT_EQ(std::strlen(text.data()), 25U);
    EXPECT_EQ(text[24], '\n');
    EXPECT_FALSE(os_local_time_text(0, std::span(text).first(25)));
    EXPECT_EQ(text[0], '\0');
    EXPECT_FALSE(os_local_time_text(0, {}));
    EXPECT_FALSE(os_local_time_text(INT64_MAX, text)) << "no such year";
}

TEST_F(Loop, MemoryIsZeroAndEntropyIsNot) {
    auto* const block = static_cast<uint8_t*>(os_zalloc(4096));
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(std::all_of(block, block + 4096, [](uint8_t byte) { return byte == 0; }));
    os_random_bytes({block, 64});
    os_random_bytes({block + 64, 64});
    EXPECT_FALSE(std::equal(block, block + 64, block + 64));
    os_free(block);
    void* const nothing = os_zalloc(0);
    EXPECT_NE(nothing, nullptr);
    os_free(nothing);
    os_free(nullptr);
    EXPECT_EQ(os_zalloc_array<uint64_t>(SIZE_MAX / 4), nullptr);
    EXPECT_EQ(wpabuf_alloc(SIZE_MAX), nullptr);
}

}  // namespace
