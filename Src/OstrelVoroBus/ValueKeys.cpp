// The keys that "interfaceInitialize" takes strictly: the first one that can't be used ends the call, and its reply
// says which and why. Nobody gets other rules than those asked for because of a typing mistake.
//
// An absent key is no failure and writes no line. A key that the role does not have is refused as well. What was given
// is kept with the interface as the text of a JSON object, for the configuration dump; an interface that was given
// nothing keeps nothing.

#include "ValueKeys.h"

#include "ConfigWords.h"
#include "Method.h"

using valdo::JValue;

namespace {

Ostrel_Status ReadOne(const Ostrel_ValueKey& key, const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    if ((cfg->mode & key.roles) == 0) return OstrelJsonRefuse(field, "is not of this \"mode\"");
    return key.read(field, cfg);
}

// What no reader of one key can see.
Ostrel_Status CheckTogether(const JValue& request, const Ostrel_InterfaceConfig& cfg, OstrelJsonProblem* problem) {
    bool wanted = true;
    if (!cfg.linkLocalFallback || request["ipv4LinkLocal"].asBool(wanted) != valdo::CONV_OK || wanted) return kNoErr;
    return OstrelJsonRefuse(OstrelJsonFieldOf(request, "linkLocal", problem), "contradicts \"ipv4LinkLocal\"");
}

Ostrel_Status Keep(const JValue& given, Ostrel_InterfaceConfig* cfg) {
    if (given.objectSize() == 0) return kNoErr;
    std::string text;
    if (!Ostrel_VSUtil_ToText(given, &text)) return kOutOfMemoryErr;
    cfg->valueKeys = os_copy_array<char>(text, 1);
    return cfg->valueKeys == nullptr ? kOutOfMemoryErr : kNoErr;
}

}  // namespace

Ostrel_Status Ostrel_VSUtil_ReadRFC(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    bool wanted = false;
    const Ostrel_Status status = OstrelJsonReadBoolean(field, &wanted);
    if (status == kNoErr) cfg->rfc = wanted;
    return status;
}

Ostrel_Status Ostrel_VSUtil_ReadValueKeys(const JValue& request, Ostrel_InterfaceConfig* cfg,
                                          OstrelJsonProblem* problem) {
    JValue given = valdo::Object();
    for (const Ostrel_ValueKey* key = gTblValueKeys; key->name != nullptr; ++key) {
        if (!request.hasKey(key->name)) continue;
        const OstrelJsonField field = OstrelJsonFieldOf(request, key->name, problem);
        const Ostrel_Status status = ReadOne(*key, field, cfg);
        if (status != kNoErr) return status;
        if (key->isShown && !given.put(key->name, field.value)) return kOutOfMemoryErr;
    }
    const Ostrel_Status status = CheckTogether(request, *cfg, problem);
    return status == kNoErr ? Keep(given, cfg) : status;
}

void Ostrel_VSUtil_PutValueKeys(const char* given, JValue& object) {
    JValue keys;
    if (given == nullptr || !CheckJsonRoot(given, "{}", &keys)) return;
    for (size_t i = 0; i < keys.objectSize(); ++i) object.put(keys.memberName(i), keys[keys.memberName(i)]);
}
