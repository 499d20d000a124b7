// The controlling process, step by step. Docs/controlling.md follows its order.
//
// Whatever happens, the whole is looked at: what there is (interfaces), what should be (files), what the daemon has
// been handed and tells. Each step only does what is missing, so that nothing has to be known of how it came about.
#include "Control.h"

#include <algorithm>
#include <net/if.h>
#include <utility>

#include "Device.h"
#include "FormerAddress.h"
#include "Handing.h"
#include "KeptFile.h"
#include "Lines.h"
#include "Notify.h"
#include "Others.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

using std::chrono::seconds;

constexpr seconds kSavePause{1};  // between two writes: flash wears

// By the rules of the RFCs the daemon itself waits for an interface that was taken out.
bool HasToGo(const Controller& controller, const std::string& interface, const Handed& handed) {
    const Entry* const entry = EntryFor(controller.configuration, interface);
    const bool isThere = if_nametoindex(interface.c_str()) != 0;
    return entry == nullptr || !IsSame(*entry, handed.entry) || (!isThere && IsPlain(handed.entry));
}

void LetGoWhatHasTo(Controller& controller) {
    std::vector<std::string> gone;
    for (const auto& [interface, handed] : controller.handed)
        if (HasToGo(controller, interface, handed)) gone.push_back(interface);
    for (const std::string& interface : gone)
        if (!controller.calls.isSilent) LetGo(controller, interface);
}

// --- What there is ---

// True, and said once, while another program configures the interface: two that do undo each other's work.
bool IsOthers(Controller& controller, const std::string& interface) {
    const std::string manager = OtherManagerOf(interface);
    std::string& said = controller.left[interface];
    if (std::exchange(said, manager) != manager && !manager.empty())
        Complain('\'' + interface + "' is left alone: " + manager + " configures it",
                 HowToTakeFrom(manager, interface));
    return !manager.empty();
}

// The daemon follows an interface to its new name, which no table may be for.
void DropRenamed(Controller& controller, const std::string& interface) {
    if (StateOf(controller, interface) == nullptr) return;
    if (controller.lost.erase(if_nametoindex(interface.c_str())) > 0) FinaliseQuietly(controller, interface, false);
}

// Its table has gone while this process was away.
void DropForgotten(Controller& controller, const std::string& interface) {
    const auto kept = controller.kept.each.find(interface);
    if (kept == controller.kept.each.end() || kept->second.request.empty()) return;
    const bool isOurs = controller.kept.owner == controller.follower.owner;
    if (isOurs && StateOf(controller, interface) != nullptr) FinaliseQuietly(controller, interface, false);
    if (controller.calls.isSilent) return;
    RemoveOwnAddress(controller, interface);
    kept->second.request.clear();
    controller.isUnsaved = true;
    SayOf(interface, "released: no table is for it any more");
}

// The daemon still knows it by another name; it will tell.
bool IsBeingRenamed(const Controller& controller, const std::string& interface) {
    const unsigned index = if_nametoindex(interface.c_str());
    return std::ranges::any_of(controller.handed, [&](const auto& each) {
        return each.first != interface && each.second.index == index && if_nametoindex(each.first.c_str()) == 0;
    });
}

void LookAt(Controller& controller, const std::string& interface) {
    const Entry* const entry = EntryFor(controller.configuration, interface);
    const auto handed = controller.handed.find(interface);
    if (entry == nullptr) {
        DropRenamed(controller, interface);
        return DropForgotten(controller, interface);
    }
    if (IsBeingRenamed(controller, interface)) return;
    if (handed != controller.handed.end()) {
        handed->second.index = if_nametoindex(interface.c_str());
        KeepApplying(controller, interface, *entry);
        return KeepOwnAddress(controller, interface, *entry);
    }
    if (Waits(controller, interface) || IsOthers(controller, interface)) return;
    TakeUp(controller, interface, *entry);
}

