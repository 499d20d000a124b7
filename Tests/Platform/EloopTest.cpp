// The queue of timeouts, and what is only the device's own of the loop; the rest is in Tests/Conformance.
#include <csignal>
#include <filesystem>
#include <functional>
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

TEST(Eloop, HasOneThread) {
    ASSERT_EQ(eloop_init(nullptr), 0);
    raise(SIGTERM);
    ASSERT_EQ(eloop_register_signal_terminate([](int, void*, void*) { eloop_terminate(); }, nullptr), 0);
    eloop_run();
    const std::filesystem::directory_iterator threads("/proc/self/task");
    EXPECT_EQ(std::distance(begin(threads), end(threads)), 1);
    eloop_destroy();
}

}  // namespace
