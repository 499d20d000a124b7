// A device and its network inside one process: what a test holds in its hands while the daemon's code runs unchanged on
// the other side of Platform/Include.
//
// There is one World at a time. Time is virtual: it moves only in RunFor, from event to event, so days pass in
// milliseconds. Events at the same moment happen in the order in which they were made. Everything random comes from the
// world's seed, and the C library's generator is put back to its unseeded state: one seed, one trace.
//
// Not thread-safe; nothing here is meant for production.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

using MAC = std::array<uint8_t, 6>;
using Frame = std::vector<uint8_t>;
using Duration = std::chrono::microseconds;

// What the wire does to each copy of a frame on its way to one station; probabilities in 1/1000.
struct Faults {
    uint32_t loss = 0;
    uint32_t duplication = 0;  // a second copy is delivered
    uint32_t delay = 0;        // this copy is late by up to `maximumDelay`, so frames may overtake each other
    Duration maximumDelay{0};
};

class Segment;

// Something attached to a segment: an interface of the daemon, or a scripted peer.
class Station {
public:
    virtual ~Station() = default;
    // Each frame that another station sent, as delivered; `frame` is valid during the call.
    virtual void Receive(std::span<const uint8_t> frame) = 0;
    // Whether a switch would forward a frame for this address to it.
    [[nodiscard]] virtual bool IsBehind(const MAC& /*destination*/) const { return true; }
};

// A frame as it went onto the wire, whatever became of it.
struct SentFrame {
    Duration time;  // virtual time since the world began
    const Station* sender;
    Frame bytes;
};

// One Ethernet broadcast domain. Every frame reaches every other station after `latency`, as on a hub: peers and the
// daemon's programs decide what concerns them. A `switched` segment spares an interface the frames for other addresses.
class Segment {
public:
    void Attach(Station& station);
    void Detach(Station& station);  // frames on their way to it are lost
    void Send(const Station& sender, std::span<const uint8_t> frame);

    Faults faults;
    bool switched = false;
    Duration latency{10};
    std::function<bool(const Station& sender, const Station& receiver, std::span<const uint8_t> frame)>
        drop;                     // true: lost
    std::vector<SentFrame> sent;  // the wire's memory, for a test to look at
    size_t sentLimit = 65536;     // of it at least the last so many frames are kept; 0: none

private:
    void Remember(const Station& sender, const Frame& frame);
    void Deliver(const std::shared_ptr<const Frame>& frame, std::span<Station* const> receivers);

    std::vector<Station*> stations;
    uint64_t detachments = 0;
};

enum class SendFault : uint8_t { None, Short, Error };

// What the daemon asks of the device, as far as it may be refused. What it gets then stands in Platform/Include.
enum class DeviceCall : uint8_t {
    Allocate,    // os_zalloc
    Send,        // l2_packet_send: the queue is full (ENOBUFS)
    Timeout,     // eloop_register_timeout and eloop_register_timeout_rtc
    OpenSocket,  // l2_packet_init
    Filter,      // l2_packet_install_filter
    HoldPort,    // os_hold_port
    Watch,       // os_watch_device
    Link,        // os_link_of, os_link_at: no interface is seen; os_is_own_address: none is
    Loop,        // eloop_init, eloop_register_signal_terminate
    Attach,      // VSRegister, VSRegisterCategory, VSGmainAttach
    Reply,       // VSMessageReply
    Post,        // one message to one subscriber, of VSSubscriptionPost and VSSubscriptionTell
    Subscribe,   // VSSubscriptionProcess: that the caller leaves would not be noticed
    Ask,         // the bus is not asked what a peer has read; not a call of the daemon, and tried again later
    kCount
};
constexpr auto kDeviceCalls = static_cast<size_t>(DeviceCall::kCount);
[[nodiscard]] const char* NameOf(DeviceCall call);

struct LogLine {
    Duration time;
    bool systemLog;  // QxLog rather than debug output
    int32_t level;
    std::string text;
};

struct Post {
    Duration time;
    std::string subscriber;
    std::string category;
    std::string method;
    std::string payload;
};

class World {
public:
    explicit World(uint64_t seed = 1);
    ~World();  // a failure when a timeout, a socket or an allocation of the daemon is left
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    static World& Get();      // there must be one
    static World* Current();  // or null

    // What a test must fail for, with the seed and the moment. Unset: the text goes to standard error, and abort().
    static inline std::function<void(const std::string&)> onFailure;
    void Fail(const std::string& what) const;

    // Time. RunFor handles every event up to and including that moment; false when the loop was terminated meanwhile.
    [[nodiscard]] Duration Now() const;
    bool RunFor(Duration duration);
    void At(Duration delay, std::function<void()> action);  // a scripted event
    [[nodiscard]] uint32_t MonotonicSeconds() const;        // what the daemon's clock says now
    std::function<void()> afterEvent;                       // of whatever kind, when all that it did is done
    [[nodiscard]] Duration TimeAwake() const;               // of the time since the world began
    // The device sleeps from now on, until that time is over or an alarm is due: its plain timeouts and its monotonic
    // clock stand still, and what is sent to it is lost.
    void Suspend(Duration duration);
    int64_t wallStart = 1'780'000'000;      // wall clock at the beginning; changed: it was set
    int64_t zoneSeconds = 0;                // local time is so far ahead of UTC
    uint32_t monotonicStart = 1000;         // monotonic clock at the beginning
    [[nodiscard]] bool Terminated() const;  // RunFor then does nothing until the loop is made anew
    void Raise(int signal);                 // SIGTERM or SIGINT, delivered through the loop

