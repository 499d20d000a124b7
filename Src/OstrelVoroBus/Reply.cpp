// Replies: the envelope that every method answers in.
//
// {"returnValue", "errorCode", "errorText", "problem", "subscribed", <payload key>}, in this order, each only when it
// has something to say. Building the envelope is also where a caller that asked for it is enrolled as a subscriber. The
// status that a method failed with stays in the log; a caller learns that it failed, and of a key that is read strictly
// what was wrong with it.

#include "Ostrel/Check.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "Audience.h"
#include "Method.h"

using valdo::JValue;

namespace {

constexpr char kSender[] = "Ostrel_VSUtil_SendJSONReply";  // the name in the log, whoever is called

void CountSubscriber(Ostrel_SystemObj* sysObj, VSMessage* message) {
    const char* method = VSMessageGetMethod(message);
    uint32_t* count = Ostrel_VSUtil_AudienceOf(sysObj, method);
    if (count == nullptr) return;
    ++*count;
    Ostrel_LogPrint(kQxLogDebug, "%s now has %d subscribers (added one).\n", method, *count);
}

// Enrols the caller when its request asks for it.
bool Subscribe(const Ostrel_Reply& content, VSHandle* handle, VSMessage* message) {
    if (!content.enrols) return false;
    VSError error;
    VSErrorInit(&error);
    bool subscribed = false;
    if (!VSSubscriptionProcessFor(handle, message, content.subject, &subscribed, &error)) {
        OstrelVSErrorPrintAndFree(&error);
        return false;
    }
    if (subscribed) CountSubscriber(content.sysObj, message);
    return subscribed;
}

// The payload is written to the log and put into the reply as the same text: a table is long.
bool WriteReply(const Ostrel_Reply& content, bool subscribed, std::string* text) {
    JValue reply = valdo::Object();
    reply.put("returnValue", content.returnValue);
    if (!content.returnValue && content.errorCode != 0) reply.put("errorCode", content.errorCode);
    if (!content.returnValue && content.errorText != nullptr) reply.put("errorText", content.errorText);
    if (!content.returnValue && *content.problem != '\0') reply.put("problem", content.problem);
    if (subscribed) reply.put("subscribed", true);
    if (!Ostrel_VSUtil_ToText(reply, text)) return false;
    if (content.payloadKey == nullptr) return true;
    if (content.payload == nullptr) return false;
    Ostrel_LogPrint(kQxLogDebug, "append <%s>:<%s> to voro reply\n", content.payloadKey, *content.payload);
    return Ostrel_VSUtil_AddText(text, content.payloadKey, *content.payload);
}

}  // namespace

Ostrel_Status Ostrel_VSUtil_SendTextReply(const Ostrel_Reply& content, VSHandle* handle, VSMessage* message) {
    Ostrel_LogPrint(kQxLogDebug, "%s: %s\n", kSender, VSMessageGetPayload(message));
    const bool subscribed = Subscribe(content, handle, message);
    VSError error;
    VSErrorInit(&error);
    std::string text;
    const bool success =
        WriteReply(content, subscribed, &text) && VSMessageReply(handle, message, text.c_str(), &error);
    return success ? kNoErr : Ostrel_VSUtil_BusFailure(kSender, __LINE__, &error);
}

Ostrel_Status Ostrel_VSUtil_SendJSONReply(Ostrel_SystemObj* /*sysObj*/, VSHandle* handle, VSMessage* message,
                                          bool returnValue, int32_t errorCode, const char* errorText,
                                          const char* payloadKey, const JValue* payload) {
    Ostrel_Reply content{returnValue, errorCode, errorText, payload == nullptr ? nullptr : payloadKey, nullptr, ""};
    std::string text;
    if (content.payloadKey != nullptr && Ostrel_VSUtil_ToText(*payload, &text)) content.payload = &text;
    return Ostrel_VSUtil_SendTextReply(content, handle, message);
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
