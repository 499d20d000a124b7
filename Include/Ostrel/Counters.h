// What the roles have counted since their interface was handed over: one list that the code, the bus and ostrelctl
// share. A counter is a plain field beside the code that counts, and is never reset.
#pragma once

#include <array>
#include <cstdint>

#include "Ostrel/Verdict.h"

// A counter's key on the bus, its place, and what it counts. Of a frame that was dropped, `dropped` has the reason.
template <typename Counters>
struct Ostrel_CounterName {
    const char* name;
    uint64_t Counters::*field;
    const char* help;
};
using Ostrel_DropCounters = std::array<uint64_t, kNumVerdicts>;  // by Ostrel_VerdictKind; that of Taken stays 0

struct Ostrel_ClientCounters {
    uint64_t discoverSent;
    uint64_t requestSent;
    uint64_t declineSent;
    uint64_t releaseSent;
    uint64_t offerReceived;
    uint64_t ackReceived;
    uint64_t nakReceived;
    uint64_t leasesHeld;
    uint64_t leasesLost;
    uint64_t conflicts;
    Ostrel_DropCounters dropped;
};
inline constexpr std::array<Ostrel_CounterName<Ostrel_ClientCounters>, 10> kClientCounters{{
    {"discoverSent", &Ostrel_ClientCounters::discoverSent, "DHCPDISCOVERs sent"},
    {"requestSent", &Ostrel_ClientCounters::requestSent, "DHCPREQUESTs sent"},
    {"declineSent", &Ostrel_ClientCounters::declineSent, "DHCPDECLINEs sent"},
    {"releaseSent", &Ostrel_ClientCounters::releaseSent, "DHCPRELEASEs sent"},
    {"offerReceived", &Ostrel_ClientCounters::offerReceived, "DHCPOFFERs taken"},
    {"ackReceived", &Ostrel_ClientCounters::ackReceived, "DHCPACKs taken"},
    {"nakReceived", &Ostrel_ClientCounters::nakReceived, "DHCPNAKs taken"},
    {"leasesHeld", &Ostrel_ClientCounters::leasesHeld, "times that an address came into use"},
    {"leasesLost", &Ostrel_ClientCounters::leasesLost, "times that it went out of use"},
    {"conflicts", &Ostrel_ClientCounters::conflicts, "ARP frames of hosts that had the address"},
}};

struct Ostrel_ServerCounters {
    uint64_t discoverReceived;
    uint64_t requestReceived;
    uint64_t declineReceived;
    uint64_t releaseReceived;
    uint64_t informReceived;
    uint64_t offerSent;
    uint64_t ackSent;
    uint64_t nakSent;
    uint64_t leasesGranted;
    uint64_t leasesRenewed;
    uint64_t leasesExpired;
    uint64_t addressesHeld;
    Ostrel_DropCounters dropped;
};
inline constexpr std::array<Ostrel_CounterName<Ostrel_ServerCounters>, 12> kServerCounters{{
    {"discoverReceived", &Ostrel_ServerCounters::discoverReceived, "DHCPDISCOVERs received"},
    {"requestReceived", &Ostrel_ServerCounters::requestReceived, "DHCPREQUESTs received"},
    {"declineReceived", &Ostrel_ServerCounters::declineReceived, "DHCPDECLINEs received"},
    {"releaseReceived", &Ostrel_ServerCounters::releaseReceived, "DHCPRELEASEs received"},
    {"informReceived", &Ostrel_ServerCounters::informReceived, "DHCPINFORMs received"},
    {"offerSent", &Ostrel_ServerCounters::offerSent, "DHCPOFFERs sent"},
    {"ackSent", &Ostrel_ServerCounters::ackSent, "DHCPACKs sent"},
    {"nakSent", &Ostrel_ServerCounters::nakSent, "DHCPNAKs sent"},
    {"leasesGranted", &Ostrel_ServerCounters::leasesGranted, "leases granted"},
    {"leasesRenewed", &Ostrel_ServerCounters::leasesRenewed, "leases confirmed or extended"},
    {"leasesExpired", &Ostrel_ServerCounters::leasesExpired, "leases that ended by time"},
    {"addressesHeld", &Ostrel_ServerCounters::addressesHeld, "addresses held back, as somebody else has them"},
}};

// Of the interface: its ARP frames, whichever role they are for.
struct Ostrel_ARPCounters {
    uint64_t requestSent;
    uint64_t received;
    uint64_t clientConflicts;
    uint64_t linkLocalConflicts;
    uint64_t serverConflicts;
    Ostrel_DropCounters dropped;
};
inline constexpr std::array<Ostrel_CounterName<Ostrel_ARPCounters>, 5> kARPCounters{{
    {"requestSent", &Ostrel_ARPCounters::requestSent, "probes and announcements sent"},
    {"received", &Ostrel_ARPCounters::received, "ARP frames received"},
    {"clientConflicts", &Ostrel_ARPCounters::clientConflicts, "frames of hosts that had the client's address"},
    {"linkLocalConflicts", &Ostrel_ARPCounters::linkLocalConflicts, "frames of hosts that had the link-local address"},
    {"serverConflicts", &Ostrel_ARPCounters::serverConflicts, "frames of hosts that had an address of the range"},
}};
