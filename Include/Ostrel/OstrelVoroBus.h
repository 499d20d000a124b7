// The daemon on the message bus: its methods, the reply envelope, subscriptions.
#pragma once

#include <cstdint>
#include <span>

#include "Ostrel/OstrelJsonUtils.h"
#include "Ostrel/Publish.h"
#include "Ostrel/Status.h"

#include "VoroBus.h"

struct Ostrel_ClientObj;
struct Ostrel_InterfaceObj;
struct Ostrel_LeaseInformation;
struct Ostrel_ServerObj;
struct Ostrel_SystemObj;

// Puts the service on the bus and takes it off; kGenericErr when the bus refuses. A failed start undoes nothing.
[[nodiscard]] Ostrel_Status Ostrel_VoroServiceInitialize(Ostrel_SystemObj* sysObj);
[[nodiscard]] Ostrel_Status Ostrel_VoroServiceFinalize(Ostrel_SystemObj* sysObj);

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
bool Ostrel_VoroMethod_ClientLeaseAction(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_ClientLeaseInformation(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_ServerLeaseInformation(VSHandle* handle, VSMessage* message, void* context);
bool Ostrel_VoroMethod_Unsubscribe(VSHandle* handle, VSMessage* message, void* context);

// Answers a call: "returnValue", on failure "errorCode" (unless 0) and "errorText" (unless null), "subscribed" when the
// caller was enrolled, and the payload under its key when both are given.
Ostrel_Status Ostrel_VSUtil_SendJSONReply(Ostrel_SystemObj* sysObj, VSHandle* handle, VSMessage* message,
                                          bool returnValue, int32_t errorCode, const char* errorText,
                                          const char* payloadKey, const valdo::JValue* payload);

// The managed interface that the request's "interface" names: kBadParamErr without a usable key, kNoSuchItemErr for an
// unknown name.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ResolveInterfaceObj(Ostrel_SystemObj* sysObj, const valdo::JValue& request,
                                                              Ostrel_InterfaceObj** iface);

// What a reply says of a status: 0 and "Success", or -1 and "Failed".
[[nodiscard]] int32_t Ostrel_GetVoroErrCode(Ostrel_Status status);
[[nodiscard]] const char* Ostrel_GetVoroErrText(Ostrel_Status status);

// Logs a bus error and releases it.
void OstrelVSErrorPrintAndFree(VSError* error);

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
