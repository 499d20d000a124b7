// The calls that go up: a role with news tells the bus's subscribers, and the other roles of its interface.
#pragma once

#include "Ostrel/Status.h"

struct Ostrel_ClientObj;
struct Ostrel_InterfaceObj;
struct Ostrel_ServerObj;
struct Ostrel_SystemObj;

// Posts the client's lease to the subscribers of "/client" "leaseInformation"; kGenericErr when that fails.
[[nodiscard]] Ostrel_Status Ostrel_VoroServicePublishClientLeaseInformation(Ostrel_SystemObj* sysObj,
                                                                            Ostrel_ClientObj* client);

// Posts the server's lease table to the subscribers of "/server" "leaseInformation"; kGenericErr when that fails.
[[nodiscard]] Ostrel_Status Ostrel_VoroServicePublishServerLeaseInformation(Ostrel_SystemObj* sysObj,
                                                                            Ostrel_ServerObj* server);

// The client holds a lease from now on, its address checked, or does not any more. Saying it twice is harmless.
void Ostrel_InterfaceLeaseChanged(Ostrel_InterfaceObj* iface, bool isHeld);
