// The steps of the server that others than a frame may cause. Private to the server.
#pragma once

#include <optional>

#include "Ostrel/DHCPServer.h"

#include "DHCPServer/Client.h"

// A message, who it is from, and what becomes of it where the status of handling it does not say so.
struct Ostrel_ServerMessage {
    const Ostrel_PreprocessedPacket& packet;
    Ostrel_ServerClient client;
    uint32_t now;  // monotonic seconds: one moment for all that it causes
    std::optional<Ostrel_Verdict>* verdict;
};

// Chooses a slot for the client of a DISCOVER, and offers it, or probes it first.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServerProcessDiscover(Ostrel_ServerObj* server,
                                                             const Ostrel_ServerMessage& message);

// Sends the OFFER of a slot that was claimed for the client; `now` in monotonic seconds.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServerOffer(Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& discover,
                                                   Ostrel_LeaseInformation* lease, uint32_t now);
