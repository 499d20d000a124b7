// Link-layer sockets on a pair of virtual Ethernet interfaces, "here" and "there", in a network namespace of the
// process's own. Needs root.
//
// Frames carry an EtherType for local experiments and one marker byte. A test sends what must not be heard and then one
// frame that is, and waits for that: order on the wire makes up for a clock.
#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "DebugServices.h"
#include "eloop.h"
#include "l2_packet.h"

namespace {

constexpr uint16_t kExperimental = 0x88B5;
constexpr uint16_t kOther = 0x88B6;
constexpr std::array<uint8_t, 6> kSender{0x02, 0, 0, 0, 0, 0x42};
constexpr std::array<l2_filter_instruction, 4> kProgram{{{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12},
                                                         {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, kExperimental},
                                                         {BPF_RET | BPF_K, 0, 0, 0xFFFFFFFF},
                                                         {BPF_RET | BPF_K, 0, 0, 0}}};

using Frame = std::vector<uint8_t>;

void Shell(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;  // NOLINT(cert-env33-c): the commands are this file's own
}

// Until the kernel has noticed that the cable leads somewhere, it takes frames and drops them.
void BringUp() {
    Shell("ip link set here up && ip link set there up && ip link set lo up");
    Shell(
        "n=0; until [ $(ip link | grep -c 'state UP') = 2 ]; do n=$((n + 1)); [ $n -lt 500 ] || exit 1; sleep 0.02; "
        "done");
}

Frame Marked(uint8_t marker, uint16_t etherType = kExperimental, size_t length = 60) {
    Frame frame(6, 0xFF);
    frame.insert(frame.end(), kSender.begin(), kSender.end());
    frame.insert(frame.end(), {static_cast<uint8_t>(etherType >> 8), static_cast<uint8_t>(etherType), marker});
    frame.resize(length);
    return frame;
}

Frame Tagged(uint8_t marker, uint16_t tag) {
    Frame frame = Marked(marker);
    frame.insert(frame.begin() + 12, {0x81, 0x00, static_cast<uint8_t>(tag >> 8), static_cast<uint8_t>(tag)});
    return frame;
}

// What one socket heard: the markers, in order.
struct Listener {
    l2_packet_data* l2 = nullptr;
    std::vector<uint8_t> markers;
    size_t lastLength = 0;
    std::function<void()> also = [] {};

    static void Hear(void* context, const uint8_t* source, std::span<const uint8_t> frame) {
        auto* const self = static_cast<Listener*>(context);
        EXPECT_TRUE(std::equal(kSender.begin(), kSender.end(), source));
        self->markers.push_back(frame[14]);
        self->lastLength = frame.size();
        self->also();
    }
    explicit Listener(const char* ifname) : l2(l2_packet_init(ifname, nullptr, 3, Hear, this, 1)) {
        EXPECT_NE(l2, nullptr);
    }
    int Install(std::span<const l2_filter_instruction> program = kProgram) const {
        return l2_packet_install_filter(l2, program);
    }
    int Send(const Frame& frame) const { return l2_packet_send(l2, nullptr, 0, frame); }
    void Close() { l2_packet_deinit(std::exchange(l2, nullptr)); }
    ~Listener() { Close(); }

    bool WaitFor(uint8_t marker) {
        const gint64 deadline = g_get_monotonic_time() + gint64{10} * G_USEC_PER_SEC;
        while (markers.empty() || markers.back() != marker) {
            if (g_get_monotonic_time() > deadline) return false;
            if (g_main_context_iteration(nullptr, FALSE) == FALSE) g_usleep(100);
        }
        return true;
    }
};

class L2Packet : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
        cpu_set_t one;  // each processor has its own queue of frames: on one the order holds
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
        Shell("sysctl -q -w net.ipv6.conf.default.disable_ipv6=1 2>/dev/null || true");
    }
    void SetUp() override {
        Shell("ip link add here mtu 3000 type veth peer name there mtu 3000");
        BringUp();
        ASSERT_EQ(eloop_init(nullptr), 0);
    }
    void TearDown() override {
        eloop_destroy();
        Shell("ip link del here 2>/dev/null || true");
    }
};

