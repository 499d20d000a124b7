// The words by which a request, and the configuration dump, name a role, an addressing mode and what is beside them.
#pragma once

#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/OstrelJsonUtils.h"
#include "Ostrel/OstrelJsonUtilsStrict.h"

extern const OstrelJsonUtilsUint32StringTableEntry gTblOpMode[];      // "client", "server"
extern const OstrelJsonUtilsUint32StringTableEntry gTblConfigMode[];  // "static", "dhcp", "dhcpManualAddress"

// A key of "interfaceInitialize" that is taken strictly.
struct Ostrel_ValueKey {
    const char* name;
    uint32_t roles;  // mode bits of those that have it
    bool isShown;    // in the configuration dump
    Ostrel_Status (*read)(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
};
extern const Ostrel_ValueKey gTblValueKeys[];  // ended by a row without a name
