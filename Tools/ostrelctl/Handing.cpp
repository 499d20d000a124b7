// Handing interfaces over, and taking them back: what Control.cpp has decided is done here.
#include "Handing.h"

#include <cstring>
#include <net/if.h>
#include <utility>

#include "Device.h"
#include "FormerAddress.h"
#include "GivenLeases.h"
#include "KeptFile.h"
#include "Managed.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

bool IsServer(const Entry& entry) {
    return std::holds_alternative<ServerOptions>(entry.role);
}

bool IsPlain(const Entry& entry) {
    const auto* const client = std::get_if<ClientOptions>(&entry.role);
    return client != nullptr ? client->plain : entry.plan.plain;
}

// Whether what has failed on the interface is not to be tried again yet.
bool Waits(const Controller& controller, const std::string& interface) {
    const auto refused = controller.refused.find(interface);
    return refused != controller.refused.end() && Clock::now() < refused->second;
}

// One that is not managed is as it should be.
void FinaliseQuietly(const Controller& controller, const std::string& interface, bool release) {
    JValue request = RequestFor(interface);
    if (release) request.put("release", true);
    (void)AskQuietly(controller.calls, kInterfaceFinalize, request);
}

namespace {

InterfaceAddress OwnAddress(const std::string& interface, const Network& network) {
    return {.interface = interface,
            .address = network.address,
            .prefixLength = PrefixLength(network.mask),
            .lifetime = kEndlessLifetime,
            .linkScope = false};
}

// What an interface that is about to be released has, for the next one that it becomes.
void KeepWhatItHas(Controller& controller, const std::string& interface) {
    const InterfaceState* const state = StateOf(controller, interface);
    KeptInterface& kept = controller.kept.each[interface];
    if (state == nullptr) return;
    if (state->client && state->client->held) kept.address = AddressText(state->client->address);
    if (!state->server) return;
    const Answer answer = AskQuietly(controller.calls, kServerLeaseInformation, RequestFor(interface));
    const JValue leases = LeasesOf(answer.reply, interface);
    if (leases.isArray()) kept.leases = leases;
}

// The client asks first for the address that it had.
ExitStatus StartClient(const Controller& controller, const std::string& interface, const Entry& entry) {
    const auto* const client = std::get_if<ClientOptions>(&entry.role);
    if (client == nullptr || !HasToStart(*client)) return kExitDone;
    JValue request = RequestFor(interface);
    request.put("leaseAction", "init");
    const std::string& address = controller.kept.each.at(interface).address;
    if (!address.empty() && !client->plain) request.put("address", address);
    return ActOn(controller.calls, interface, kLeaseAction, request);
}

// A daemon that has gone on while this process was away manages what it was handed then.
bool IsAsLeft(const Controller& controller, const std::string& interface, const std::string& request) {
    const auto kept = controller.kept.each.find(interface);
    return StateOf(controller, interface) != nullptr && kept != controller.kept.each.end() &&
           kept->second.request == request && controller.kept.owner == controller.follower.owner;
}

ExitStatus Give(Controller& controller, const std::string& interface, const Entry& entry, const std::string& text) {
    const bool isManaged = StateOf(controller, interface) != nullptr;
    KeptInterface& kept = controller.kept.each[interface];
    if (isManaged) SayOf(interface, "was managed otherwise, and is handed over as the files say");
    KeepWhatItHas(controller, interface);
    if (isManaged || controller.lost.contains(if_nametoindex(interface.c_str())))
        FinaliseQuietly(controller, interface, false);
    const JValue leases = IsServer(entry) ? kept.leases : JValue();
    ExitStatus status = HandOverServer(controller.calls, interface, RequestFor(entry, interface), leases);
    if (status == kExitDone) status = StartClient(controller, interface, entry);
    if (status != kExitDone) return status;
    SayOf(interface, "handed over: " + RoleText(entry));
    kept.request = text;
    controller.kept.owner = controller.follower.owner;
    controller.isUnsaved = true;
    return kExitDone;
}

// Nobody gets an address on an interface that is down. Who sets it down later is not contradicted.
void Prepare(const Controller& controller, const std::string& interface) {
    const bool isDown = StateOfLink(interface) == LinkState::Down;
    const int error = isDown ? SetUp(controller.netlink.get(), interface) : 0;
    if (error != 0) Complain('\'' + interface + "' cannot be set up: " + std::strerror(error), "");
}

}  // namespace

