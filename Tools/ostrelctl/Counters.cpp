// The daemon's counters, by the list that it counts by.
#include "Counters.h"

#include "Ostrel/Counters.h"

namespace ostrelctl {

namespace {

std::string WordsOf(const CounterGroup& group) {
    std::string words;
    for (const Counter& counter : group.counters)
        if (counter.value != 0)
            words += (words.empty() ? "" : ", ") + (counter.isDrop ? "dropped " + counter.name : counter.name) + ' ' +
                     std::to_string(counter.value);
    return words.empty() ? "none yet" : words;
}

template <typename Names>
void PutGroup(const InterfaceState& state, const char* name, const Names& names, std::vector<CounterGroup>& groups) {
    if (!state.told["counters"][name].isObject()) return;
    CounterGroup group{.name = name, .counters = {}, .words = {}};
    for (const auto& counter : names)
        group.counters.push_back(
            {.name = counter.name, .help = counter.help, .value = CounterOf(state, name, counter.name)});
    for (uint32_t kind = 1; kind < kNumVerdicts; ++kind) {
        const char* const reason = Ostrel_VerdictName(static_cast<Ostrel_VerdictKind>(kind));
        group.counters.push_back(
            {.name = reason,
             .help = "frames that were dropped: " + Ostrel_VerdictText({.kind = static_cast<Ostrel_VerdictKind>(kind)}),
             .value = DroppedOf(state, name, reason),
             .isDrop = true});
    }
    group.words = WordsOf(group);
    groups.push_back(std::move(group));
}

}  // namespace

std::vector<CounterGroup> CountersOf(const InterfaceState& state) {
    std::vector<CounterGroup> groups;
    PutGroup(state, "client", kClientCounters, groups);
    PutGroup(state, "server", kServerCounters, groups);
    PutGroup(state, "arp", kARPCounters, groups);
    return groups;
}

}  // namespace ostrelctl
