// Bringing the daemon up around its event loop, and taking it down.
//
// The order matters twice: the bus service is registered before the termination signals are handled (they wait,
// blocked, since eloop_init), so a failed registration ends the process by its own status; and interfaces are finalised
// while the loop still stands, because their timeouts hang on it.
#include "Ostrel/Check.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/OstrelVoroBus.h"
#include "Ostrel/System.h"

#include "eloop.h"
#include "os_memory.h"

namespace {

// SIGTERM or SIGINT, delivered by the loop.
void Ostrel_Terminate(int /*signal*/, void* /*loopContext*/, void* /*handlerContext*/) {
    DebugPrintF(kDebugLevelNotice, "got SIGTERM\n");
    eloop_terminate();
}

void FinaliseAllInterfaces(Ostrel_SystemObj* sysObj) {
    Ostrel_InterfaceObj* next = nullptr;
    for (Ostrel_InterfaceObj* iface = sysObj->interfaceList; iface != nullptr; iface = next) {
        next = iface->next;
        Ostrel_InterfaceFinalize(nullptr, iface);
    }
    sysObj->interfaceList = nullptr;
}

}  // namespace

Ostrel_Status Ostrel_SystemObjInitialize(Ostrel_SystemObj** sysObj) {
    *sysObj = os_new<Ostrel_SystemObj>();
    OSTREL_REQUIRE(*sysObj != nullptr, "sysObj", kOutOfMemoryErr);
    return kNoErr;
}

void Ostrel_InactivityTimeout(void* /*context1*/, void* /*context2*/) {
    DebugPrintF(kDebugLevelNotice, "%s(); service inactive, terminating\n", __func__);
    eloop_terminate();
}

void Ostrel_SetInactivityTimeout(const char* caller) {
    DebugPrintF(kDebugLevelNotice, "%s() Set Inactivity Timer for <%d> seconds\n", caller, kInactivitySeconds);
    // Without it the daemon only stays longer than it is needed.
    if (eloop_register_timeout(kInactivitySeconds, 0, Ostrel_InactivityTimeout, nullptr, nullptr) != 0)
        OSTREL_REPORT_EXPRESSION("eloop_register_timeout");
}

Ostrel_Status Ostrel_DaemonStart(Ostrel_SystemObj* sysObj) {
    OSTREL_REQUIRE(eloop_init(nullptr) == 0, "eloop_init", kGenericErr);

    const Ostrel_Status status = Ostrel_VoroServiceInitialize(sysObj);
    if (status != kNoErr) {
        if (sysObj->serviceHandle != nullptr) (void)Ostrel_VoroServiceFinalize(sysObj);
        eloop_destroy();
        return status;
    }

    if (eloop_register_signal_terminate(Ostrel_Terminate, nullptr) != 0) {
        OSTREL_REPORT_EXPRESSION("eloop_register_signal_terminate");
        (void)Ostrel_DaemonStop(sysObj);
        return kGenericErr;
    }
    Ostrel_SetInactivityTimeout("main");
    return kNoErr;
}

Ostrel_Status Ostrel_DaemonStop(Ostrel_SystemObj* sysObj) {
    const Ostrel_Status status = Ostrel_VoroServiceFinalize(sysObj);
    FinaliseAllInterfaces(sysObj);
    eloop_destroy();
    return status != kNoErr ? status : sysObj->failure;
}
