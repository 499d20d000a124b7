// Link-layer sockets, links and held ports: what Platform/Include promises of them, on both platforms.
//
// A test sends what must not be heard and then one frame that is, and waits for that: order on the wire makes up for a
// clock.
#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <utility>

#include "Lab.h"
#include "eloop.h"
#include "l2_packet.h"
#include "os_device.h"

namespace {

using namespace lab;

constexpr std::array<l2_filter_instruction, 4> kProgram{
    {{0x28, 0, 0, 12}, {0x15, 0, 1, kExperimental}, {0x06, 0, 0, 0xFFFFFFFF}, {0x06, 0, 0, 0}}};
constexpr MAC kEveryone{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

Frame Marked(uint8_t marker, size_t length = 60, uint16_t etherType = kExperimental, const MAC& to = kEveryone) {
    Frame frame(to.begin(), to.end());
    frame.insert(frame.end(), kThere.begin(), kThere.end());
    frame.insert(frame.end(), {static_cast<uint8_t>(etherType >> 8), static_cast<uint8_t>(etherType), marker});
    frame.resize(length);
    return frame;
}
Frame Tagged(uint8_t marker, uint16_t tag) {
    Frame frame = Marked(marker);
    frame.insert(frame.begin() + 12, {0x81, 0x00, static_cast<uint8_t>(tag >> 8), static_cast<uint8_t>(tag)});
    return frame;
}
using Markers = std::vector<uint8_t>;

// What one socket heard: the markers, in order.
struct Socket {
    explicit Socket(bool installs = true, const char* ifname = "here")
        : l2(l2_packet_init(ifname, nullptr, 3, Hear, this, 1)) {
        EXPECT_TRUE(l2 != nullptr && (!installs || l2_packet_install_filter(l2, kProgram) == 0));
    }
    ~Socket() { Close(); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    static void Hear(void* context, const uint8_t* source, std::span<const uint8_t> frame) {
        auto* const self = static_cast<Socket*>(context);
        EXPECT_TRUE(std::equal(kThere.begin(), kThere.end(), source));
        self->markers.push_back(frame[14]);
        self->lastLength = frame.size();
        self->also();
    }
    int Send(const Frame& frame) const { return l2_packet_send(l2, nullptr, 0, frame); }
    void Close() { l2_packet_deinit(std::exchange(l2, nullptr)); }

    l2_packet_data* l2;
    Markers markers;
    size_t lastLength = 0;
    std::function<void()> also = [] {};
};

class Link : public testing::Test {
protected:
    bool Hears(const Socket& socket, uint8_t marker) {
        return lab.RunUntil([&] { return !socket.markers.empty() && socket.markers.back() == marker; });
    }
    Markers HeardThere(uint8_t last) {
        EXPECT_TRUE(lab.RunUntil([&] { return !lab.heard.empty() && lab.heard.back()[14] == last; }));
        Markers markers;
        for (const Frame& frame : std::exchange(lab.heard, {})) markers.push_back(frame[14]);
        return markers;
    }
    Lab lab;
};

TEST_F(Link, ASocketHearsWholeFramesOfItsOwnThatItsProgramPasses) {
    for (const char* name : {"", "none", "here:1", "here/", "sixteencharsabcd"})
        EXPECT_EQ(l2_packet_init(name, nullptr, 3, Socket::Hear, nullptr, 1), nullptr) << name;
    EXPECT_EQ(l2_packet_init("here", nullptr, 3, Socket::Hear, nullptr, 0), nullptr) << "without a header";
    Socket late(false), socket;
    lab.Send(Marked(1));
    EXPECT_TRUE(Hears(socket, 1));
    ASSERT_EQ(l2_packet_install_filter(late.l2, kProgram), 0);
    const std::array<l2_filter_instruction, 1> invalid{{{0xFFFF, 0, 0, 0}}};
    EXPECT_LT(l2_packet_install_filter(socket.l2, invalid), 0) << "which leaves the one before";
    EXPECT_LT(l2_packet_install_filter(socket.l2, {}), 0);
    const std::vector<l2_filter_instruction> endless(kL2MaxProgram + 1, kProgram.back());
    EXPECT_LT(l2_packet_install_filter(socket.l2, endless), 0);
    EXPECT_EQ(l2_packet_install_filter(late.l2, std::span(endless).first(kL2MaxProgram)), 0) << "it drops all";
    ASSERT_EQ(l2_packet_install_filter(late.l2, kProgram), 0);
    lab.Send(Marked(2, 60, 0x88B6));
    lab.Send(Tagged(3, 5));
    lab.Send(Tagged(4, 0xE005));
    lab.Send(Tagged(5, 0xE000));  // a priority, no VLAN
    lab.Send(Marked(6, kL2MaxFrame + 1));
    lab.Send(Marked(7, 60, kExperimental, kOther));
    lab.Send(Marked(8, 60, kExperimental, kHere));
    lab.Send(Marked(9, kL2MaxFrame));
    EXPECT_TRUE(Hears(socket, 9) && Hears(late, 9));
    EXPECT_EQ(socket.lastLength, kL2MaxFrame);
    EXPECT_EQ(socket.markers, (Markers{1, 5, 8, 9}));
    EXPECT_EQ(late.markers, (Markers{5, 8, 9})) << "nothing from before it had a program";
}

TEST_F(Link, ASocketSendsWholeFramesAndDoesNotHearItsOwnHost) {
    const Socket here, sibling;
    EXPECT_EQ(here.Send(Marked(1, kMTU + 14)), static_cast<int>(kMTU + 14));
    EXPECT_EQ(here.Send(Marked(2, kMTU + 15)), -EMSGSIZE);
    EXPECT_LT(l2_packet_send(here.l2, kThere.data(), 0, Marked(3)), 0);
    EXPECT_LT(l2_packet_send(here.l2, nullptr, kExperimental, Marked(3)), 0);
    EXPECT_EQ(sibling.Send(Marked(4)), 60);
    EXPECT_EQ(HeardThere(4), (Markers{1, 4}));
    lab.Send(Marked(9));
    EXPECT_TRUE(Hears(here, 9) && Hears(sibling, 9));
    EXPECT_EQ(here.markers.size() + sibling.markers.size(), 2U);
    EXPECT_EQ(l2_packet_get_mtu(here.l2), kMTU);
    MAC address{};
    EXPECT_EQ(l2_packet_get_own_addr(here.l2, address), 0);
    EXPECT_EQ(address, kHere);
}

TEST_F(Link, ACallbackMayCloseSocketsAndSend) {
    Socket one, other;
    one.also = other.also = [&] {
        one.Close();
        other.Close();
    };
    Socket answers;
    answers.also = [&] {
        const uint8_t marker = answers.markers.back();
        EXPECT_EQ(answers.Send(Marked(marker + 100)), 60);
        EXPECT_EQ(answers.Send(Marked(50, kL2MaxFrame + 1)), -EMSGSIZE);
        if (marker == 40) answers.Close();
    };
    Markers expected;
    for (uint8_t marker = 0; marker <= 41; ++marker) {
        lab.Send(Marked(marker));
        if (marker <= 40) expected.push_back(marker + 100);
    }
    EXPECT_EQ(HeardThere(140), expected);
    EXPECT_EQ(one.markers.size() + other.markers.size(), 1U);
    const Socket last;
    lab.Send(Marked(99));
    EXPECT_TRUE(Hears(last, 99));
    EXPECT_TRUE(lab.heard.empty()) << "it is closed";
}

TEST_F(Link, ASocketOutlivesItsLinkAndItsInterface) {
    const Socket socket;
    for (const uint8_t round : {uint8_t{1}, uint8_t{2}}) {
        lab.SetUp("here", false);
        EXPECT_EQ(socket.Send(Marked(9)), -ENETDOWN);
        lab.SetUp("here", true);
        EXPECT_EQ(socket.Send(Marked(round)), 60);
        EXPECT_EQ(HeardThere(round), Markers{round});
        lab.Send(Marked(round));
        EXPECT_TRUE(Hears(socket, round));
    }
    lab.PlugIn(false);
    EXPECT_TRUE(lab.RunUntil([] { return !os_link_of("here").isRunning; }));
    EXPECT_EQ(socket.Send(Marked(3)), 60) << "without a carrier the kernel takes it, and drops it";
    lab.PlugIn(true);
    EXPECT_TRUE(lab.RunUntil([] { return os_link_of("here").isRunning; }));
    EXPECT_EQ(socket.Send(Marked(4)), 60);
    EXPECT_EQ(HeardThere(4), Markers{4});
    lab.Remove("here");
    EXPECT_LT(socket.Send(Marked(5)), 0);
    lab.PutBack("here");
    EXPECT_LT(socket.Send(Marked(6)), 0) << "that is another one";
    const Socket anew;
    EXPECT_EQ(anew.Send(Marked(7)), 60);
    EXPECT_EQ(HeardThere(7), Markers{7});
}

struct News {
    int32_t index;
    std::string name;
};
std::vector<News> told;

bool WasToldOf(std::string_view name) {
    return std::any_of(told.begin(), told.end(), [name](const News& news) { return news.name == name; });
}
constexpr os_device_watcher kWatcher{[](void*, int32_t index, const char* ifname) {
                                         told.push_back({index, ifname});
                                     },
                                     [](void*) { ADD_FAILURE() << "nothing sleeps here"; }, nullptr};

TEST_F(Link, TheDeviceTellsOfLinksThatChangeAndWhatTheyAre) {
    for (const char* name : {"", "none", "here:1", "sixteencharsabcd"}) EXPECT_FALSE(os_link_of(name).isThere) << name;
    const os_link before = os_link_of("here");
    EXPECT_TRUE(before.isThere && before.isRunning);
    EXPECT_EQ(before.address, kHere);
    EXPECT_STREQ(os_link_at(before.index).name.data(), "here");
    for (const int32_t none : {-1, 0, 1'000'000}) EXPECT_FALSE(os_link_at(none).isThere);
    const auto until = [&](const char* name, const std::function<bool(const os_link&)>& isSo) {
        EXPECT_TRUE(lab.RunUntil([&] { return WasToldOf(name) && isSo(os_link_of(name)); })) << name;
        told.clear();
    };

    ASSERT_EQ(os_watch_device(kWatcher), 0);
    lab.PlugIn(false);
    until("here", [](const os_link& link) { return link.isThere && !link.isRunning; });
    lab.PlugIn(true);
    until("here", [](const os_link& link) { return link.isRunning; });
    lab.SetUp("here", false);
    until("here", [](const os_link& link) { return link.isThere && !link.isRunning; });
    lab.ChangeMAC("here", kOther);
    until("here", [](const os_link& link) { return link.address == kOther; });
    EXPECT_TRUE(os_is_own_address(kOther) && !os_is_own_address(kHere));
    lab.Rename("here", "anew");
    until("anew", [&](const os_link& link) { return link.index == before.index; });
    EXPECT_FALSE(os_link_of("here").isThere);
    lab.Remove("anew");
    until("anew", [](const os_link& link) { return !link.isThere; });
    EXPECT_FALSE(os_link_at(before.index).isThere);
    lab.PutBack("here");
    until("here", [&](const os_link& link) { return link.isRunning && link.index != before.index; });
    os_unwatch_device();
    lab.SetUp("here", false);
    EXPECT_TRUE(lab.RunUntil([] { return !os_link_of("here").isRunning; }));
    EXPECT_TRUE(told.empty());
}

TEST_F(Link, APortIsHeldOnAnInterfaceThatIsThere) {
    EXPECT_EQ(os_hold_port("none", 6768), nullptr);
    const os_held_port held(os_hold_port("here", 6768)), beside(os_hold_port("here", 6769));
    EXPECT_TRUE(held != nullptr && beside != nullptr);
    const os_held_port again(os_hold_port("here", 6768));
    EXPECT_NE(again, nullptr) << "others may have it as well";
    os_release_port(nullptr);
}

}  // namespace
