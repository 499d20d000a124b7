// The daemon on a simulated device, and the words in which tests speak to it.
#pragma once

#include <gtest/gtest.h>
#include <initializer_list>
#include <utility>

#include "Ostrel/System.h"

#include "Peers.h"
#include "Sim.h"
#include "valdo.h"

namespace sim {

using namespace std::chrono_literals;

constexpr MAC kClientMAC{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr MAC kOtherMAC{0x02, 0, 0, 0, 0, 0x77};

using Seconds = std::vector<int64_t>;

// How much of a test is run: what that variable of the environment wishes, or what is usual.
size_t Wished(const char* variable, size_t usual);

// Every frame that the daemon sends from now on must have right lengths and checksums.
void CheckEveryFrame(World& world);

// The client's lease as a reply or post tells it.
struct LeaseReport {
    std::string address;  // "" when there is none in it
    std::string text;     // all of it, as JSON

    static LeaseReport From(const std::string& json);
    [[nodiscard]] bool Says(std::string_view part) const { return text.find(part) != std::string::npos; }
};

using Members = std::initializer_list<std::pair<std::string_view, valdo::JValue>>;

// The running daemon; stopped, at the latest, when this goes.
class Daemon {
public:
    Daemon();
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    Ostrel_Status Stop();

    // Each: whether the reply says "returnValue": true. Initialize asks for a dhcp client; `wishes` add to that or
    // replace parts of it.
    bool Initialize(std::string_view ifname, Members wishes = {});
    bool Finalize(std::string_view ifname) { return Ask("/", "interfaceFinalize", {{"interface", ifname}}); }
    bool LeaseAction(std::string_view ifname, std::string_view action) {
        return Ask("/client", "leaseAction", {{"interface", ifname}, {"leaseAction", action}});
    }

    LeaseReport Lease();

    Ostrel_SystemObj system{};

private:
    static bool Ask(std::string_view category, std::string_view method, Members keys, Members wishes = {});
    bool running = false;
};

// The usual scene: one segment, the daemon with a dhcp client on eth0, idle, and a subscriber to its leases.
class Lan {
public:
    explicit Lan(uint64_t seed = 1, Members wishes = {});
    ~Lan();

    World world;
    Segment& wire;
    Station& eth0;
    Daemon daemon;

    bool Init() { return daemon.LeaseAction("eth0", "init"); }
    bool RunFor(Duration duration) { return world.RunFor(duration); }
    LeaseReport Lease() { return daemon.Lease(); }
    [[nodiscard]] std::vector<DHCPMessage> Sent(MessageType type) const;
    // Moments at which eth0 sent such a message, in seconds.
    [[nodiscard]] Seconds SentAt(MessageType type) const;
    [[nodiscard]] std::vector<ARPFrame> SentARP() const;
    [[nodiscard]] size_t FramesSent() const;  // by eth0
};

}  // namespace sim
