// The service on the bus: which categories it has, which methods they hold, and how it comes up and goes down.
//
// Every category carries the system object, which is the context of every handler. The categories are registered before
// the bus is attached to the event loop and the name taken, so the first call finds them all.

#include "Ostrel/OstrelVoroBus.h"
#include "Ostrel/System.h"

#include "LeaseTexts.h"
#include "Method.h"
#include "eloop.h"
#include "os_console.h"

const VSMethod gOstrelServiceMethodsRoot[] = {
    {"setDebugLevel", Ostrel_VoroMethod_SetDebugLevel, 0},
    {"interfaceInitialize", Ostrel_VoroMethod_InterfaceInitialize, 0},
    {"interfaceFinalize", Ostrel_VoroMethod_InterfaceFinalize, 0},
    {"interfaceConfigDump", Ostrel_VoroMethod_InterfaceConfigDump, 0},
    {"interfaceState", Ostrel_VoroMethod_InterfaceState, 0},
    {"trace", Ostrel_VoroMethod_Trace, 0},
    {nullptr, nullptr, 0},
};

const VSMethod gOstrelServiceMethodsClient[] = {
    {"leaseAction", Ostrel_VoroMethod_ClientLeaseAction, 0},
    {"leaseInformation", Ostrel_VoroMethod_ClientLeaseInformation, 0},
    {nullptr, nullptr, 0},
};

const VSMethod gOstrelServiceMethodsServer[] = {
    {"leaseAction", Ostrel_VoroMethod_ServerLeaseAction, 0},
    {"leaseInformation", Ostrel_VoroMethod_ServerLeaseInformation, 0},
    {"leaseEvents", Ostrel_VoroMethod_LeaseEvents, 0},
    {"giveLeases", Ostrel_VoroMethod_GiveLeases, 0},
    {nullptr, nullptr, 0},
};

// Lookups go by method name alone, so the first row counts for both categories and the second stays 0.
OstrelJsonUtilsUint32StringTableEntry gTblSubscribers[3] = {
    {0, "leaseInformation"},
    {0, "leaseInformation"},
    {0, nullptr},
};

namespace {

constexpr VSSignal kRootSignals[] = {{"interfaceStateUpdate", 0}, {"traceUpdate", 0}, {nullptr, 0}};
constexpr VSSignal kClientSignals[] = {{"leaseInformationUpdate", 0}, {nullptr, 0}};
constexpr VSSignal kServerSignals[] = {{"leaseInformationUpdate", 0}, {"leaseEventsUpdate", 0}, {nullptr, 0}};

bool RegisterCategory(Ostrel_SystemObj* sysObj, const char* category, const VSMethod* methods, const VSSignal* signals,
                      VSError* error) {
    return VSRegisterCategory(sysObj->serviceHandle, category, methods, signals, nullptr, error) &&
           VSCategorySetData(sysObj->serviceHandle, category, sysObj, error);
}

bool RegisterService(Ostrel_SystemObj* sysObj, VSError* error) {
    return VSRegister(kServiceName, &sysObj->serviceHandle, error) &&
           RegisterCategory(sysObj, "/", gOstrelServiceMethodsRoot, kRootSignals, error) &&
           RegisterCategory(sysObj, "/client", gOstrelServiceMethodsClient, kClientSignals, error) &&
           RegisterCategory(sysObj, "/server", gOstrelServiceMethodsServer, kServerSignals, error) &&
           VSSubscriptionSetCancelFunction(sysObj->serviceHandle, Ostrel_VoroMethod_Unsubscribe, sysObj, error) &&
           VSGmainAttach(sysObj->serviceHandle, eloop_get_gnome_loop(), error);
}

}  // namespace

Ostrel_Status Ostrel_VoroServiceInitialize(Ostrel_SystemObj* sysObj) {
    VSError error;
    VSErrorInit(&error);
    if (!RegisterService(sysObj, &error)) {
        os_console_complain(error.message.data());
        return Ostrel_VSUtil_BusFailure(__func__, __LINE__, &error);
    }
    eloop_register_rtc_alarms(sysObj->serviceHandle, kServiceName);
    return kNoErr;
}

Ostrel_Status Ostrel_VoroServiceFinalize(Ostrel_SystemObj* sysObj) {
    VSError error;
    VSErrorInit(&error);
    const bool success = VSUnregister(sysObj->serviceHandle, &error);
    sysObj->serviceHandle = nullptr;  // freed, whatever the result
    sysObj->audience = {};
    Ostrel_LeaseTextsForgetAll(sysObj);
    return success ? kNoErr : Ostrel_VSUtil_BusFailure(__func__, __LINE__, &error);
}