TEST_F(L2Packet, HearsWholeFramesOfItsOwnLanThatItsProgramPasses) {
    for (const char* name : {"", "none", "lo", "here:1", "here/", "sixteencharsabcd"})
        EXPECT_EQ(l2_packet_init(name, nullptr, 3, Listener::Hear, nullptr, 1), nullptr) << name;
    Listener listener("here");
    const Listener there("there");
    EXPECT_GT(there.Send(Marked(1)), 0);
    ASSERT_EQ(listener.Install(), 0);
    for (int i = 0; i < 1000; ++i) EXPECT_GT(there.Send(Marked(2, kOther)), 0);
    EXPECT_FALSE(g_main_context_pending(nullptr)) << "frames that don't match wake nobody";
    EXPECT_GT(there.Send(Marked(3)), 0);
    EXPECT_TRUE(listener.WaitFor(3));
    const std::array<l2_filter_instruction, 1> invalid{{{0xFFFF, 0, 0, 0}}};
    EXPECT_LT(listener.Install(invalid), 0) << "which leaves the one before";
    EXPECT_GT(there.Send(Marked(4, kOther)), 0);
    EXPECT_GT(there.Send(Marked(5)), 0);
    EXPECT_GT(there.Send(Tagged(6, 5)), 0);
    EXPECT_GT(there.Send(Tagged(7, 0xE005)), 0);
    EXPECT_GT(there.Send(Tagged(8, 0xE000)), 0);  // a priority, no VLAN
    EXPECT_GT(there.Send(Marked(9, kExperimental, kL2MaxFrame + 1)), 0);
    EXPECT_GT(there.Send(Marked(10, kExperimental, kL2MaxFrame)), 0);
    EXPECT_TRUE(listener.WaitFor(10));
    EXPECT_EQ(listener.lastLength, kL2MaxFrame);
    EXPECT_EQ(listener.markers, (std::vector<uint8_t>{3, 5, 8, 10}));
}

TEST_F(L2Packet, SendsWholeFramesAndDoesNotHearItsOwnHost) {
    Listener here("here"), sibling("here"), there("there");
    for (const Listener* listener : {&here, &sibling, &there}) ASSERT_EQ(listener->Install(), 0);
    EXPECT_EQ(here.Send(Marked(1, kExperimental, 3014)), 3014);
    EXPECT_EQ(here.Send(Marked(2, kExperimental, 300)), 300);
    EXPECT_EQ(here.Send(Marked(3, kExperimental, 3015)), -EMSGSIZE);
    EXPECT_EQ(sibling.Send(Marked(4)), 60);
    EXPECT_TRUE(there.WaitFor(4));
    EXPECT_EQ(there.Send(Marked(9)), 60);
    EXPECT_TRUE(here.WaitFor(9) && sibling.WaitFor(9));
    EXPECT_EQ(here.markers, std::vector<uint8_t>{9});
    EXPECT_EQ(sibling.markers, std::vector<uint8_t>{9});
    EXPECT_EQ(there.markers, (std::vector<uint8_t>{2, 4})) << "the first frame is too long to be received";
    EXPECT_EQ(l2_packet_get_mtu(here.l2), 3000u);
}

TEST_F(L2Packet, ACallbackMayCloseSocketsAndEndTheLoop) {
    Listener one("here"), other("here"), ends("here");
    for (const Listener* listener : {&one, &other, &ends}) ASSERT_EQ(listener->Install(), 0);
    one.also = other.also = [&] {
        one.Close();
        other.Close();
    };
    ends.also = [] { eloop_terminate(); };
    const Listener there("there");
    for (uint8_t marker = 0; marker < 5; ++marker) EXPECT_GT(there.Send(Marked(marker)), 0);
    eloop_run();
    EXPECT_EQ(one.markers.size() + other.markers.size(), 1u) << "the rest of the batch is dropped";
    EXPECT_EQ(ends.markers.size(), 1u);
}

TEST_F(L2Packet, OutlivesItsLinkAndItsInterface) {
    const std::string log = testing::TempDir() + "l2-" + std::to_string(getpid()) + ".log";
    DebugInitialize(kDebugBackEndFile, 1, log.c_str());
    Listener listener("here");
    const Listener there("there");
    ASSERT_EQ(listener.Install(), 0);
    const auto settle = [] {
        int passes = 0;
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) ++passes;
        EXPECT_LE(passes, 5) << "the loop spins";
    };
    for (const uint8_t round : {uint8_t{1}, uint8_t{2}}) {
        Shell("ip link set here down");
        settle();
        EXPECT_EQ(listener.Send(Marked(1)), -ENETDOWN);
        settle();
        BringUp();
        EXPECT_EQ(listener.Send(Marked(1)), 60);
        EXPECT_EQ(there.Send(Marked(round)), 60);
        EXPECT_TRUE(listener.WaitFor(round));
    }
    Shell("test $(grep -cE '\\[here\\] link-layer socket: (Network is down|works again)' " + log + ") = 4");
    Shell("ip link set here down && ip link set here up");
    EXPECT_EQ(listener.Send(Marked(1)), 60) << "an error of the past is none of this frame";
    Shell("ip link del here");
    settle();
    EXPECT_LT(listener.Send(Marked(1)), 0);
    settle();
    DebugFinalize();
    unlink(log.c_str());
}

}  // namespace
