// Handing interfaces over, and taking them back.
#pragma once

#include <string>

#include "Control.h"

namespace ostrelctl {

constexpr std::chrono::seconds kWakePause{1};      // between two calls of a daemon that does not come
constexpr std::chrono::seconds kRefusedPause{60};  // before what has failed is tried again

[[nodiscard]] bool IsServer(const Entry& entry);
[[nodiscard]] bool IsPlain(const Entry& entry);

// Whether what has failed on the interface is not to be tried again yet.
[[nodiscard]] bool Waits(const Controller& controller, const std::string& interface);

// A server's own address is on its interface, or what was set there is taken away.
void KeepOwnAddress(Controller& controller, const std::string& interface, const Entry& entry);
void RemoveOwnAddress(Controller& controller, const std::string& interface);

void FinaliseQuietly(const Controller& controller, const std::string& interface, bool release);

// A client's leases are applied, unless another process does that.
void KeepApplying(Controller& controller, const std::string& interface, const Entry& entry);

// Hands it over, or finds that it has been. What is refused is tried again later.
void TakeUp(Controller& controller, const std::string& interface, const Entry& entry);

// Takes one back that has been handed over. It stays so when the daemon does not answer.
void LetGo(Controller& controller, const std::string& interface);

}  // namespace ostrelctl