// Any call has the bus start the daemon; that it is there then is told as ever.
void CallDaemon(Controller& controller) {
    const bool isWanted = std::ranges::any_of(EthernetInterfaces(), [&controller](const std::string& interface) {
        return EntryFor(controller.configuration, interface) != nullptr;
    });
    if (!isWanted) {
        controller.nextWake = kNever;
        controller.isAbsent = true;
        return;
    }
    if (controller.nextWake != kNever && Clock::now() < controller.nextWake) return;
    controller.calls.isSilent = false;
    const Answer answer = AskQuietly(controller.calls, kInterfaceState, valdo::Object());
    controller.isAbsent = answer.status == kExitNoDaemon;
    controller.nextWake = Clock::now() + kWakePause;
}

// A daemon that has let one call go unanswered is asked nothing more before it has answered a question that nobody
// waits for. What it manages is in the answer.
void AwaitAnswer(Controller& controller) {
    if (!controller.calls.isSilent) return;
    AskFor(controller.follower, kInterfaceState, {});
    controller.refused.clear();
}

void LookAtAll(Controller& controller) {
    if (controller.follower.owner.empty()) return CallDaemon(controller);
    if (controller.calls.isSilent) return AwaitAnswer(controller);
    if (!controller.applying.holdings.isTold) return;  // what it manages comes with its first answer
    LetGoWhatHasTo(controller);
    for (const std::string& interface : EthernetInterfaces())
        if (!controller.calls.isSilent) LookAt(controller, interface);
    AwaitAnswer(controller);
}

// --- What is heard ---

// The daemon has been told to let an interface go, or has followed it to another name.
void HearStates(Controller& controller) {
    std::vector<std::string> gone;
    for (auto& [interface, handed] : controller.handed) {
        if (StateOf(controller, interface) != nullptr)
            handed.isConfirmed = true;
        else if (handed.isConfirmed)
            gone.push_back(interface);
    }
    for (const std::string& interface : gone) {
        controller.lost[controller.handed.at(interface).index] = interface;
        controller.handed.erase(interface);
        if (if_nametoindex(interface.c_str()) == 0) EndApplying(controller.applying, interface, false);
    }
}

void KeepAddresses(Controller& controller) {
    for (const auto& [interface, holding] : controller.applying.holdings.each) {
        const bool isLeased = holding.lease && !IsLinkLocal(holding.lease->address) && holding.lease->times;
        if (!isLeased || !controller.handed.contains(interface)) continue;
        std::string& kept = controller.kept.each[interface].address;
        const std::string address = AddressText(holding.lease->address);
        if (std::exchange(kept, address) != address) controller.isUnsaved = true;
    }
}

void KeepLeasesOf(Controller& controller, const Event& event) {
    const JValue leases = LeasesOf(event.root, event.interface);
    if (!leases.isArray() || !controller.handed.contains(event.interface)) return;
    controller.kept.each[event.interface].leases = leases;
    controller.isUnsaved = true;
}

void AskForStaleTables(Controller& controller) {
    if (controller.staleTables.empty() || Clock::now() < controller.nextTables) return;
    size_t leases = 0;
    for (const auto& [interface, kept] : controller.kept.each) leases += kept.leases.arraySize();
    for (const std::string& interface : controller.staleTables)
        AskFor(controller.follower, kServerLeaseInformation, interface);
    controller.staleTables.clear();
    controller.nextTables = Clock::now() + TablePause(leases);
}

void NoteStaleTables(Controller& controller, const Event& event) {
    const JValue interface = event.root["interface"];
    std::string name;
    const bool isOfOne = interface.asString(name) == valdo::CONV_OK;
    for (const auto& [each, handed] : controller.handed)
        if (IsServer(handed.entry) && (!isOfOne || each == name)) controller.staleTables.insert(each);
}

