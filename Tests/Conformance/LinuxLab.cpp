// The lab on this machine's kernel and a bus daemon of its own: a pair of virtual Ethernet interfaces in a network
// namespace of the process's own. Needs root.
#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <glib.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <map>
#include <net/if.h>
#include <optional>
#include <sched.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "Lab.h"
#include "Platform/PrivateBus.h"
#include "eloop.h"

namespace lab {
namespace {

void Shell(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;  // NOLINT(cert-env33-c): the commands are this file's own
}

// Once for the process: each processor has its own queue of frames, and on one their order holds.
void EnterNamespace() {
    static const bool entered = [] {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        return unshare(CLONE_NEWNET) == 0 && sched_setaffinity(0, sizeof one, &one) == 0;
    }();
    ASSERT_TRUE(entered) << "needs root";
    Shell("sysctl -q -w net.ipv6.conf.default.disable_ipv6=1 2>/dev/null || true");
}

// Somebody else on the bus, driven from the same thread.
struct Caller {
    Caller() {
        sd_bus_open_system(&bus);
        sd_bus_add_filter(bus, nullptr, OnMessage, this);
    }
    ~Caller() { sd_bus_flush_close_unref(bus); }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    static int OnAnswer(sd_bus_message* reply, void* context, sd_bus_error*) {
        const sd_bus_error* const error = sd_bus_message_get_error(reply);
        const char* text = "no text";
        if (error == nullptr) sd_bus_message_read_basic(reply, SD_BUS_TYPE_STRING, &text);
        const std::string name = error == nullptr ? "" : error->name;
        *static_cast<std::optional<std::string>*>(context) =
            error == nullptr ? std::string(text) : name.substr(name.rfind('.') + 1);
        return 0;
    }
    static int OnMessage(sd_bus_message* message, void* context, sd_bus_error*) {
        const char* text = "no text";
        if (sd_bus_message_is_signal(message, nullptr, "leaseInformationUpdate") <= 0) return 0;
        sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text);
        static_cast<Caller*>(context)->posts.push_back(sd_bus_message_get_path(message) + std::string(" ") + text);
        return 0;
    }
    sd_bus* bus = nullptr;
    std::vector<std::string> posts;
};

}  // namespace

struct Lab::State {
    PrivateBus bus;
    std::map<std::string, std::unique_ptr<Caller>> callers;
    int there = -1;  // a packet socket of the station

    Caller& CallerOf(const std::string& name) {
        auto& caller = callers[name];
        if (caller == nullptr) caller = std::make_unique<Caller>();
        return *caller;
    }
    void Listen() {
        there = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(kExperimental);
        address.sll_ifindex = static_cast<int>(if_nametoindex("there"));
        EXPECT_EQ(bind(there, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    void StopListening() {
        if (there >= 0) close(std::exchange(there, -1));
    }
    void Read(std::vector<Frame>& heard) const {
        Frame frame(8192);
        for (ssize_t length = recv(there, frame.data(), frame.size(), 0); length > 14;
             length = recv(there, frame.data(), frame.size(), 0))
            heard.emplace_back(frame.begin(), frame.begin() + length);
    }
};

Lab::Lab() : state(std::make_unique<State>()) {
    EnterNamespace();
    PutBack("here");
    EXPECT_EQ(eloop_init(this), 0);
}
Lab::~Lab() {
    state->StopListening();
    eloop_destroy();
    Shell("ip link del there 2>/dev/null || true");
}

// Until the kernel has noticed that the cable leads somewhere, it takes frames and drops them.
void Lab::SetUp(const std::string& ifname, bool up) {
    Shell("ip link set " + ifname + (up ? " up" : " down"));
    if (!up) return;
    Shell("n=0; until ip link show " + ifname +
          " | grep -q 'state UP'; do n=$((n + 1)); [ $n -lt 500 ] || exit 1; sleep 0.02; done");
}
void Lab::PlugIn(bool plugged) {
    Shell(plugged ? "ip link set there up" : "ip link set there down");
    if (plugged) SetUp("here", true);
}
void Lab::Rename(const std::string& from, const std::string& to) {
    Shell("ip link set " + from + " name " + to);
}
void Lab::ChangeMAC(const std::string& ifname, const MAC& mac) {
    std::array<char, 18> text{};
    std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    Shell("ip link set " + ifname + " address " + text.data());
}
void Lab::Remove(const std::string& ifname) {
    state->StopListening();
    Shell("ip link del " + ifname);
}
void Lab::PutBack(const std::string& ifname) {
    const std::string mtu = " mtu " + std::to_string(kMTU);
    Shell("ip link add " + ifname + mtu + " address 02:00:00:00:00:01 type veth peer name there" + mtu);
    Shell("ip link set there up");
    SetUp(ifname, true);
    state->Listen();
}
void Lab::Send(const Frame& frame) {
    EXPECT_EQ(send(state->there, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size())) << strerror(errno);
}

bool Lab::RunUntil(const std::function<bool()>& isSo) {
    const gint64 deadline = g_get_monotonic_time() + gint64{10} * G_USEC_PER_SEC;
    while (!isSo()) {
        if (g_get_monotonic_time() > deadline) return false;
        bool busy = g_main_context_iteration(nullptr, FALSE) != FALSE;
        if (state->there >= 0) state->Read(heard);
        for (const auto& [name, caller] : state->callers) busy = sd_bus_process(caller->bus, nullptr) > 0 || busy;
        if (!busy) g_usleep(100);
    }
    return true;
}
void Lab::Raise(int signal) {
    raise(signal);
}

std::string Lab::Call(const std::string& caller, const std::string& category, const char* method,
                      const std::string& request) {
    const std::string interface = "org.ostrel.dhcp" + (category == "/" ? "" : "." + category.substr(1));
    std::optional<std::string> answer;
    EXPECT_GE(sd_bus_call_method_async(state->CallerOf(caller).bus, nullptr, "org.ostrel.dhcp", category.c_str(),
                                       interface.c_str(), method, Caller::OnAnswer, &answer, "s", request.c_str()),
              0);
    EXPECT_TRUE(RunUntil([&] { return answer.has_value(); }));
    return answer.value_or("no answer");
}
void Lab::Leave(const std::string& caller) {
    state->callers.erase(caller);
}
std::vector<std::string> Lab::Posts(const std::string& caller) {
    (void)Call(caller, "/", "echo", "");  // what was posted before has been read by then
    return std::exchange(state->CallerOf(caller).posts, {});
}

}  // namespace lab
