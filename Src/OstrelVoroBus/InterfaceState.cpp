// What goes on with each interface, as JSON: asked for with "/" "interfaceState", or posted when it changes.
#include "Ostrel/Publish.h"

void Ostrel_VoroServicePublishInterfaceState(Ostrel_SystemObj* /*sysObj*/, const char* /*ifname*/) {}
