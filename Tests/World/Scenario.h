// A plan as it happens: the daemon on its simulated device, the neighbours, the callers, and what is kept of all of
// them for the invariants to look at.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Ostrel/Interface.h"
#include "Ostrel/System.h"

#include "Neighbours.h"
#include "Plan.h"
#include "Sim.h"

namespace sim {

class Scenario;

// Stands between the wire and an interface: what the interface is about to get is looked at first.
class Tap : public Station {
public:
    Tap(Scenario& ofScenario, size_t ofPort, Station& behind) : scenario(ofScenario), port(ofPort), interface(behind) {}
    void Receive(std::span<const uint8_t> frame) override;
    [[nodiscard]] bool IsBehind(const MAC& destination) const override { return interface.IsBehind(destination); }

    Scenario& scenario;
    const size_t port;
    Station& interface;
};

// An address that a client was granted, as the wire has it.
struct Grant {
    std::deque<Duration> acks;  // the latest
    Duration end{0};            // of the lease, at the latest
    Duration conflict{-1};      // the latest frame of another host that has it
};

// A lease that a server has granted, as the wire has it.
struct Holder {
    Octets client;
    MAC hardware{};
    Duration end{0};
};

// A slot of a server's books before the frame that is being handled.
struct SlotBefore {
    bool lives = false;
    MAC holder{};
    uint64_t key = 0;  // of the server's index
};

struct PortState {
    const Port* plan = nullptr;
    size_t number = 0;
    MAC mac{};
    std::string device;                    // what the device calls it
    Ostrel_InterfaceObj* iface = nullptr;  // null: not managed
    bool isThere = false;                  // in the device
    bool isUp = true;
    bool isShort = false;      // a frame was sent short, which ends a step of a role, until an action
    bool isDisturbed = false;  // in a way that by the plain rules only a hand-over mends
    Station* interface = nullptr;
    std::vector<std::unique_ptr<Tap>> taps;

    // Since it was handed over: what the wire has seen of it.
    struct Record {
        std::deque<Duration> clientFrames, selectorFrames, discovers, declines, candidates;
        std::map<IPv4, Grant> grants;
        std::map<IPv4, Holder> leases;
        std::vector<SlotBefore> before;
        uint64_t asked = 0, answered = 0, heardARP = 0, probes = 0;
        IPv4 held = 0;      // by the client, checked
        Duration since{0};  // it is
        IPv4 candidate = 0;
        bool booksMoved = false;
        uint32_t actions = 0;
        uint64_t frames = 0;
    } record;
};

struct Caller {
    std::string name;
    bool listens = false;
    bool reads = true;
    std::map<std::string, std::string> known;  // states, by the name of the interface
};

// What was tried, and for how long.
struct Tally {
    uint64_t events = 0;  // of the schedule
    uint64_t frames = 0;  // of ours
    uint64_t harm = 0;    // frames of mischief
    double deviceDays = 0;
    std::array<uint64_t, kWhats> faults{};
};

class Scenario {
public:
    explicit Scenario(const Plan& itsPlan);
    ~Scenario();
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    // What failed first, in words that begin with the invariant's name; "" when all of it holds to the end.
    std::string Run();
    static inline std::string failureOfEnd;  // of a world that has ended since: what the daemon has left behind
    Tally tally;

    // For the invariants. Ask is World::Call, which has no answer where the loop has ended.
    std::string Ask(std::string_view category, std::string_view method, std::string_view payload,
                    std::string_view caller = ":1.1");
    void Fail(const char* invariant, const std::string& what);
    [[nodiscard]] bool HasFailed() const { return !failure.empty(); }
    [[nodiscard]] bool IsAsleep();
    [[nodiscard]] bool IsPressed(const Port& port) const;  // its pool may be exhausted, until leases end
    [[nodiscard]] bool IsServed(const Port& port) const;   // in calm there is a server for it

    const Plan plan;
    World world;
    Ostrel_SystemObj system{};
    std::vector<PortState> ports;
    std::vector<Caller> callers;
    std::vector<std::unique_ptr<Neighbour>> neighbours;  // by bystander; null where it is cut out, or a router
    std::unique_ptr<Router> router;
    bool postsMayBeLost = false;
    bool isCalm = false;
    size_t blocksOfStart = 0;

private:
    friend class Tap;
    void AddNeighbours();
    void AddNeighbour(size_t number);
    void Start();
    void Stop();
    void Restart(uint32_t givesBack);
    void Seat(PortState& port);  // puts the interface into the device
    void Unseat(PortState& port);
    bool HandOver(PortState& port, const std::string& leases = "");
    void Release(PortState& port);
    [[nodiscard]] std::string RequestFor(const PortState& port, const std::string& leases) const;
    void NoteShort(PortState& port);
    bool Act(PortState& port, uint32_t word);
    void Subscribe(Caller& caller);
    void Learn(Caller& caller);
    void Drain();
    bool RunUntil(Duration end);

    void Happen(const Event& event);
    void HappenToPort(const Event& event, PortState& port);
    void HappenToDevice(const Event& event, PortState& port);
    void Operate(const Event& event, PortState& port);
    void HappenToCaller(const Event& event, Caller& caller);
    void HappenToBystander(const Event& event);
    void TalkNonsense(const Event& event, const Caller& caller);
    void FailCalls(const Event& event);
    void CalmDown();
    void CalmPort(PortState& port);
    void CheckEnd();

    void AfterEvent();
    void Before(PortState& port, std::span<const uint8_t> frame);
    void OnSend(const Station& interface, std::span<const uint8_t> frame);

    std::vector<Segment*> wires;
    std::string failure;
    bool isRunning = false;
};

[[nodiscard]] constexpr IPv4 SubnetOf(uint32_t segment) {
    return 0x0A000000 + ((segment + 1) << 16);
}

}  // namespace sim
