// The daemon on the message bus: its service. What a role has to tell its subscribers goes through Publish.h.
#pragma once

#include "Ostrel/Status.h"

struct Ostrel_SystemObj;

// Puts the service on the bus and takes it off; kGenericErr when the bus refuses. A failed start undoes nothing.
[[nodiscard]] Ostrel_Status Ostrel_VoroServiceInitialize(Ostrel_SystemObj* sysObj);
[[nodiscard]] Ostrel_Status Ostrel_VoroServiceFinalize(Ostrel_SystemObj* sysObj);
