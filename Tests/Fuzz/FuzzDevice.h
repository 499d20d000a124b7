// One device for all inputs of a fuzz target: a World with the running daemon, and a neighbour that sends the inputs.
//
// Each input finds a freshly made interface and an unseeded generator, so that what it does depends on nothing that
// came before; each must leave nothing behind, and every frame that it provokes must be well formed.
#pragma once

#include "Ostrel/Interface.h"
#include "Ostrel/System.h"

#include "Peers.h"

namespace sim {

class FuzzDevice {
public:
    FuzzDevice();
    ~FuzzDevice() { (void)Ostrel_DaemonStop(&system); }
    FuzzDevice(const FuzzDevice&) = delete;
    FuzzDevice& operator=(const FuzzDevice&) = delete;

    // Makes the interface "eth0", runs `input` with it, takes every interface away and looks for what is left.
    void Run(const Ostrel_InterfaceConfig& config, const std::function<void(Ostrel_InterfaceObj& iface)>& input);
    // From here on, until the next Run is over: somebody is subscribed to all that is told of frames. It is slow, so
    // that only some inputs should have it.
    void Listen();
    void Inject(std::span<const uint8_t> frame);  // onto the wire, from a neighbour
    void Check(bool holds, const std::string& what) const;

    World world;  // "eth1" is there too, for whoever makes it
    Segment& wire;
    ScriptedServer server;
    size_t framesSent = 0;  // by the daemon

private:
    ArpHost neighbour;
    Ostrel_SystemObj system{};
    size_t blocksAtRest = 0;
};

constexpr MAC kFuzzMAC{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr MAC kFuzzNeighbour{0x02, 0, 0, 0, 0, 0x66};
constexpr uint32_t kFuzzLease = 3600;  // seconds

// The configuration of a role, with addresses that suit it.
[[nodiscard]] Ostrel_InterfaceConfig FuzzConfig(uint32_t mode, uint32_t configMode);

// What the first byte of an input says of the frame that follows.
constexpr uint8_t kFlagPatch = 0x08;        // gets the xid and chaddr of `head`
constexpr uint8_t kFlagOptionsOnly = 0x10;  // is only the options behind the rest of `head`
constexpr uint8_t kFlagTwice = 0x80;        // comes twice

[[nodiscard]] Frame FuzzFrame(std::span<const uint8_t> input, const DHCPMessage& head);

}  // namespace sim
