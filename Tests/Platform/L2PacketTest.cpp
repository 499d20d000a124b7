// Link-layer sockets on a pair of virtual Ethernet interfaces, "here" and "there", in a network namespace of the
// process's own. Needs root.
//
// Frames carry an EtherType for local experiments and one marker byte. A test sends what must not be heard and then one
// frame that is, and waits for that: order on the wire makes up for a clock.
#include <fstream>
#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
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

// What one socket heard: the markers, in order.
struct Listener {
    l2_packet_data* l2 = nullptr;
    std::vector<uint8_t> markers;
    std::function<void()> also = [] {};

    static void Hear(void* context, const uint8_t* source, std::span<const uint8_t> frame) {
        auto* const self = static_cast<Listener*>(context);
        EXPECT_TRUE(std::equal(kSender.begin(), kSender.end(), source));
        self->markers.push_back(frame[14]);
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

TEST_F(L2Packet, FramesThatDoNotMatchWakeNobody) {
    Listener listener("here");
    const Listener there("there");
    EXPECT_GT(there.Send(Marked(1)), 0) << "nor do those from before there is a program";
    ASSERT_EQ(listener.Install(), 0);
    for (int i = 0; i < 1000; ++i) EXPECT_GT(there.Send(Marked(2, kOther)), 0);
    EXPECT_FALSE(g_main_context_pending(nullptr));
    EXPECT_GT(there.Send(Marked(3)), 0);
    EXPECT_TRUE(listener.WaitFor(3));
    EXPECT_EQ(listener.markers, std::vector<uint8_t>{3});
}

// Frames for the Ethernet address of another host, which the kernel hands over while an interface is promiscuous.
TEST_F(L2Packet, DoesNotHearWhatIsForOtherHosts) {
    Shell("ip link set here promisc on");
    Listener listener("here");
    const Listener there("there");
    ASSERT_EQ(listener.Install(), 0);
    Frame toOther = Marked(1);
    std::fill_n(toOther.begin(), 6, uint8_t{0x02});
    EXPECT_EQ(there.Send(toOther), 60);
    EXPECT_EQ(there.Send(Marked(2)), 60);
    EXPECT_TRUE(listener.WaitFor(2));
    EXPECT_EQ(listener.markers, std::vector<uint8_t>{2});
}

// From now on the kernel refuses a socket option, as an older one does or for want of a right. For good: in a child.
void RefuseSocketOption(uint32_t level, uint32_t option, uint32_t error) {
    const auto refuse = static_cast<uint32_t>(SECCOMP_RET_ERRNO) | error;
    std::array<sock_filter, 8> program{{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_setsockopt, 0, 5),
                                        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
                                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, level, 0, 3),
                                        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
                                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, option, 0, 1),
                                        BPF_STMT(BPF_RET | BPF_K, refuse),
                                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)}};
    const sock_fprog attached{.len = static_cast<unsigned short>(program.size()), .filter = program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &attached) != 0)
        _exit(10);
}

// Linux before 4.20, which has no option for it.
TEST_F(L2Packet, DoesNotHearItsOwnHostOnAnOldKernel) {
    const auto child = [] {
        RefuseSocketOption(SOL_PACKET, PACKET_IGNORE_OUTGOING, ENOPROTOOPT);
        Listener here("here"), sibling("here");
        const Listener there("there");
        if (here.l2 == nullptr || here.Install() != 0 || sibling.Install() != 0) _exit(1);
        if (sibling.Send(Marked(1)) != 60 || there.Send(Marked(2)) != 60 || !here.WaitFor(2)) _exit(2);
        _exit(here.markers == std::vector<uint8_t>{2} ? 0 : 3);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

// Without CAP_NET_ADMIN, as installed, a burst finds more room than the kernel's usual 208 KiB all the same.
TEST_F(L2Packet, KeepsABurstWithoutTheRightToForceItsBuffer) {
    const auto child = [] {
        RefuseSocketOption(SOL_SOCKET, SO_RCVBUFFORCE, EPERM);
        Listener here("here");
        const Listener there("there");
        if (here.l2 == nullptr || here.Install() != 0) _exit(1);
        constexpr size_t kBurst = 250;  // frames as long as a DHCP message; 208 KiB take some 160
        for (size_t i = 0; i < kBurst; ++i)
            if (there.Send(Marked(static_cast<uint8_t>(i), kExperimental, 590)) != 590) _exit(2);
        _exit(here.WaitFor(static_cast<uint8_t>(kBurst - 1)) && here.markers.size() == kBurst ? 0 : 3);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

TEST_F(L2Packet, SaysWhyItCannotOpen) {
    const std::string log = testing::TempDir() + "l2-reasons-" + std::to_string(getpid()) + ".log";
    const auto reasonFor = [&](const char* name) {
        DebugInitialize(kDebugBackEndFile, 1, log.c_str());
        EXPECT_EQ(l2_packet_init(name, nullptr, 3, Listener::Hear, nullptr, 1), nullptr) << name;
        DebugFinalize();
        std::string text;
        std::getline(std::ifstream(log), text);
        unlink(log.c_str());
        return text.substr(std::min(text.size(), size_t{24}));
    };
    EXPECT_EQ(reasonFor("none"), "[none] link-layer socket cannot be opened: no such interface");
    EXPECT_EQ(reasonFor("here:1"), "[here:1] link-layer socket cannot be opened: no such interface");
    EXPECT_EQ(reasonFor("lo"), "[lo] link-layer socket cannot be opened: not an Ethernet interface");
    const auto child = [&] {
        if (setresuid(65534, 65534, 65534) != 0) _exit(1);
        _exit(l2_packet_init("here", nullptr, 3, Listener::Hear, nullptr, 1) == nullptr ? 0 : 2);
    };
    DebugInitialize(kDebugBackEndFile, 1, log.c_str());
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
    DebugFinalize();
    Shell("grep -q 'cannot be opened: no right to open raw sockets (CAP_NET_RAW)' " + log + " && rm " + log);
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

TEST_F(L2Packet, AnswersTheFramesOfABatchInOrder) {
    Shell("ip link set here mtu 1000");
    Listener here("here"), there("there");
    ASSERT_EQ(here.Install(), 0);
    ASSERT_EQ(there.Install(), 0);
    here.also = [&] {
        const uint8_t marker = here.markers.back();
        if (marker == 5) {
            EXPECT_EQ(here.Send(Marked(50, kExperimental, 1500)), 1500) << "lost, as on the wire";
            EXPECT_EQ(here.Send(Marked(51, kExperimental, kL2MaxFrame + 1)), -EMSGSIZE);
        }
        EXPECT_EQ(here.Send(Marked(marker + 100)), 60);
        if (marker == 40) here.Close();
    };
    std::vector<uint8_t> answers;
    for (uint8_t marker = 0; marker <= 40; ++marker) {
        EXPECT_EQ(there.Send(Marked(marker)), 60);
        answers.push_back(marker + 100);
    }
    EXPECT_TRUE(there.WaitFor(140));
    EXPECT_EQ(there.markers, answers);
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
