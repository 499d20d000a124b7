// What became of a frame that was received or sent: taken, or the check that dropped it. Counters and the trace have
// it.
#pragma once

#include <cstdint>
#include <string>

enum class Ostrel_VerdictKind : uint8_t {
    Taken,         // it did what it is for, or was sent
    NotConcerned,  // nothing in it concerns the role: an ARP frame of others
    NotForUs,      // another client's hardware address
    TransactionID,
    State,        // the role does not wait for it
    Server,       // it is of another server, or for another one
    MessageType,  // nothing that this role handles
    Relay,        // of a subnet that the server does not serve
    Malformed,
    NoLease,    // the client has no such lease
    NoAddress,  // every address is in use
    Limited,    // the rules allow no more frames now: what was to be sent
    Failed,     // memory was out, or the frame could not be sent
};
constexpr uint32_t kNumVerdicts = 13;

struct Ostrel_Verdict {
    Ostrel_VerdictKind kind = Ostrel_VerdictKind::Taken;
    const char* state = nullptr;  // of State: its name; of Malformed: what is wrong, or null for an option's length
    uint8_t option = 0;           // of Malformed: the option at fault; 0: none
    uint32_t optionLength = 0;    // its bytes
};

// The key of its counter: "notForUs", "xid" and so on; "taken" for the first.
[[nodiscard]] const char* Ostrel_VerdictName(Ostrel_VerdictKind kind);

// In plain words: "taken", "not for us", "state BOUND", "malformed: option 51 has 3 bytes", "malformed: option 51 is
// missing", "malformed: no options".
[[nodiscard]] std::string Ostrel_VerdictText(const Ostrel_Verdict& verdict);
