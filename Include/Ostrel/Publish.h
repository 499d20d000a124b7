// The one call that goes up: a role with news tells the bus's subscribers.
#pragma once

#include "Ostrel/Status.h"

struct Ostrel_ClientObj;
struct Ostrel_ServerObj;
struct Ostrel_SystemObj;

// Posts the client's lease to the subscribers of "/client" "leaseInformation"; kGenericErr when that fails.
[[nodiscard]] Ostrel_Status Ostrel_VoroServicePublishClientLeaseInformation(Ostrel_SystemObj* sysObj,
                                                                            Ostrel_ClientObj* client);

// Posts the server's lease table to the subscribers of "/server" "leaseInformation"; kGenericErr when that fails.
[[nodiscard]] Ostrel_Status Ostrel_VoroServicePublishServerLeaseInformation(Ostrel_SystemObj* sysObj,
                                                                            Ostrel_ServerObj* server);
