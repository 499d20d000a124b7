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
    bool randomIsSecret;  // transaction ids and waits are drawn from the device's entropy, not the C library (RFC 2131
                          // section 4.1)
};

struct Ostrel_LinkLocalRules {
    bool randomIsSecret;  // likewise, of the address and the waits
};

struct Ostrel_ServerRules {
    bool knowsByIdentifier;  // a client is its option 61, or else its htype and chaddr, not who sent the frame (RFC
                             // 2131 section 4.2)
};

struct Ostrel_Rules {
    const char* name;
    Ostrel_ClientRules client;
    Ostrel_LinkLocalRules linkLocal;
    Ostrel_ServerRules server;
};

inline constexpr Ostrel_Rules kPlainRules{
    .name = "plain",
    .client{.randomIsSecret = false},
    .linkLocal{.randomIsSecret = false},
    .server{.knowsByIdentifier = false},
};

inline constexpr Ostrel_Rules kRFCRules{
    .name = "rfc",
    .client{.randomIsSecret = true},
    .linkLocal{.randomIsSecret = true},
    .server{.knowsByIdentifier = true},
};
