// Who a message is from.
//
// By the plain rules a client is the Ethernet source of its frames, so all stations behind an extender or a relay are
// one. By the rfc rules it is its client identifier, or without one its hardware type and address, which has the form
// of an identifier too (RFC 2132 section 9.14): one who sends it as such in option 61 and then doesn't stays the same.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "Ostrel/DHCPServer.h"

struct Ostrel_ServerClient {
    Ostrel_MAC station;                   // what the table shows: the Ethernet source, or chaddr
    uint64_t key;                         // what the index knows it by
    std::span<const uint8_t> identifier;  // option 61, in the frame; null when it is absent or doesn't count
};

// A secret of one table.
using Ostrel_ClientHashKey = std::array<uint64_t, 2>;

[[nodiscard]] Ostrel_ServerClient Ostrel_DHCPServerClientOf(const Ostrel_ServerObj* server,
                                                            const Ostrel_PreprocessedPacket& packet);

// The key of a client that is known by these bytes, or by an Ethernet address. Never 0.
[[nodiscard]] uint64_t Ostrel_DHCPServerKeyOf(const Ostrel_ServerObj* server, std::span<const uint8_t> identifier);
[[nodiscard]] uint64_t Ostrel_DHCPServerKeyOfAddress(const Ostrel_ServerObj* server, const Ostrel_MAC& address);

// The address that is kept for a client, by its identifier or else by its MAC; null when there is none.
[[nodiscard]] const Ostrel_FixedClient* Ostrel_DHCPServerFixedOf(const Ostrel_ServerObj* server,
                                                                 const Ostrel_ServerClient& client);
