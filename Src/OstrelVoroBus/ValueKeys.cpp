// The keys that "interfaceInitialize" takes strictly: the first one that can't be used ends the call, and its reply
// says which and why. Nobody gets other rules than those asked for because of a typing mistake.
//
// An absent key is no failure and writes no line. A key that the other role has is refused as well.

#include "ValueKeys.h"

#include "ConfigWords.h"

Ostrel_Status Ostrel_VSUtil_ReadRFC(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    bool wanted = false;
    const Ostrel_Status status = OstrelJsonReadBoolean(field, &wanted);
    if (status == kNoErr) cfg->rfc = wanted;
    return status;
}

Ostrel_Status Ostrel_VSUtil_ReadValueKeys(const valdo::JValue& request, Ostrel_InterfaceConfig* cfg,
                                          OstrelJsonProblem* problem) {
    for (const Ostrel_ValueKey* key = gTblValueKeys; key->name != nullptr; ++key) {
        if (!request.hasKey(key->name)) continue;
        const OstrelJsonField field = OstrelJsonFieldOf(request, key->name, problem);
        const bool suits = (cfg->mode & key->roles) != 0;
        const Ostrel_Status status = suits ? key->read(field, cfg) : OstrelJsonRefuse(field, "not of this \"mode\"");
        if (status != kNoErr) return status;
    }
    return kNoErr;
}
