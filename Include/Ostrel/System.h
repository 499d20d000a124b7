// The one system object, and the process around it.
#pragma once

#include <cstdint>

#include "Ostrel/Status.h"
#include "Ostrel/WallClock.h"

struct Ostrel_InterfaceObj;
struct Ostrel_LeaseTexts;
struct VSHandle;

// The name on the bus, of the system log's context, and the first part of every alarm's name.
constexpr char kServiceName[] = "org.ostrel.dhcp";

constexpr char kLogFile[] = "/var/log/ostrel.log";
constexpr uint32_t kInactivitySeconds = 300;  // how long the daemon stays with no interface to manage

// Subscribers, by what they subscribe to: enrolled calls. The bus area counts; who would have news asks first.
struct Ostrel_Audience {
    uint32_t states;       // of "/" "interfaceState"
    uint32_t trace;        // of "/" "trace"
    uint32_t leaseEvents;  // of "/server" "leaseEvents"
};

struct Ostrel_SystemObj {
    Ostrel_InterfaceObj* interfaceList;  // head of the list of managed interfaces, in creation order; owned
    VSHandle* serviceHandle;             // set by Ostrel_VoroServiceInitialize; owned
    Ostrel_WallClock wallClock;          // lease times are shown by it
    Ostrel_Status failure;               // for which the loop was ended; kNoErr otherwise
    uint32_t numWatchedLinks;            // interfaces that follow their link
    bool deviceIsWatched;                // so that they can
    uint32_t failedWatches;              // times that the device would not be
    Ostrel_Audience audience;
    Ostrel_LeaseTexts* leaseTexts;  // the bus area's; Ostrel_VoroServiceFinalize frees them
};

// Event-loop callback: stops the loop when no interface came for kInactivitySeconds. Both contexts are null.
void Ostrel_InactivityTimeout(void* context1, void* context2);

// Arms the inactivity timeout; `caller` is the function named in its log line.
void Ostrel_SetInactivityTimeout(const char* caller);

// The system object, all zero; kOutOfMemoryErr when there is no memory. The caller frees it with os_delete.
[[nodiscard]] Ostrel_Status Ostrel_SystemObjInitialize(Ostrel_SystemObj** sysObj);

// Brings the daemon up to the point where only eloop_run is missing: event loop, bus service, termination signals,
// inactivity timeout. On failure nothing of it is left.
[[nodiscard]] Ostrel_Status Ostrel_DaemonStart(Ostrel_SystemObj* sysObj);

// Takes it down again after eloop_run: bus service, every managed interface, event loop. kGenericErr when the bus
// connection had been lost, or else `failure`.
[[nodiscard]] Ostrel_Status Ostrel_DaemonStop(Ostrel_SystemObj* sysObj);
