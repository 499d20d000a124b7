// Names of hosts in requests.
#pragma once

#include <string>

#include "Ostrel/OstrelJsonUtilsStrict.h"

// A host name, with or without a domain: labels of 1 to 63 letters, digits, hyphens and underscores, together 253
// characters at most.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadHostName(const OstrelJsonField& field, std::string* name);