void Hear(Controller& controller, const Event& event) {
    if (event.news == News::DaemonGone || event.news == News::DaemonBack) {
        controller.handed.clear();
        controller.staleTables.clear();
        controller.calls.isSilent = false;
    }
    if (event.news == News::DaemonBack) controller.refused.clear();
    if (event.news != News::Told) return;
    if (!event.posted) controller.calls.isSilent = false;
    if (event.method == &kInterfaceState) HearStates(controller);
    if (event.method == &kServerLeaseInformation) KeepLeasesOf(controller, event);
    if (event.method == &kLeaseEvents && event.posted) NoteStaleTables(controller, event);
    KeepAddresses(controller);
}

// --- What is told ---

std::string StatusOf(const Controller& controller, const std::string& interface, const Handed& handed) {
    const InterfaceState* const state = StateOf(controller, interface);
    if (IsServer(handed.entry)) {
        const int64_t active = state != nullptr && state->server ? state->server->active : 0;
        return interface + " serves " + std::to_string(active);
    }
    const auto holding = controller.applying.holdings.each.find(interface);
    const bool hasLease = holding != controller.applying.holdings.each.end() && holding->second.lease;
    return interface + (hasLease ? ' ' + AddressText(holding->second.lease->address) : " has no address yet");
}

void TellManager(Controller& controller) {
    std::string status;
    for (const auto& [interface, handed] : controller.handed)
        status += (status.empty() ? "" : ", ") + StatusOf(controller, interface, handed);
    if (status.empty())
        status = controller.follower.owner.empty() ? "waiting for the daemon" : "waiting for interfaces";
    const bool isReady = !controller.status.empty();
    const bool isDone = controller.follower.owner.empty() ? controller.isAbsent : controller.applying.holdings.isTold;
    if (!isDone || std::exchange(controller.status, status) == status) return;
    NotifyManager((isReady ? "STATUS=" : "READY=1\nSTATUS=") + status);
}

}  // namespace

const InterfaceState* StateOf(const Controller& controller, const std::string& interface) {
    const auto found = controller.applying.holdings.each.find(interface);
    const bool isKnown = found != controller.applying.holdings.each.end() && found->second.state;
    return isKnown ? &*found->second.state : nullptr;
}

void SayOf(const std::string& interface, const std::string& words) {
    printf("%s%s\n", LineHead(interface).c_str(), words.c_str());
    (void)fflush(stdout);
}

void Reload(Controller& controller) {
    Configuration read;
    const std::vector<std::string> files = controller.files.empty() ? UsualFiles() : controller.files;
    if (ReadFiles(files, read) != kExitDone) return Complain("what worked before goes on", "");
    controller.configuration = std::move(read);
    controller.refused.clear();
    controller.left.clear();
    KeepDnsInFile(controller.configuration.resolvConf);
    LookAtAll(controller);
    TellManager(controller);
    NotifyManager("STATUS=" + controller.status);
}

void Control(Controller& controller, const Event& event) {
    Apply(controller.applying, controller.follower, event);
    Hear(controller, event);
    LookAtAll(controller);
    DropFormerAddresses(controller);
    AskForStaleTables(controller);
    std::erase_if(controller.refused, [](const auto& each) { return each.second <= Clock::now(); });
    TellManager(controller);
    if (controller.isUnsaved && Clock::now() >= controller.savedAt + kSavePause) Save(controller);
}

TimePoint NextEnd(const Controller& controller) {
    TimePoint next = std::min(NextEnd(controller.applying), NextFormerAddress(controller));
    for (const auto& [interface, when] : controller.refused) next = std::min(next, when);
    if (controller.isUnsaved) next = std::min(next, controller.savedAt + kSavePause);
    if (!controller.staleTables.empty()) next = std::min(next, controller.nextTables);
    if (controller.follower.owner.empty()) next = std::min(next, controller.nextWake);
    return next;
}

void Save(Controller& controller) {
    if (!controller.isUnsaved) return;
    controller.savedAt = Clock::now();
    controller.isUnsaved = SaveState(controller.stateFile, controller.kept) != kExitDone;
    if (controller.isUnsaved) controller.savedAt += kRefusedPause;  // it has been complained about
}

}  // namespace ostrelctl
