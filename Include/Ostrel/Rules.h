// The rules that an interface lives by: two sets, and here is all in which they differ.
//
// The plain rules are what the daemon has always done, to the byte and to the second. The rfc rules are those of RFC
// 2131, 2132, 3927, 4361 and 5227, and what today's clients and servers do beside them. A caller chooses a set for an
// interface when it hands it over; the interface and its roles point to their rows, and the state machines ask them.
// Docs/rfc.md tells the reason of each difference.
#pragma once

#include <array>
#include <cstdint>

// Milliseconds unless a field says otherwise.
struct Ostrel_ClientRules {
    bool randomIsSecret;         // transaction ids and waits are drawn from the device's entropy, not the C library
                                 // (RFC 2131 section 4.1)
    uint32_t jitter;             // a wait is longer or shorter by up to so much (RFC 2131 section 4.1)
    uint32_t leaseFuzz;          // per cent by which T1 and T2 come earlier, at most (RFC 2131 section 4.4.5)
    bool discoverIsRepeated;     // where nobody offers: in the same transaction, for ever, rather than in a new one
                                 // after 2 to 512 s (RFC 2131 section 4.1)
    uint32_t firstRetry;         // how long an offer is waited for after the first DISCOVER (RFC 2131 section 4.1)
    uint32_t longestRetry;       // and, doubled each time, after later ones
    bool answersAreMatched;      // a DHCPACK to a chosen offer and a DHCPNAK count from the server asked, a DHCPNAK
                                 // also by its xid, and only where one is awaited (RFC 2131 sections 3.1, 4.4.5)
    uint32_t firstPause;         // after a DHCPNAK, or a lease that was over at once
    uint32_t longestPause;       // and, doubled each time until a lease has lasted, after later ones
    uint32_t declinePause;       // after a conflict, at least (RFC 2131 section 3.1, RFC 5227 section 2.1.1)
    bool malformedAckEndsLease;  // while it is extended
    bool valuesAreChecked;       // of a DHCPACK; what can be done without is left out (RFC 2131 section 4.4.5)
    bool messagesFollowTable5;   // secs is counted; renewals have ciaddr and go to option 54, DECLINEs are broadcast
                                 // and name address and server (RFC 2131 sections 4.3.6, 4.4.4, table 5)
    uint32_t leastMessage;       // bytes that a message is padded to (RFC 1542 section 2.1)
    bool actionsExtend;          // "renew" and "rebind" extend the lease that is held, rather than drop it
    uint32_t arpCheck;           // how long an address is checked before its lease counts, unless a caller says
    uint32_t probes;             // in that time (RFC 5227 section 1.1, PROBE_NUM)
    uint32_t announcements;      // after it (ANNOUNCE_NUM)
    bool extensionIsChecked;     // with ARP; RFC 5227 section 2.1 has it that a host must not
    bool anyARPFrameCounts;      // as a conflict, whose sender has the address, and probes of others; not those of the
                                 // device's own interfaces (RFC 5227 section 2.1.1)
    uint32_t defendInterval;     // in which a lease is defended once; 0: never (RFC 5227 section 2.4)
    bool timesAreTheServers;     // the lease's times count from the REQUEST, and while the device sleeps (RFC 2131
                                 // section 4.4.1)
    uint32_t mostPerSecond;      // frames, DHCP and ARP; 0: any number
    uint32_t mostPerMinute;      // likewise
};

struct Ostrel_LinkLocalRules {
    bool randomIsSecret;        // likewise, of the waits
    bool addressFollowsMAC;     // the same device chooses the same addresses in the same order (RFC 3927 section 2.1)
    uint32_t probeWait;         // before the first probe, at most (RFC 3927 section 9, PROBE_WAIT)
    uint32_t probeMin;          // between two probes (PROBE_MIN)
    uint32_t probeMax;          // likewise, at most (PROBE_MAX)
    bool announceWaitIsLonger;  // ANNOUNCE_WAIT begins as long after the last probe as another one would come
    uint32_t conflictPause;     // until another address is chosen, at most
    bool slowProbes;            // after MAX_CONFLICTS probes too are RATE_LIMIT_INTERVAL apart, not only addresses
    bool probesCount;           // of others for the same address, while it is probed; frames of the device's own
                                // interfaces never do (RFC 3927 section 2.2.1)
    uint32_t defendInterval;   // in which an address is defended once; 0: never (RFC 3927 section 2.5, DEFEND_INTERVAL)
    uint32_t forgetConflicts;  // when an address was held so long; 0: never (RFC 3927 section 2.2.1)
    bool endsAtOnce;           // with a conflict or "halt" the address is none any more, and no frame counts
    bool onlyHeldIsShown;      // an address is told once it is announced, and posted then and when it is given up
    uint32_t mostPerSecond;    // frames; 0: any number
    uint32_t mostPerMinute;    // likewise
};

