// Links, own addresses and held ports in a network namespace of the process's own. Needs root. That a device wakes up
// cannot be made to happen here.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <fstream>
#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "eloop.h"
#include "os_device.h"

namespace {

constexpr uint16_t kPort = 6767;
using MAC = std::array<uint8_t, 6>;
constexpr MAC kHere{0x02, 0, 0, 0, 0, 0x01}, kThere{0x02, 0, 0, 0, 0, 0x02}, kOther{0x02, 0, 0, 0, 0, 0x03};

void Shell(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;  // NOLINT(cert-env33-c): the commands are this file's own
}

struct News {
    int32_t index;
    std::string name;
};
std::vector<News> told;

void LinkChanged(void*, int32_t index, const char* ifname) {
    told.push_back({index, ifname});
}
void WokeUp(void*) {
    ADD_FAILURE() << "nothing sleeps here";
}

bool WasToldOf(std::string_view name) {
    return std::any_of(told.begin(), told.end(), [name](const News& news) { return news.name == name; });
}

// Runs the loop until there is news of that link, and it is so.
bool Until(const char* name, const std::function<bool(const os_link&)>& isSo) {
    const gint64 deadline = g_get_monotonic_time() + gint64{10} * G_USEC_PER_SEC;
    while (!WasToldOf(name) || !isSo(os_link_of(name))) {
        if (g_get_monotonic_time() > deadline) return false;
        if (g_main_context_iteration(nullptr, FALSE) == FALSE) g_usleep(100);
    }
    return true;
}

class OsDevice : public testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root"; }
    void SetUp() override {
        told.clear();
        ASSERT_EQ(eloop_init(nullptr), 0);
        Shell("ip link set lo up");
        Shell("ip link add here address 02:00:00:00:00:01 type veth peer name there address 02:00:00:00:00:02");
    }
    void TearDown() override {
        eloop_destroy();
        Shell("for l in here there anew; do ip link del $l 2>/dev/null || true; done");
    }
};

TEST_F(OsDevice, SaysSoWhenMoreChangesThanTheKernelKeeps) {
    ASSERT_EQ(os_watch_device({LinkChanged, WokeUp, nullptr}), 0);
    Shell("for i in $(seq 400); do echo link set here up; echo link set here down; done | ip -batch -");
    EXPECT_TRUE(Until("", [](const os_link&) { return true; }));
    EXPECT_EQ(told.front().index, 0);
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) continue;
    told.clear();
    Shell("ip link set here up");
    EXPECT_TRUE(Until("here", [](const os_link& link) { return link.isThere; })) << "it goes on";
}

TEST_F(OsDevice, KnowsTheAddressesOfAllItsInterfaces) {
    Shell("ip link set here up");
    EXPECT_TRUE(os_is_own_address(kHere));
    EXPECT_TRUE(os_is_own_address(kThere)) << "which is down";
    EXPECT_FALSE(os_is_own_address(kOther));
    EXPECT_TRUE(os_is_own_address({})) << "of the loopback interface, as the kernel says";
}

// Whether the kernel refused a datagram to the port.
bool IsRefused(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    bool refused = false;
    for (int i = 0; i < 1000; ++i) refused = (send(fd, "x", 1, 0) < 0 && errno == ECONNREFUSED) || refused;
    close(fd);
    return refused;
}

// What waits in the sockets of a port, and what they dropped, as /proc/net/udp has it.
std::vector<std::string> QueuesOf(uint16_t port) {
    std::array<char, 8> hex{};
    std::snprintf(hex.data(), hex.size(), ":%04X ", port);
    std::ifstream table("/proc/thread-self/net/udp");
    std::vector<std::string> queues;
    for (std::string line; std::getline(table, line);)
        if (line.find(hex.data()) < line.find(" 00000000:0000 ")) queues.push_back(line);
    return queues;
}

TEST_F(OsDevice, HoldsAPortWithoutReadingIt) {
    EXPECT_TRUE(IsRefused(kPort));
    EXPECT_EQ(os_hold_port("none", kPort), nullptr);
    {
        const os_held_port elsewhere(os_hold_port("here", kPort));
        ASSERT_NE(elsewhere, nullptr);
        EXPECT_TRUE(IsRefused(kPort)) << "of another interface";
        const os_held_port held(os_hold_port("lo", kPort));
        ASSERT_NE(held, nullptr);
        EXPECT_FALSE(IsRefused(kPort));
        ASSERT_EQ(QueuesOf(kPort).size(), 2U);
        for (const std::string& line : QueuesOf(kPort))
            EXPECT_NE(line.find(" 07 00000000:00000000 "), std::string::npos) << line << ": nothing waits to be read";
    }
    EXPECT_TRUE(IsRefused(kPort)) << "released";
}

}  // namespace