    // Network.
    Segment& AddSegment();
    Station& AddInterface(const std::string& ifname, const MAC& mac, Segment& segment, uint32_t mtu = 1500);
    void RemoveInterface(const std::string& ifname);   // open sockets on it stay, dead; added again it has a new index
    void SetLink(const std::string& ifname, bool up);  // while down sends fail and nothing is received
    void SetCarrier(const std::string& ifname, bool plugged);   // while there is none sends succeed, and are lost
    void ChangeMAC(const std::string& ifname, const MAC& mac);  // what sockets have read of it stays
    void RenameInterface(const std::string& ifname, const std::string& newName);
    std::vector<MAC> ownAddresses;    // of interfaces that the device has beside those of this world
    bool interfacesAreHosts = false;  // each interface stands for a device of its own: none knows another's address
    bool portsMayBeHeld = true;
    [[nodiscard]] bool IsPortHeld(const std::string& ifname, uint16_t port) const;
    [[nodiscard]] bool IsWatched() const;  // the daemon is told of links and sleep
    void FailSends(const std::string& ifname, SendFault fault, uint32_t count);  // the next `count` sends of any socket
    bool rawSocketsAllowed = true;
    std::function<void(std::span<const uint8_t> frame)> onSend;  // each frame that an interface puts on its wire
    size_t framesTooLong = 0;                                    // for the interface that was to send them
    // The same in every world, whatever a test does with the other: for what holds in all of them.
    static inline std::function<void(const Station& interface, std::span<const uint8_t> frame)> onEverySend;

    // Refusals: of the calls of one kind the nth from now (1: the next; 0: none) and those after it fail, and of all
    // others each by its chance in 1/1000. The chances are drawn from a generator of their own, only where there is
    // one.
    void FailCall(DeviceCall call, size_t nth, size_t count = 1);
    [[nodiscard]] bool IsFailurePending(DeviceCall call) const;  // the first one asked for has not come yet
    [[nodiscard]] size_t CallsMade(DeviceCall call) const;       // since the world began
    [[nodiscard]] size_t CallsRefused(DeviceCall call) const;    // of them
    [[nodiscard]] size_t CallsRefused() const;                   // of all kinds
    std::array<uint32_t, kDeviceCalls> chanceOfFailure{};

    // Memory: blocks not yet given back; FailAllocation is FailCall of os_zalloc.
    void FailAllocation(size_t nth) { FailCall(DeviceCall::Allocate, nth); }
    [[nodiscard]] bool AllocationFailurePending() const { return IsFailurePending(DeviceCall::Allocate); }
    [[nodiscard]] size_t LiveAllocations() const;
    [[nodiscard]] size_t PendingTimeouts() const;  // timeouts and alarms
    bool failTimeouts = false;                     // registering one fails
    [[nodiscard]] size_t OpenSockets() const;

    // Bus. Call runs the method at once and returns its reply; without one, "" and the name of the error that the
    // caller gets instead in `callError`, which is empty otherwise.
    std::string Call(std::string_view category, std::string_view method, std::string_view payload,
                     std::string_view caller = ":1.1");
    void LeaveBus(std::string_view caller);  // its subscriptions are cancelled
    void LoseBus();                          // the connection breaks
    // From here on `caller` takes nothing that it is sent, until it reads again or leaves.
    void StopReading(std::string_view caller);
    void ReadAgain(std::string_view caller);
    [[nodiscard]] size_t UnreadBytes(std::string_view caller) const;  // sent to one that does not read
    [[nodiscard]] size_t BusAccounts() const;  // callers and subscribers that the service remembers
    std::string callError;
    std::vector<Post> posts;  // as read
    bool busCounts = true;    // the bus tells what waits in it for a peer
    bool nameTaken = false;   // registration fails
    bool failPosts = false;
    bool failReplies = false;

    // Output of the daemon, filtered by its own levels.
    bool keepLog = true;
    std::vector<LogLine> log;
    [[nodiscard]] bool Logged(std::string_view part) const;

    // What happened: frames, posts and calls with their times. The hash is always kept; the words, one event a line,
    // only while `tracing`. Both are equal for equal seeds.
    bool tracing = false;
    [[nodiscard]] uint64_t TraceHash() const;
    [[nodiscard]] const std::string& Trace() const;
    // Seed, virtual time and the last frames in words: what a failing test prints.
    [[nodiscard]] std::string Describe() const;

    std::mt19937_64 random;
    std::mt19937_64 entropy;     // the device's, from the same seed
    std::mt19937_64 misfortune;  // likewise: which calls are refused

    struct State;  // the platform's side
    [[nodiscard]] State& Internals() { return *state; }

private:
    std::unique_ptr<State> state;
};

// A frame in words, for traces: "DHCPDISCOVER xid 01020304 0.0.0.0 -> 255.255.255.255 …", "ARP request …".
std::string DescribeFrame(std::span<const uint8_t> frame);

}  // namespace sim
