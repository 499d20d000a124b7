// Who a client is, as requests say it.
#pragma once

#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/OstrelJsonUtilsStrict.h"

// Exactly one of the object's "macAddress", "clientIdentifier" (text) and "clientIdentifierHex" (type byte included).
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadOneClient(const OstrelJsonField& field, Ostrel_ClientKey* client);

// Of those that the object has, the identifier: its bytes, or its text behind the type for texts.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadIdentifier(const OstrelJsonField& field, Ostrel_ClientKey* client);

[[nodiscard]] bool Ostrel_VSUtil_IsSameClient(const Ostrel_ClientKey& one, const Ostrel_ClientKey& other);
