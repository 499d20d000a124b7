// The event loop on the real clocks: order, cancelling from handlers, the ways it ends, signals and alarms.
#include <csignal>
#include <filesystem>
#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "TimeoutQueue.h"
#include "eloop.h"

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
void After(uint32_t milliseconds, const char* text, std::function<void()>* action = nullptr) {
    eloop_register_timeout(0, milliseconds, Happen, Text(text), action);
}
std::function<void()> endLoop = eloop_terminate;

class Eloop : public testing::Test {
protected:
    void SetUp() override {
        happened.clear();
        ASSERT_EQ(eloop_init(this), 0);
    }
    void TearDown() override {
        eloop_destroy();
        EXPECT_EQ(eloop_cancel_timeout(Happen, nullptr, nullptr), 0);
        EXPECT_EQ(eloop_register_timeout(0, 0, Happen, nullptr, nullptr), -1);
    }
};

TEST_F(Eloop, FiresByDeadlineThenByRegistration) {
    After(30, "third");
    After(10, "first");
    After(10, "second");
    eloop_register_timeout_rtc(0, 50, "alarm", Happen, Text("alarm"), nullptr);
    eloop_register_timeout(UINT32_MAX, UINT32_MAX, Happen, Text("in 68 years"), nullptr);
    eloop_register_timeout_rtc(UINT32_MAX, UINT32_MAX, "far", Happen, Text("in 68 years"), nullptr);
    eloop_register_timeout_rtc(0, 70, "end", Happen, Text("end"), &endLoop);
    const gint64 start = g_get_monotonic_time();
    eloop_run();
    EXPECT_EQ(happened, (Texts{"first", "second", "third", "alarm", "end"}));
    EXPECT_GE(g_get_monotonic_time() - start, 70'000);
}

TEST_F(Eloop, APassFiresWhatWasRegisteredBeforeItAndNotCancelledInIt) {
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
    g_usleep(2000);
    eloop_run();
    eloop_run();  // ended before it begins
    EXPECT_EQ(happened, (Texts{"first", "same pass", "registered in the pass", "end"}));
}

TEST(TimeoutQueue, APassLeavesWhatIsYoungerAndFindsTheOlderBehindIt) {
    TimeoutQueue queue;
    happened.clear();
    std::function<void()> addYounger = [&] { ASSERT_TRUE(queue.Add(5, Happen, Text("younger"), nullptr)); };
    ASSERT_TRUE(queue.Add(1, Happen, Text("first"), &addYounger));
    ASSERT_TRUE(queue.Add(20, Happen, Text("older"), nullptr));
    queue.RunPass(20, false);
    EXPECT_EQ(happened, (Texts{"first", "older"}));
    queue.RunPass(4, false);
    queue.RunPass(20, true);
    EXPECT_EQ(queue.NextDeadline(), 5);
    queue.RunPass(20, false);
    EXPECT_EQ(happened, (Texts{"first", "older", "younger"}));
}

TEST_F(Eloop, IdentityIsHandlerContextsAndAlarmName) {
    const char* const a = "a";
    After(60'000, a);
    eloop_register_timeout_rtc(60, 0, "x", Happen, Text(a), nullptr);
    EXPECT_EQ(eloop_cancel_timeout(Happen, Text(a), this), 0);
    EXPECT_EQ(eloop_cancel_timeout([](void*, void*) {}, Text(a), nullptr), 0);
    EXPECT_EQ(eloop_cancel_timeout_rtc("y", Happen, Text(a), nullptr), 0);
    EXPECT_EQ(eloop_cancel_timeout_rtc("x", Happen, Text(a), nullptr), 1);
    EXPECT_EQ(eloop_cancel_timeout(Happen, Text(a), nullptr), 1);
}

TEST_F(Eloop, SignalsBeforeAndAfterTheHandlerReachItThroughTheLoop) {
    static std::vector<int> signals;
    static std::vector<void*> contexts;
    raise(SIGTERM);
    const auto handler = [](int signal, void* loopContext, void* handlerContext) {
        signals.push_back(signal);
        contexts = {loopContext, handlerContext};
        if (signals.size() == 1) raise(SIGINT);
        if (signals.size() == 2) eloop_terminate();
    };
    ASSERT_EQ(eloop_register_signal_terminate(handler, &happened), 0);
    EXPECT_TRUE(signals.empty());
    eloop_run();
    EXPECT_EQ(signals, (std::vector<int>{SIGTERM, SIGINT}));
    EXPECT_EQ(contexts, (std::vector<void*>{this, &happened}));
    const std::filesystem::directory_iterator threads("/proc/self/task");
    EXPECT_EQ(std::distance(begin(threads), end(threads)), 1);
}

}  // namespace
