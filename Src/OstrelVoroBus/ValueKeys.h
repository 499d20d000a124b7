// The readers of the keys that "interfaceInitialize" takes strictly; which key has which stands in ConfigWords.cpp.
//
// Each reads one field into the record. kBadParamErr, with the problem told, when the value can't be used.
#pragma once

#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/OstrelJsonUtilsStrict.h"

[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadRFC(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg);

// Reads all of them that the request has, once its role is known.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadValueKeys(const valdo::JValue& request, Ostrel_InterfaceConfig* cfg,
                                                        OstrelJsonProblem* problem);
