// The bus methods, and what they have in common: the way in, the ways out, the post.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Ostrel/OstrelJsonUtils.h"
#include "Ostrel/OstrelJsonUtilsStrict.h"
#include "Ostrel/Status.h"

#include "VoroBus.h"

struct Ostrel_ClientObj;
struct Ostrel_InterfaceObj;
struct Ostrel_LeaseInformation;
struct Ostrel_ServerObj;
struct Ostrel_SystemObj;

// Method tables, ended by a row without a name.
extern const VSMethod gOstrelServiceMethodsRoot[];
extern const VSMethod gOstrelServiceMethodsClient[];
extern const VSMethod gOstrelServiceMethodsServer[];

// Subscriber counts by method name, for log lines: a table whose values change.
extern OstrelJsonUtilsUint32StringTableEntry gTblSubscribers[3];

// Methods. Each answers its call exactly once and returns true; `context` is the system object.
bool Ostrel_VoroMethod_SetDebugLevel(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_InterfaceInitialize(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_InterfaceFinalize(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_InterfaceConfigDump(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_InterfaceState(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_LeaseEvents(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_Trace(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_ClientLeaseAction(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_ClientLeaseInformation(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_ServerLeaseAction(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_ServerLeaseInformation(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_GiveLeases(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_Unsubscribe(VSHandle* handle, VSMessage* message, void* context);

// A call as its handler reads it.
struct Ostrel_Request {
    const char* handler;  // function name: the failed checks of a handler's helpers are reported under it
    valdo::JValue root{};
    OstrelJsonProblem problem{};  // for the reply to a failed call
};

// Fills `root`, which is then an object. Logs the call; kGenericErr, reported, without a context or when the payload is
// not a JSON object.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadRequest(VSMessage* message, const void* context, Ostrel_Request* request);

// Answers a call: "returnValue", on failure "errorCode" (unless 0) and "errorText" (unless null), "subscribed" when the
// caller was enrolled, and the payload under its key when both are given.
Ostrel_Status Ostrel_VSUtil_SendJSONReply(Ostrel_SystemObj* sysObj, VSHandle* handle, VSMessage* message,
                                          bool returnValue, int32_t errorCode, const char* errorText,
                                          const char* payloadKey, const valdo::JValue* payload);

// The managed interface that the request's "interface" names: kBadParamErr without a usable key, kNoSuchItemErr for an
// unknown name.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ResolveInterfaceObj(Ostrel_SystemObj* sysObj, const valdo::JValue& request,
                                                              Ostrel_InterfaceObj** iface);

// The server of the interface that the request's "interface" names, taken strictly: kBadParamErr, with the problem
// told, when there is none.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_FindServer(Ostrel_Request& request, const Ostrel_SystemObj* sysObj,
                                                     Ostrel_ServerObj** server);

// What a reply says of a status: 0 and "Success", or -1 and "Failed".
[[nodiscard]] int32_t Ostrel_GetVoroErrCode(Ostrel_Status status);
[[nodiscard]] const char* Ostrel_GetVoroErrText(Ostrel_Status status);

// Logs a bus error and releases it.
void OstrelVSErrorPrintAndFree(VSError* error);

// What a reply says. An error code of 0 and a null error text are left out, so is a null key.
struct Ostrel_Reply {
    bool returnValue;
    int32_t errorCode;
    const char* errorText;
    const char* payloadKey;
    const std::string* payload;          // as text; null with a key: it could not be made, and the call goes unanswered
    const char* problem = "";            // what was wrong with the request; empty: it is left out
    bool enrols = true;                  // the request's subscription wish is carried out
    const char* subject = nullptr;       // the interface that a subscription is about; null: all
    Ostrel_SystemObj* sysObj = nullptr;  // whose audience it is; null: of "leaseInformation" at most
};

// As Ostrel_VSUtil_SendJSONReply, which is the same to whoever reads the log.
Ostrel_Status Ostrel_VSUtil_SendTextReply(const Ostrel_Reply& content, VSHandle* handle, VSMessage* message);

// Answers with nothing but the outcome, and the problem of a request that has one: on failure with an error code and
// text, or, in the second form, without.
void Ostrel_VSUtil_SendStatusReply(const Ostrel_Request& request, VSHandle* handle, VSMessage* message,
                                   Ostrel_Status status);
void Ostrel_VSUtil_SendPlainReply(const Ostrel_Request& request, VSHandle* handle, VSMessage* message,
                                  Ostrel_Status status);

// Answers a request that can't be used with the problem, and enrols nobody.
void Ostrel_VSUtil_SendRefusal(const Ostrel_Request& request, VSHandle* handle, VSMessage* message);

// A whole method that lists something of every interface, or of the one that the request names, as "interfaceList".
// `selected` is null when the request names no managed interface.
struct Ostrel_ListMethod {
    const char* handler;      // function name, for the log
    Ostrel_Status rejection;  // what the reply to an unusable request says; kNoErr: nothing
    bool (*write)(Ostrel_SystemObj* sysObj, Ostrel_InterfaceObj* selected, std::string* list);  // false: no memory
};
void Ostrel_VSUtil_AnswerWithList(const Ostrel_ListMethod& method, VSHandle* handle, VSMessage* message, void* context);

struct Ostrel_PostPlace {
    const char* category;
    const char* method;
};

// Tells the subscribers of a method that what it shows of an interface has changed. `state` writes the post when one is
// sent; the category's data is the system object. kGenericErr when the bus refuses, reported under `function`.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_Post(const char* function, Ostrel_SystemObj* sysObj,
                                               const Ostrel_PostPlace& place, const char* ifname,
                                               VSStateFunction state);

// Tells them of an event on the interface, which concerns it alone. A failure is reported under `function`.
void Ostrel_VSUtil_Tell(const char* function, const Ostrel_InterfaceObj* iface, const Ostrel_PostPlace& place,
                        const VSEvent& event);
constexpr char kLeaseMethod[] = "leaseInformation";

// Whether a post of leases would reach someone.
[[nodiscard]] bool Ostrel_VSUtil_HasLeaseSubscribers(const Ostrel_SystemObj* sysObj, const char* category);

// Writes {"returnValue": true, <key>: <list>}, the text of a post. False when memory is out.
[[nodiscard]] bool Ostrel_VSUtil_WritePost(const char* key, std::string_view list, std::string* text);

// A value as JSON text, and one more member, already text, at the end of an object that is text and not empty. False
// when memory is out.
[[nodiscard]] bool Ostrel_VSUtil_ToText(const valdo::JValue& value, std::string* text);
[[nodiscard]] bool Ostrel_VSUtil_AddText(std::string* object, std::string_view key, std::string_view value);

// The managed interface of that name, or null: it may be gone when its state is asked for.
[[nodiscard]] Ostrel_InterfaceObj* Ostrel_VSUtil_FindInterface(const Ostrel_SystemObj* sysObj, std::string_view ifname);

// What is left to do when the bus refuses something: reports it under the function's name, logs and releases the error,
// and returns kGenericErr.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_BusFailure(const char* function, int line, VSError* error);

// Lease objects and arrays. A null role stands for every interface that runs it.
[[nodiscard]] Ostrel_Status Ostrel_VoroServiceCreateClientLeaseInformationObject(Ostrel_SystemObj* sysObj,
                                                                                 Ostrel_ClientObj* client,
                                                                                 valdo::JValue& object);
Ostrel_Status Ostrel_VoroServiceCreateClientLeaseInformationArray(Ostrel_SystemObj* sysObj, Ostrel_ClientObj* client,
                                                                  valdo::JValue& array);
[[nodiscard]] Ostrel_Status Ostrel_VoroServiceCreateServerLeaseInformationObject(Ostrel_SystemObj* sysObj,
                                                                                 Ostrel_ServerObj* server,
                                                                                 Ostrel_LeaseInformation* lease,
                                                                                 valdo::JValue& object);
Ostrel_Status Ostrel_VoroServiceCreateServerLeaseInformationArray(Ostrel_SystemObj* sysObj, Ostrel_ServerObj* server,
                                                                  valdo::JValue& array);

// The configuration of a client, as interfaceConfigDump shows it.
[[nodiscard]] Ostrel_Status OstrelVsConfigDumpClient(Ostrel_SystemObj* sysObj, Ostrel_ClientObj* client,
                                                     valdo::JValue& object);

// Ends the text at its first newline.
void Ostrel_ReplaceNewlineInTimeString(std::span<char> text);
