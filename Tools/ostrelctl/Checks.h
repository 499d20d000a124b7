// What can be checked before the daemon is asked. The daemon refuses without a reason; here is one.
#pragma once

#include <cstdint>
#include <string>

#include "Arguments.h"
#include "Exit.h"

namespace ostrelctl {

constexpr uint32_t kMostLeases = 1048576;  // that one server hands out

// What a server is to be.
struct ServerPlan {
    Network network;                // its own address
    Range range{};                  // whole: with its last address
    Ostrel_IPv4 router = kAnyIPv4;  // 0.0.0.0: none is handed out
    int64_t leaseSeconds = 0;
    bool plain = false;  // by the daemon's plain rules
};

// Each complains and gives kExitUsage, or gives kExitDone.
//
// The device has an Ethernet interface of that name. One that is down only gets a hint.
[[nodiscard]] ExitStatus CheckInterface(const std::string& name);
[[nodiscard]] ExitStatus CheckOwnAddress(const Network& network, const char* key);
[[nodiscard]] ExitStatus CheckDnsServers(const std::vector<Ostrel_IPv4>& servers);
[[nodiscard]] ExitStatus CheckServer(const ServerPlan& plan);

// Hints, for what can be meant and will not work as it is: a router that cannot be reached from the address, an address
// that the interface does not have yet.
void HintAtRouter(const Network& network, Ostrel_IPv4 router);
void HintAtAddress(const std::string& interface, const Network& network);

}  // namespace ostrelctl
