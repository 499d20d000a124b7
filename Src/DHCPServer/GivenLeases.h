// A server that is given back its leases in parts, and is silent until it has them. Private to the server.
//
// Its caller has said so when it handed the interface over. Nobody can be offered an address that may be leased
// already, so no frame is answered until the last part has come; or no more do, and the server begins with what it has.
#pragma once

#include "Ostrel/DHCPServer.h"

constexpr char kAwaitsLeases[] = "AWAITING_LEASES";  // the state, as it is shown

// Begins to wait.
void Ostrel_DHCPServerAwaitLeases(Ostrel_ServerObj* server);

// Ends the wait without a word, if there is one: the server goes.
void Ostrel_DHCPServerForgetLeases(Ostrel_ServerObj* server);
