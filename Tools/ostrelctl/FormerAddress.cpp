// What an earlier run has left, and nobody holds any more. That it is an earlier run's is known from what was
// remembered, and from its having an end: an address without one is somebody's.
#include "FormerAddress.h"

#include <algorithm>

#include "Arguments.h"
#include "Device.h"

namespace ostrelctl {

namespace {

void Remove(const Controller& controller, const std::string& interface, Ostrel_IPv4 address) {
    const std::optional<Ostrel_IPv4> mask = MaskOf(interface, address);
    if (!mask) return;
    const InterfaceAddress former{.interface = interface,
                                  .address = address,
                                  .prefixLength = PrefixLength(*mask),
                                  .lifetime = kEndlessLifetime,
                                  .linkScope = false};
    if (IsPermanent(controller.netlink.get(), former).value_or(true)) return;
    if (RemoveAddress(controller.netlink.get(), former) == 0)
        SayOf(interface, "- address " + AddressWithPrefix(address, *mask) + ", which an earlier run has left");
}

enum class Verdict { Held, Waits, Left };

Verdict Judge(const Controller& controller, const std::string& interface, const FormerAddress& former) {
    const InterfaceState* const state = StateOf(controller, interface);
    const bool isHeld = state != nullptr && state->client && state->client->held;
    if (isHeld) return state->client->address == former.address ? Verdict::Held : Verdict::Left;
    const bool mayCome = !controller.applying.holdings.isTold || Clock::now() < former.until;
    return mayCome ? Verdict::Waits : Verdict::Left;
}

}  // namespace

void WatchFormerAddress(Controller& controller, const std::string& interface, bool daemonGoesOn) {
    Ostrel_IPv4 address = kAnyIPv4;
    if (!ReadAddress(controller.kept.each[interface].address, address)) return;
    const TimePoint until = daemonGoesOn ? Clock::now() : Clock::now() + kGraceOfNewDaemon;
    controller.former.insert_or_assign(interface, FormerAddress{.address = address, .until = until});
}

void DropFormerAddresses(Controller& controller) {
    std::erase_if(controller.former, [&controller](const auto& each) {
        const Verdict verdict = Judge(controller, each.first, each.second);
        if (verdict == Verdict::Left) Remove(controller, each.first, each.second.address);
        return verdict != Verdict::Waits;
    });
}

TimePoint NextFormerAddress(const Controller& controller) {
    TimePoint next = kNever;
    if (!controller.applying.holdings.isTold) return next;
    for (const auto& [interface, former] : controller.former) next = std::min(next, former.until);
    return next;
}

}  // namespace ostrelctl
