// The server's one way to answer.
#pragma once

#include <cstdint>

#include "Ostrel/DHCPServer.h"

// Builds a DHCPOFFER, DHCPACK or DHCPNAK to `request` in the interface's txPayload and sends it. `lease` gives the
// address; it is not changed, and may be null: for a DHCPNAK, and for a DHCPACK that gives none. Failures are reported.
[[nodiscard]] Ostrel_Status Ostrel_DHCPServerSend_BOOTPReply(Ostrel_ServerObj* server, uint8_t messageType,
                                                             const Ostrel_PreprocessedPacket& request,
                                                             const Ostrel_LeaseInformation* lease);
