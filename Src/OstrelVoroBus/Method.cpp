// What the bus methods have in common.
//
// A handler is called with the system object as its context and answers its call exactly once, whatever the request
// holds. The way in, logging the call and parsing its payload, is here, and so are the ways out: a bare outcome, a list
// of interfaces, and the post by which the two lease tables reach their subscribers.

#include "Method.h"

#include <utility>

#include "Ostrel/Check.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

using valdo::JValue;

namespace {

constexpr char kListKey[] = "interfaceList";
const valdo::JSchemaFragment kAnything("{}");

void LogProblem(const Ostrel_Request& request) {
    if (request.problem[0] != '\0') Ostrel_LogPrint(kQxLogError, "%s: %s\n", request.handler, request.problem.data());
}

}  // namespace

Ostrel_Status Ostrel_VSUtil_BusFailure(const char* function, int line, VSError* error) {
    Ostrel_ReportFailure(0, "success", Ostrel_AreaOf(__FILE__), line, function);
    OstrelVSErrorPrintAndFree(error);
    return kGenericErr;
}

Ostrel_Status Ostrel_VSUtil_ReadRequest(VSMessage* message, const void* context, Ostrel_Request* request) {
    const char* payload = VSMessageGetPayload(message);
    Ostrel_LogPrint(kQxLogDebug, "%s: %s\n", request->handler, payload);
    OSTREL_REQUIRE_IN(request->handler, context != nullptr, "sysObj", kGenericErr);
    const bool success = CheckJsonRoot(payload, "{}", &request->root);
    VSMessageSetRequest(message, request->root);
    OSTREL_REQUIRE_IN(request->handler, success, "success", kGenericErr);
    return kNoErr;
}

void Ostrel_VSUtil_SendStatusReply(const Ostrel_Request& request, VSHandle* handle, VSMessage* message,
                                   Ostrel_Status status) {
    LogProblem(request);
    Ostrel_VSUtil_SendTextReply({status == kNoErr, Ostrel_GetVoroErrCode(status), Ostrel_GetVoroErrText(status),
                                 nullptr, nullptr, request.problem.data()},
                                handle, message);
}

void Ostrel_VSUtil_SendPlainReply(const Ostrel_Request& request, VSHandle* handle, VSMessage* message,
                                  Ostrel_Status status) {
    LogProblem(request);
    Ostrel_VSUtil_SendTextReply({status == kNoErr, 0, nullptr, nullptr, nullptr, request.problem.data()}, handle,
                                message);
}

void Ostrel_VSUtil_SendRefusal(const Ostrel_Request& request, VSHandle* handle, VSMessage* message) {
    LogProblem(request);
    Ostrel_VSUtil_SendTextReply({false, 0, nullptr, nullptr, nullptr, request.problem.data(), false}, handle, message);
}

void Ostrel_VSUtil_AnswerWithList(const Ostrel_ListMethod& method, VSHandle* handle, VSMessage* message,
                                  void* context) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    Ostrel_Request request{method.handler};
    if (Ostrel_VSUtil_ReadRequest(message, context, &request) != kNoErr) {
        const char* text = method.rejection == kNoErr ? nullptr : Ostrel_GetVoroErrText(method.rejection);
        const JValue none = valdo::Array();
        Ostrel_VSUtil_SendJSONReply(sysObj, handle, message, false, Ostrel_GetVoroErrCode(method.rejection), text,
                                    kListKey, &none);
        return;
    }

    Ostrel_InterfaceObj* selected = nullptr;
    if (Ostrel_VSUtil_ResolveInterfaceObj(sysObj, request.root, &selected) != kNoErr) selected = nullptr;
    std::string list;
    const bool isWritten = method.write(sysObj, selected, &list);
    Ostrel_VSUtil_SendTextReply({true, 0, nullptr, kListKey, isWritten ? &list : nullptr}, handle, message);
}

Ostrel_Status Ostrel_VSUtil_Post(const char* function, Ostrel_SystemObj* sysObj, const Ostrel_PostPlace& place,
                                 const char* ifname, VSStateFunction state) {
    if (sysObj->serviceHandle == nullptr) return kNoErr;
    VSError error;
    VSErrorInit(&error);
    const bool success = VSSubscriptionPost(sysObj->serviceHandle, place.category, place.method, ifname, state, &error);
    return success ? kNoErr : Ostrel_VSUtil_BusFailure(function, __LINE__, &error);
}

void Ostrel_VSUtil_Tell(const char* function, const Ostrel_InterfaceObj* iface, const Ostrel_PostPlace& place,
                        const VSEvent& event) {
    VSHandle* handle = iface->sysObj->serviceHandle;
    if (handle == nullptr) return;
    VSError error;
    VSErrorInit(&error);
    if (!VSSubscriptionTell(handle, place.category, place.method, iface->ifname.data(), event, &error))
        (void)Ostrel_VSUtil_BusFailure(function, __LINE__, &error);
}

bool Ostrel_VSUtil_HasLeaseSubscribers(const Ostrel_SystemObj* sysObj, const char* category) {
    return sysObj->serviceHandle != nullptr &&
           VSSubscriptionHasSubscribers(sysObj->serviceHandle, category, kLeaseMethod);
}

bool Ostrel_VSUtil_WritePost(const char* key, std::string_view list, std::string* text) {
    JValue post = valdo::Object();
    post.put("returnValue", true);
    return Ostrel_VSUtil_ToText(post, text) && Ostrel_VSUtil_AddText(text, key, list);
}

bool Ostrel_VSUtil_ToText(const JValue& value, std::string* text) {
    return valdo::JGenerator::toString(value, kAnything, *text);
}

bool Ostrel_VSUtil_AddText(std::string* object, std::string_view key, std::string_view value) {
    try {
        object->reserve(object->size() + key.size() + value.size() + 4);
        object->pop_back();  // the brace
        ((((*object += ",\"") += key) += "\":") += value) += '}';
        return true;
    } catch (...) {
        return false;
    }
}

Ostrel_InterfaceObj* Ostrel_VSUtil_FindInterface(const Ostrel_SystemObj* sysObj, std::string_view ifname) {
    Ostrel_InterfaceObj* iface = sysObj->interfaceList;
    while (iface != nullptr && ifname != iface->ifname.data()) iface = iface->next;
    return iface;
}
