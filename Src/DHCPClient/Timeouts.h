// The client's timeouts, side by side: handler, name, kind. Private to the client.
#pragma once

#include <cstdint>

#include "Ostrel/DHCPClient.h"

#include "eloop.h"

struct Ostrel_ClientTimeout {
    eloop_timeout_handler handler;
    const char* name;
    bool rtc;  // an alarm that wakes a suspended device
};

inline constexpr Ostrel_ClientTimeout kClientTimeoutInit{Ostrel_DHCPClientTimeout_Init, "org.ostrel.dhcp.client.init",
                                                         false};
inline constexpr Ostrel_ClientTimeout kClientTimeoutSelecting{Ostrel_DHCPClientTimeout_Selecting,
                                                              "org.ostrel.dhcp.client.selecting", false};
inline constexpr Ostrel_ClientTimeout kClientTimeoutRequesting{Ostrel_DHCPClientTimeout_Requesting,
                                                               "org.ostrel.dhcp.client.requesting", false};
inline constexpr Ostrel_ClientTimeout kClientTimeoutArping{Ostrel_DHCPClientTimeout_Bound,
                                                           "org.ostrel.dhcp.client.arping", false};
inline constexpr Ostrel_ClientTimeout kClientTimeoutRenewing{Ostrel_DHCPClientTimeout_Renewing,
                                                             "org.ostrel.dhcp.client.renewing", false};
inline constexpr Ostrel_ClientTimeout kClientTimeoutRebinding{Ostrel_DHCPClientTimeout_Rebinding,
                                                              "org.ostrel.dhcp.client.rebinding", false};
inline constexpr Ostrel_ClientTimeout kClientTimeoutExpiry{Ostrel_DHCPClientTimeout_Expiry,
                                                           "org.ostrel.dhcp.client.expiry", true};

// Arms a timeout in `seconds`, cut to what the event loop takes; an earlier one of its kind stays.
void Ostrel_DHCPClientArm(Ostrel_ClientObj* client, const Ostrel_ClientTimeout& timeout, uint32_t seconds);
// The same, in the place of any earlier one.
void Ostrel_DHCPClientRearm(Ostrel_ClientObj* client, const Ostrel_ClientTimeout& timeout, uint32_t seconds);
void Ostrel_DHCPClientCancel(Ostrel_ClientObj* client, const Ostrel_ClientTimeout& timeout);

// Moves the client to `state`, logging old and new; every change of state goes through here.
void Ostrel_DHCPClientEnterState(Ostrel_ClientObj* client, uint32_t state);
