// Where a play begins: the daemon in each state of client, selector and server.
#pragma once

#include "FuzzDevice.h"
#include "Play.h"

namespace sim::fuzz {

constexpr uint8_t kNumScenes = 22;

// "eth0" is managed, and stands where the scene says, or where the flags let it come instead.
void SetScene(FuzzDevice& device, const Play& play);

// The request that hands "eth0" over as the flags say.
[[nodiscard]] std::string RequestOf(const Play& play, bool isServer, bool isStatic);

// What a station says to the server: number 0 to 3 has an identifier of its own and asks for its own address.
[[nodiscard]] DHCPMessage FromStation(uint8_t station, uint8_t type);

}  // namespace sim::fuzz