// Also when somebody has taken it away. One that was there before stays his.
void KeepOwnAddress(Controller& controller, const std::string& interface, const Entry& entry) {
    const Network& network = entry.plan.network;
    if (!IsServer(entry) || HasAddress(interface, network.address)) return;
    const std::string text = AddressWithPrefix(network.address, network.mask);
    const int error = AddAddress(controller.netlink.get(), OwnAddress(interface, network));
    if (error != 0) return Complain('\'' + interface + "' cannot have " + text + ": " + std::strerror(error), "");
    SayOf(interface, "+ address " + text);
    controller.isUnsaved = true;
    controller.kept.each[interface].own = text;
}

void RemoveOwnAddress(Controller& controller, const std::string& interface) {
    Network network;
    const std::string own = std::exchange(controller.kept.each[interface].own, "");
    if (own.empty() || !ReadNetwork(own, network)) return;
    controller.isUnsaved = true;
    if (RemoveAddress(controller.netlink.get(), OwnAddress(interface, network)) == 0)
        SayOf(interface, "- address " + own);
}

// An `ostrelctl apply` that somebody has started for the interface goes on; it is seen later whether it has ended.
void KeepApplying(Controller& controller, const std::string& interface, const Entry& entry) {
    if (IsServer(entry) || controller.applying.interfaces.contains(interface) || Waits(controller, interface)) return;
    const uint32_t metric = entry.metric.value_or(kUsualMetric);
    if (BeginApplying(controller.applying, controller.follower, interface, metric) != kExitDone)
        controller.refused[interface] = Clock::now() + kRefusedPause;
}

void TakeUp(Controller& controller, const std::string& interface, const Entry& entry) {
    std::string text;
    if (!ToText(RequestFor(entry, interface), text)) return;
    Prepare(controller, interface);
    KeepOwnAddress(controller, interface, entry);
    const bool isAsLeft = IsAsLeft(controller, interface, text);
    const ExitStatus status = isAsLeft ? kExitDone : Give(controller, interface, entry, text);
    if (status != kExitDone) {
        controller.refused[interface] = Clock::now() + (status == kExitNoDaemon ? kWakePause : kRefusedPause);
        return;
    }
    controller.lost.erase(if_nametoindex(interface.c_str()));
    controller.handed.insert_or_assign(
        interface, Handed{.entry = entry, .index = if_nametoindex(interface.c_str()), .isConfirmed = false});
    if (IsServer(entry))
        AskAnew(controller.follower, kServerLeaseInformation, interface);
    else if (!controller.applying.interfaces.contains(interface))
        WatchFormerAddress(controller, interface, isAsLeft);
    KeepApplying(controller, interface, entry);
}

// It is not for this process any more: nothing that came from it stays.
void LetGo(Controller& controller, const std::string& interface) {
    const bool release = controller.handed.at(interface).entry.release;
    KeepWhatItHas(controller, interface);
    FinaliseQuietly(controller, interface, release);
    if (controller.calls.isSilent) return;
    controller.handed.erase(interface);
    EndApplying(controller.applying, interface, false);
    RemoveOwnAddress(controller, interface);
    controller.applying.holdings.each[interface].state.reset();
    controller.kept.each[interface].request.clear();
    controller.isUnsaved = true;
    SayOf(interface, "released");
}

}  // namespace ostrelctl
