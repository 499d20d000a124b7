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

// The order is that of the dump. A client's "sendOptions" come last: what they may not repeat has been read by then.
// The leases that a server was given back are not its configuration.
const Ostrel_ValueKey gTblValueKeys[] = {
    {"rfc", kOstrelModeDHCPClient | kOstrelModeDHCPServer, true, Ostrel_VSUtil_ReadRFC},
    {"linkLocal", kOstrelModeDHCPClient, true, Ostrel_VSUtil_ReadLinkLocal},
    {"hostName", kOstrelModeDHCPClient, true, Ostrel_VSUtil_ReadClientHostName},
    {"vendorClass", kOstrelModeDHCPClient, true, Ostrel_VSUtil_ReadVendorClass},
    {"userClass", kOstrelModeDHCPClient, true, Ostrel_VSUtil_ReadUserClass},
    {"clientIdentifierHex", kOstrelModeDHCPClient, true, Ostrel_VSUtil_ReadClientIdentifierHex},
    {"requestOptions", kOstrelModeDHCPClient, true, Ostrel_VSUtil_ReadRequestOptions},
    {"sendOptions", kOstrelModeDHCPClient, true, Ostrel_VSUtil_ReadSendOptions},
    {"broadcast", kOstrelModeDHCPClient, true, Ostrel_VSUtil_ReadBroadcast},
    {"arpCheck", kOstrelModeDHCPClient, true, Ostrel_VSUtil_ReadARPCheck},
    {"fixed", kOstrelModeDHCPServer, true, Ostrel_VSUtil_ReadFixed},
    {"options", kOstrelModeDHCPServer, true, Ostrel_VSUtil_ReadServerOptions},
    {"leases", kOstrelModeDHCPServer, false, Ostrel_VSUtil_ReadKeptLeases},
    {"leasesFollow", kOstrelModeDHCPServer, false, Ostrel_VSUtil_ReadLeasesFollow},
    {"probe", kOstrelModeDHCPServer, true, Ostrel_VSUtil_ReadProbe},
    {nullptr, 0, false, nullptr},
};
