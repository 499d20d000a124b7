// What happens to the leases of servers, event by event, for the subscribers of "/server" "leaseEvents".
#include "Ostrel/Publish.h"

const char* Ostrel_LeaseEventName(Ostrel_LeaseEventKind /*kind*/) {
    return "";
}

void Ostrel_VoroServicePublishLeaseEvent(Ostrel_InterfaceObj* /*iface*/, const Ostrel_LeaseEvent& /*event*/) {}
