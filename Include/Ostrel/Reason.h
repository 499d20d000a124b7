// Why a role is in its state: the word that subscribers, the log and ostrelctl have for it.
#pragma once

#include <cstdint>

enum class Ostrel_Reason : uint8_t {
    Start,      // the interface has just been handed over
    Action,     // a caller asked for it
    Offer,      // a server has offered an address
    Ack,        // a server has granted or extended the lease
    Checked,    // the ARP check is over, and nobody else has the address
    Timeout,    // nobody answered in time
    Renewal,    // T1 of the lease
    Rebinding,  // T2 of the lease
    Expired,    // the lease is over
    Nak,        // a server has refused
    Conflict,   // another host has the address
    Malformed,  // a DHCPACK that could not be read
    Link,       // the link was lost, or is back
    Removed,    // the interface was taken out of the device
    WakeUp,     // the device was suspended
    Lease,      // the client of the interface has a lease, or has lost it: of a fallback selector
    Finalised,  // the interface is no longer managed
};
constexpr uint32_t kNumReasons = 17;

// "start", "action" and so on, as they are named here, in lower case; "t1" and "t2" for those of a lease.
[[nodiscard]] const char* Ostrel_ReasonWord(Ostrel_Reason reason);
