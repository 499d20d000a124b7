// One managed interface and the list of them.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "Ostrel/Address.h"
#include "Ostrel/Counters.h"
#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/PacketFilter.h"
#include "Ostrel/Rules.h"
#include "Ostrel/Status.h"

#include "wpabuf.h"

struct Ostrel_ClientObj;
struct Ostrel_LinkLocalObj;
struct Ostrel_ServerObj;
struct Ostrel_SystemObj;

constexpr size_t kTransmitBufferSize = 2048;  // bytes

// The interface's link, where the rules have it watched.
struct Ostrel_InterfaceLink {
    bool isWatched;
    bool isThere;     // in the device; always true where nobody watches
    bool isRunning;   // as the roles were told last; always true where nobody watches
    bool isSettling;  // it is back, and the roles will be told when it has run for a while
    int32_t index;    // the kernel's number of the interface, still that of one that was taken out; 0: not seen yet
    uint32_t settlingTime;   // milliseconds that it has to run before the roles are told
    uint32_t lookAgainTime;  // milliseconds that were waited since it could not be asked after; 0: it could
    uint64_t runningSince;   // when they were told that it is back, in milliseconds of the monotonic clock
};

// A received frame that a role is handling and that the trace has not told yet.
struct Ostrel_FrameUnderWay {
    const char* role;
    std::span<const uint8_t> bytes;  // not owned; empty: none
};

// How much of what the interface sends and gets the trace has told in a second.
struct Ostrel_TraceSample {
    uint64_t second;   // of the monotonic clock
    uint32_t told;     // frames in it
    uint32_t leftOut;  // frames since the last that was told
};

struct Ostrel_InterfaceObj {
    Ostrel_SystemObj* sysObj;   // not owned
    Ostrel_InterfaceObj* next;  // null at the tail
    std::array<char, kInterfaceNameSize> ifname;
    Ostrel_MAC macAddr;  // read each time a filter is opened on the interface, and when it changes
    Ostrel_InterfaceLink link;
    wpabuf* txFrame;            // every outgoing frame is assembled here; owned
    wpabuf* txPayload;          // a BOOTP message before it is framed; owned
    uint32_t mode;              // role bits
    const Ostrel_Rules* rules;  // never null
    os_array<char> valueKeys;   // what the caller gave beside the usual keys, as JSON; null: nothing
    bool leaseIsHeld;           // by the client, its address checked
    bool pictureIsStale;        // what subscribers know of it is no longer true, and will be posted
    Ostrel_TraceSample traceSample;
    Ostrel_FrameUnderWay frameUnderWay;
    Ostrel_ARPCounters counters;
    Ostrel_PacketFilter arpFilter;  // shared by the roles
    Ostrel_ClientObj* dhcpClient;   // the roles: owned, null when not run
    Ostrel_ServerObj* dhcpServer;
    Ostrel_LinkLocalObj* linkLocal;
};

// The interface of exactly this name; kNoSuchItemErr with null when the list has none.
[[nodiscard]] Ostrel_Status Ostrel_InterfaceFindByName(std::string_view name, Ostrel_InterfaceObj* const* listHead,
                                                       Ostrel_InterfaceObj** found);

// The list without its first interface of that name, which is detached and not freed.
[[nodiscard]] Ostrel_InterfaceObj* Ostrel_InterfaceRemoveFromList(Ostrel_InterfaceObj* list, const char* name);

// Makes an interface from a configuration, starts its roles in the order client, link-local, server, appends it to the
// system's list and cancels the inactivity timeout. On failure nothing is left behind: kAlreadyExistsErr,
// kOutOfMemoryErr, or the status of the filter or role that could not be started.
[[nodiscard]] Ostrel_Status Ostrel_InterfaceInitialize(Ostrel_SystemObj* sysObj, const Ostrel_InterfaceConfig* config);

// Begins to follow the interface's link, if its rules say so: the device is watched from the first such interface to
// the last. Roles whose link does not run are told before it returns.
void Ostrel_InterfaceWatchLink(Ostrel_InterfaceObj* iface);
void Ostrel_InterfaceUnwatchLink(Ostrel_InterfaceObj* iface);

// Tears an interface down, half-built or whole, and frees it. With a list head it is first taken off that list, and a
// list that is then empty arms the inactivity timeout. No role sends a frame.
void Ostrel_InterfaceFinalize(Ostrel_InterfaceObj** listHead, Ostrel_InterfaceObj* iface);
