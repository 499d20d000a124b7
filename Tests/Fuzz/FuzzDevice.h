// The device under a fuzz target: a World of its own for each input, with the running daemon, a server that it may get
// leases from, and a neighbour that sends what the input says.
//
// What an input does depends on nothing that came before. It must leave nothing behind, and every frame that it
// provokes must be well formed.
#pragma once

#include "Ostrel/Interface.h"
#include "Ostrel/System.h"

#include "Internals.h"
#include "Peers.h"

namespace sim {

constexpr MAC kFuzzMAC{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr MAC kFuzzNeighbour{0x02, 0, 0, 0, 0, 0x66};
constexpr uint32_t kFuzzLease = 3600;  // seconds
constexpr size_t kMostMoments = 600;   // of an input at which something happens; then its time stands still

class FuzzDevice {
public:
    FuzzDevice();
    ~FuzzDevice();  // what had failed works again, and the daemon is stopped
    FuzzDevice(const FuzzDevice&) = delete;
    FuzzDevice& operator=(const FuzzDevice&) = delete;

    // Somebody is subscribed to all that is told of from here on.
    void Listen();
    // What is asked of the daemon must be answered with an object, or the bus must have refused it. Its loop may have
    // ended, for want of interfaces or of a timeout; then nobody answers, and no time passes.
    std::string Ask(std::string_view category, std::string_view method, std::string_view payload,
                    std::string_view caller = ":1.1");
    void Inject(std::span<const uint8_t> frame);  // onto the wire, from a neighbour
    void Pass(Duration time);
    void PassMoments(size_t count);  // to the next moment at which something happens, and so on
    [[nodiscard]] bool IsWorn() const { return moments * 2 > kMostMoments; }  // since the last Mend
    // Nothing fails from here on, and what failed is as it was; but for an interface that was renamed or changed.
    void Mend();
    void Check(bool holds, const std::string& what) const;

    World world;  // "eth1" is there too, for whoever makes it
    Segment& wire;
    ScriptedServer server;
    size_t framesSent = 0;  // by the daemon
    Ostrel_SystemObj system{};

private:
    ArpHost neighbour;
    size_t moments = 0;
};

[[nodiscard]] bool IsObject(const std::string& text);

}  // namespace sim