struct Ostrel_ServerRules {
    bool knowsByIdentifier;   // a client is its option 61, or else its htype and chaddr, not who sent the frame (RFC
                              // 2131 section 4.2)
    bool discoverKeepsLease;  // a lease lives on while its client is offered it again (RFC 2131 section 4.3.1)
    bool remembersHolders;    // a DISCOVER gets the client's own address, its former one, the one that it asks for, one
                              // never leased, the one free for longest (RFC 2131 section 4.3.1); or else its own and
                              // the lowest free one
    bool renewalExtends;      // a granted REQUEST begins the whole time anew (RFC 2131 section 4.3.2)
    bool serverIsHeeded;      // what names another server in option 54 is left to it (RFC 2131 section 4.3.2)
    bool refusesUnknown;      // a REQUEST for an address of the subnet that isn't the server's to give is refused, or
                              // else left to whoever gave it (RFC 2131 section 4.3.2)
    bool declineHolds;        // a declined address is nobody's for kHoldTime (RFC 2131 section 4.3.3)
    bool informBinds;         // an INFORM takes a slot; or else it is told what there is (RFC 2131 section 4.3.5)
    bool timersAreSent;       // options 58 and 59 (RFC 2132 sections 9.11, 9.12)
    bool emptyIsSent;         // option 6 of length 0, which RFC 2132 section 3.8 has not
    bool repeatsAreAnswered;  // a code asked for twice is sent twice, which a client may join (RFC 3396 section 7)
    bool refusalHasOptions;   // what a client asks for is in a DHCPNAK too, where RFC 2131 table 3 has none of it
    bool identifierIsEchoed;  // option 61 comes back (RFC 6842 section 3)
    bool relayIsEchoed;       // option 82 comes back, last (RFC 3046 section 2.2)
    bool sizeIsHeeded;        // a reply is no longer than option 57 allows, or 576 bytes (RFC 2132 section 9.10)
    uint16_t paddedTo;        // bytes of a BOOTP message (RFC 1542 section 2.1)
    bool relayIsHeeded;       // a relay of another subnet is left alone, and told to broadcast a DHCPNAK (RFC 2131
                              // sections 4.1, 4.3.2)
    uint16_t relayPort;       // where a relay listens (RFC 2131 section 4.1)
    bool broadcastsOnLink;    // a broadcast is one to the link as well (RFC 1122 section 3.3.6)
    bool subnetIsExact;       // any mask up to /30, and all addresses are of hosts of one subnet; or else up to /24
    bool routerMayBeAbsent;   // 0.0.0.0: option 3 is not sent
    uint32_t probe;           // milliseconds that a free address is probed before it is offered, where nothing else is
                              // configured; 0: not (RFC 2131 section 2.2)
};

struct Ostrel_InterfaceRules {
    bool linkIsWatched;  // the roles are told when the link is lost and back, and when the device wakes up; a new MAC
                         // address or name is noticed, and an interface that is taken out and put back goes on
    bool portsAreHeld;   // the kernel takes the ports of the roles for bound, and answers no datagram to them with an
                         // ICMP error (RFC 1122 section 4.1.3.1)
};

struct Ostrel_Rules {
    const char* name;
    Ostrel_InterfaceRules interface;
    Ostrel_ClientRules client;
    Ostrel_LinkLocalRules linkLocal;
    Ostrel_ServerRules server;
};

