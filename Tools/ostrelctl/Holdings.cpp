// What interfaces hold, kept up to date with what the daemon tells.
#include <utility>

#include "Fields.h"
#include "Follow.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

using Before = std::map<std::string, Holding>;

bool IsFollowed(const Holdings& holdings, const std::string& interface) {
    return holdings.only.empty() || holdings.only.contains(interface);
}

template <typename Said>
void HearOf(Holdings& holdings, const std::string& interface, const Said& said, const Hearing& hearing,
            Before& before) {
    Holding& holding = holdings.each[interface];
    before.try_emplace(interface, holding);
    Hear(holding, said, hearing);
}

void SayUnmanaged(Holdings& holdings, const std::string& interface, bool isServer) {
    if (!holdings.unmanagedSaid.insert(interface).second) return;
    Complain('\'' + interface + (isServer ? "' is a server, and gets no address" : "' is not managed yet"),
             "waiting; 'ostrelctl client " + interface + "' hands it over" + (isServer ? " when it is released" : ""));
}

void SayWhatIsMissing(Holdings& holdings) {
    for (const std::string& interface : holdings.only) {
        const auto& state = holdings.each[interface].state;
        if (!state || (state->server && !state->client)) SayUnmanaged(holdings, interface, state.has_value());
    }
}

// An answer shows all that there is: what it does not list is not managed. What the last daemon left waits until the
// new one has been handed the interface.
void HearWhole(Holdings& holdings, const std::vector<InterfaceState>& states, const Hearing& hearing, Before& before) {
    std::set<std::string> missing;
    for (const auto& [interface, holding] : holdings.each)
        if (!holding.isLeft) missing.insert(interface);
    for (const InterfaceState& state : states) missing.erase(state.interface);
    for (const std::string& interface : missing)
        HearOf(holdings, interface, InterfaceState{.interface = interface}, hearing, before);
    holdings.isTold = true;
}

void HearStates(Holdings& holdings, const Event& event, Before& before) {
    const std::vector<InterfaceState> states = ReadStates(event.root);
    for (const InterfaceState& state : states)
        if (IsFollowed(holdings, state.interface)) HearOf(holdings, state.interface, state, event.hearing, before);
    if (!event.posted) HearWhole(holdings, states, event.hearing, before);
    SayWhatIsMissing(holdings);
}

// A reply about one that has just been released lists the others.
void HearDetails(Holdings& holdings, const Event& event, Before& before) {
    for (const ClientLease& lease : ReadClientLeases(event.root))
        if (lease.interface == event.interface && holdings.each.contains(lease.interface))
            HearOf(holdings, lease.interface, lease, event.hearing, before);
}

void ForgetAll(Holdings& holdings, TimePoint until, Before& before) {
    for (auto& [interface, holding] : holdings.each) {
        before.try_emplace(interface, holding);
        Forget(holding, until);
    }
    holdings.isTold = false;
    holdings.unmanagedSaid.clear();
}

}  // namespace

Subscription SubscriptionFor(const Holdings& holdings) {
    return {.method = &kInterfaceState, .interface = holdings.only.size() == 1 ? *holdings.only.begin() : ""};
}

std::map<std::string, Holding> HearEvent(Holdings& holdings, Follower& follower, const Event& event) {
    Before before;
    if (event.news == News::DaemonGone) ForgetAll(holdings, kNever, before);
    if (event.news == News::DaemonBack) ForgetAll(holdings, Clock::now() + holdings.grace, before);
    if (event.news == News::Told && event.method == &kInterfaceState) HearStates(holdings, event, before);
    if (event.news == News::Told && event.method == &kClientLeaseInformation) HearDetails(holdings, event, before);
    if (event.news == News::Deadline)
        for (auto& [interface, holding] : holdings.each)
            if (Clock::now() >= NextEnd(holding)) before.try_emplace(interface, holding);
    for (auto& [interface, holding] : holdings.each) {
        GiveUpEnded(holding, Clock::now());
        if (std::exchange(holding.detailsAreDue, false)) AskFor(follower, kClientLeaseInformation, interface);
    }
    return before;
}

TimePoint NextEnd(const Holdings& holdings) {
    TimePoint next = kNever;
    for (const auto& [interface, holding] : holdings.each) next = std::min(next, NextEnd(holding));
    return next;
}

}  // namespace ostrelctl
