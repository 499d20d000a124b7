// The words by which a request, and the configuration dump, name a role and an addressing mode.
#pragma once

#include "Ostrel/OstrelJsonUtils.h"

extern const OstrelJsonUtilsUint32StringTableEntry gTblOpMode[];      // "client", "server"
extern const OstrelJsonUtilsUint32StringTableEntry gTblConfigMode[];  // "static", "dhcp", "dhcpManualAddress"
