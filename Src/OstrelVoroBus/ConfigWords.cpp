// The words by which a request, and the configuration dump, name a role, an addressing mode and what is beside them.
//
// The tables are read in both directions. An addressing mode of 0, not given, has no row: a request cannot ask for it
// by name and a dump does not show it.

#include "ConfigWords.h"

#include "Ostrel/InterfaceConfig.h"

#include "ValueKeys.h"

const OstrelJsonUtilsUint32StringTableEntry gTblOpMode[] = {
    {kOstrelModeDHCPClient, "client"},
    {kOstrelModeDHCPServer, "server"},
    {0, nullptr},
};

const OstrelJsonUtilsUint32StringTableEntry gTblConfigMode[] = {
    {kOstrelConfigStatic, "static"},
    {kOstrelConfigDHCP, "dhcp"},
    {kOstrelConfigDHCPManualAddress, "dhcpManualAddress"},
    {0, nullptr},
};

const Ostrel_ValueKey gTblValueKeys[] = {
    {"rfc", kOstrelModeDHCPClient | kOstrelModeDHCPServer, Ostrel_VSUtil_ReadRFC},
    {nullptr, 0, nullptr},
};
