// Replies: the envelope that every method answers in.
//
// {"returnValue", "errorCode", "errorText", "subscribed", <payload key>}, in this order, each only when it has
// something to say. Building the envelope is also where a caller that asked for it is enrolled as a subscriber. The
// status that a method failed with stays in the log: a caller learns only that it failed.

#include <utility>

#include "Ostrel/Check.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/OstrelVoroBus.h"
#include "Ostrel/System.h"

#include "Method.h"

using valdo::JValue;

namespace {

const valdo::JSchemaFragment kAnything("{}");

void CountSubscriber(VSMessage* message) {
    const char* method = VSMessageGetMethod(message);
    int32_t index = 0;
    if (OstrelJsonUtilsLookupTableIndexByString(gTblSubscribers, method, &index) != kNoErr) return;
    const uint32_t count = ++gTblSubscribers[index].value;
    Ostrel_LogPrint(kQxLogDebug, "%s now has %d subscribers (added one).\n", method, count);
}

// Enrols the caller when its request asks for it.
bool Subscribe(VSHandle* handle, VSMessage* message) {
    VSError error;
    VSErrorInit(&error);
    bool subscribed = false;
    if (!VSSubscriptionProcess(handle, message, &subscribed, &error)) {
        OstrelVSErrorPrintAndFree(&error);
        return false;
    }
    if (subscribed) CountSubscriber(message);
    return subscribed;
}

void PutPayload(JValue& reply, const char* key, JValue payload) {
    if (Ostrel_LogWanted(kQxLogDebug)) {
        std::string text;
        if (valdo::JGenerator::toString(payload, kAnything, text))
            Ostrel_LogPrint(kQxLogDebug, "append <%s>:<%s> to voro reply\n", key, text);
    }
    reply.put(key, std::move(payload));
}

}  // namespace

Ostrel_Status Ostrel_VSUtil_SendJSONReply(Ostrel_SystemObj* /*sysObj*/, VSHandle* handle, VSMessage* message,
                                          bool returnValue, int32_t errorCode, const char* errorText,
                                          const char* payloadKey, JValue* payload) {
    Ostrel_LogPrint(kQxLogDebug, "%s: %s\n", __func__, VSMessageGetPayload(message));
    JValue reply = valdo::Object();
    reply.put("returnValue", returnValue);
    if (!returnValue && errorCode != 0) reply.put("errorCode", errorCode);
    if (!returnValue && errorText != nullptr) reply.put("errorText", errorText);
    if (Subscribe(handle, message)) reply.put("subscribed", true);
    if (payloadKey != nullptr && payload != nullptr) PutPayload(reply, payloadKey, std::move(*payload));

    VSError error;
    VSErrorInit(&error);
    std::string text;
    const bool success =
        valdo::JGenerator::toString(reply, kAnything, text) && VSMessageReply(handle, message, text.c_str(), &error);
    return success ? kNoErr : Ostrel_VSUtil_BusFailure(__func__, __LINE__, &error);
}

Ostrel_Status Ostrel_VSUtil_ResolveInterfaceObj(Ostrel_SystemObj* sysObj, const JValue& request,
                                                Ostrel_InterfaceObj** iface) {
    Ostrel_LogPrint(kQxLogDebug, "%s:\n", __func__);
    std::string name;
    if (!GetJsonString(request, "interface", &name, false, nullptr)) return kBadParamErr;
    OSTREL_REQUIRE_NOERR(Ostrel_InterfaceFindByName(name, &sysObj->interfaceList, iface));
    return kNoErr;
}

int32_t Ostrel_GetVoroErrCode(Ostrel_Status status) {
    return status == kNoErr ? 0 : -1;
}

const char* Ostrel_GetVoroErrText(Ostrel_Status status) {
    return status == kNoErr ? "Success" : "Failed";
}

void OstrelVSErrorPrintAndFree(VSError* error) {
    Ostrel_LogPrint(kQxLogError, "### VoroBus error %d: %s (%s @ %s:%d)\n", error->code, error->message.data(),
                    error->function, error->file, error->line);
    VSErrorFree(error);
}