inline constexpr Ostrel_Rules kPlainRules{
    .name = "plain",
    .interface{.linkIsWatched = false, .portsAreHeld = false},
    .client{.randomIsSecret = false,
            .jitter = 0,
            .leaseFuzz = 0,
            .discoverIsRepeated = false,
            .firstRetry = 3000,
            .longestRetry = 3000,
            .answersAreMatched = false,
            .firstPause = 0,
            .longestPause = 0,
            .declinePause = 0,
            .malformedAckEndsLease = true,
            .valuesAreChecked = false,
            .messagesFollowTable5 = false,
            .leastMessage = 0,
            .actionsExtend = false,
            .arpCheck = 2000,
            .probes = 1,
            .announcements = 0,
            .extensionIsChecked = true,
            .anyARPFrameCounts = false,
            .defendInterval = 0,
            .timesAreTheServers = false,
            .mostPerSecond = 0,
            .mostPerMinute = 0},
    .linkLocal{.randomIsSecret = false,
               .addressFollowsMAC = false,
               .probeWait = 0,
               .probeMin = 0,
               .probeMax = 1000,
               .announceWaitIsLonger = true,
               .conflictPause = 1000,
               .slowProbes = true,
               .probesCount = false,
               .defendInterval = 0,
               .forgetConflicts = 0,
               .endsAtOnce = false,
               .onlyHeldIsShown = false,
               .mostPerSecond = 0,
               .mostPerMinute = 0},
    .server{.knowsByIdentifier = false,
            .discoverKeepsLease = false,
            .remembersHolders = false,
            .renewalExtends = false,
            .serverIsHeeded = false,
            .refusesUnknown = true,
            .declineHolds = false,
            .informBinds = true,
            .timersAreSent = false,
            .emptyIsSent = true,
            .repeatsAreAnswered = true,
            .refusalHasOptions = true,
            .identifierIsEchoed = false,
            .relayIsEchoed = false,
            .sizeIsHeeded = false,
            .paddedTo = 0,
            .relayIsHeeded = false,
            .relayPort = 68,
            .broadcastsOnLink = false,
            .subnetIsExact = false,
            .routerMayBeAbsent = false,
            .probe = 0},
};

inline constexpr Ostrel_Rules kRFCRules{
    .name = "rfc",
    .interface{.linkIsWatched = true, .portsAreHeld = true},
    .client{.randomIsSecret = true,
            .jitter = 1000,
            .leaseFuzz = 5,
            .discoverIsRepeated = true,
            .firstRetry = 4000,
            .longestRetry = 64'000,
            .answersAreMatched = true,
            .firstPause = 1000,
            .longestPause = 64'000,
            .declinePause = 10'000,
            .malformedAckEndsLease = false,
            .valuesAreChecked = true,
            .messagesFollowTable5 = true,
            .leastMessage = 300,
            .actionsExtend = true,
            .arpCheck = 500,
            .probes = 3,
            .announcements = 2,
            .extensionIsChecked = false,
            .anyARPFrameCounts = true,
            .defendInterval = 10'000,
            .timesAreTheServers = true,
            .mostPerSecond = 4,
            .mostPerMinute = 30},
    .linkLocal{.randomIsSecret = true,
               .addressFollowsMAC = true,
               .probeWait = 1000,
               .probeMin = 1000,
               .probeMax = 2000,
               .announceWaitIsLonger = false,
               .conflictPause = 0,
               .slowProbes = false,
               .probesCount = true,
               .defendInterval = 10'000,
               .forgetConflicts = 60'000,
               .endsAtOnce = true,
               .onlyHeldIsShown = true,
               .mostPerSecond = 4,
               .mostPerMinute = 30},
    .server{.knowsByIdentifier = true,
            .discoverKeepsLease = true,
            .remembersHolders = true,
            .renewalExtends = true,
            .serverIsHeeded = true,
            .refusesUnknown = false,
            .declineHolds = true,
            .informBinds = false,
            .timersAreSent = true,
            .emptyIsSent = false,
            .repeatsAreAnswered = false,
            .refusalHasOptions = false,
            .identifierIsEchoed = true,
            .relayIsEchoed = true,
            .sizeIsHeeded = true,
            .paddedTo = 300,
            .relayIsHeeded = true,
            .relayPort = 67,
            .broadcastsOnLink = true,
            .subnetIsExact = true,
            .routerMayBeAbsent = true,
            .probe = 250},
};
