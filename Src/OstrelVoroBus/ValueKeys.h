// The keys that "interfaceInitialize" takes strictly.
#pragma once

#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/OstrelJsonUtilsStrict.h"

// Readers of one key each; which key has which stands in ConfigWords.cpp. kBadParamErr, with the problem told, when the
// value can't be used; kOutOfMemoryErr. The record may then be filled in part.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadRFC(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadLinkLocal(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadClientHostName(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadVendorClass(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadUserClass(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadClientIdentifierHex(const OstrelJsonField& field,
                                                                  Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadRequestOptions(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadSendOptions(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadBroadcast(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadARPCheck(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadFixed(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadServerOptions(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadKeptLeases(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadLeasesFollow(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadProbe(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);

// Reads all of them that the request has, once its role is known, and keeps them as text for the dump. A failure as
// above.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadValueKeys(const valdo::JValue& request, Ostrel_InterfaceConfig* cfg,
                                                        OstrelJsonProblem* problem);

// Puts those that were given when the interface was initialised, as they were given.
void Ostrel_VSUtil_PutValueKeys(const char* given, valdo::JValue& object);
