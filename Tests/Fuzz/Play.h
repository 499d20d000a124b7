// The input of fuzz_play: a scene to begin from, and what happens then, step by step.
//
// As bytes: the scene, its flags, and for each step its kind, its argument, the size of its data in two bytes, the low
// one first, and the data. Any bytes can be read so.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace sim::fuzz {

enum class StepKind : uint8_t {
    FromServer,  // a frame to the client; the data is its options, or all of it
    FromClient,  // a frame to the server
    ARP,
    Wait,
    Moments,  // so many moments at which something happens
    Action,   // asked of the daemon
    Device,   // links, sleep, clocks, what is taken out and put back
    Script,   // what the server of the client does from here on; the data is options of its answers
    Fail,     // of the device
    kCount
};

// Arguments of FromServer and FromClient.
constexpr uint8_t kWhole = 0x01;     // the data is the whole frame
constexpr uint8_t kStranger = 0x02;  // such a frame keeps its own xid and chaddr
constexpr uint8_t kBroken = 0x04;    // lengths and checksums stay as they are
constexpr uint8_t kTwice = 0x08;
constexpr uint8_t kLiveAddress = 0x10;  // yiaddr, ciaddr: what the client has or asks for
constexpr uint8_t kOther = 0x20;        // another server; relayed
constexpr uint8_t kStation = 0xC0;      // of FromClient: which client, 0 to 3; of FromServer 0x40: unicast

// Arguments of ARP.
constexpr uint8_t kSender = 0x03;  // 0: the data's, 1: the client's address, 2: the selector's, 3: the server's
constexpr uint8_t kTarget = 0x0C;  // likewise
constexpr uint8_t kRepeated = 0x10;
constexpr uint8_t kOurMAC = 0x20;
constexpr uint8_t kWholeARP = 0x40;

struct Step {
    StepKind kind;
    uint8_t argument;
    std::vector<uint8_t> data;
};

// Flags of a scene.
constexpr uint8_t kRFC = 0x01;
constexpr uint8_t kListened = 0x02;
constexpr uint8_t kValues = 0x04;     // the keys beside the usual ones
constexpr uint8_t kManual = 0x08;     // the client's address; the server has its leases back
constexpr uint8_t kLinkLocal = 0x10;  // beside the client
constexpr uint8_t kFallback = 0x20;   // that is one
constexpr uint8_t kUnchecked = 0x40;  // addresses
constexpr uint8_t kTalkative = 0x80;  // everything is logged

struct Play {
    uint8_t scene;
    uint8_t flags;
    std::vector<Step> steps;
};

[[nodiscard]] Play ReadPlay(std::span<const uint8_t> bytes);
[[nodiscard]] std::vector<uint8_t> WritePlay(const Play& play);

}  // namespace sim::fuzz
