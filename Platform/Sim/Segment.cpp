// The wire: every frame goes to every other station, some time later, as often as the faults let it.
//
// All copies that are on time travel as one event; a late copy is an event of its own. What a copy suffers is drawn
// when the frame is sent, in the order in which the stations were attached.

#include <algorithm>

#include "Internals.h"

namespace sim {
namespace {

bool Chance(World& world, uint32_t perMille) {
    return perMille != 0 && world.random() % 1000 < perMille;
}

}  // namespace

void Segment::Attach(Station& station) {
    stations.push_back(&station);
}

void Segment::Detach(Station& station) {
    std::erase(stations, &station);
    ++detachments;
}

void Segment::Send(const Station& sender, std::span<const uint8_t> frame) {
    World& world = World::Get();
    World::State& state = world.Internals();
    const auto copy = std::make_shared<const Frame>(frame.begin(), frame.end());
    state.TraceFrame(copy, world.tracing);
    Remember(sender, *copy);

    std::vector<Station*> onTime;
    onTime.reserve(stations.size());
    MAC destination{};
    std::copy_n(frame.begin(), std::min(frame.size(), destination.size()), destination.begin());
    for (Station* const station : stations) {
        if (station == &sender || (switched && !station->IsBehind(destination)) ||
            (drop && drop(sender, *station, frame)))
            continue;
        const int copies = Chance(world, faults.duplication) ? 2 : 1;
        for (int i = 0; i < copies; ++i) {
            if (Chance(world, faults.loss)) continue;
            if (Chance(world, faults.delay)) {
                const auto range = static_cast<uint64_t>(faults.maximumDelay.count()) + 1;
                const Duration late(static_cast<int64_t>(world.random() % range));
                state.schedule.Add(state.now + latency + late,
                                   [this, copy, station] { Deliver(copy, std::span(&station, 1)); });
            } else {
                onTime.push_back(station);
            }
        }
    }
    if (onTime.empty()) return;
    state.schedule.Add(state.now + latency, [this, copy, onTime = std::move(onTime)] { Deliver(copy, onTime); });
}

void Segment::Remember(const Station& sender, const Frame& frame) {
    if (sentLimit == 0) return;
    if (sent.size() >= 2 * sentLimit) sent.erase(sent.begin(), sent.end() - static_cast<ptrdiff_t>(sentLimit));
    sent.push_back({World::Get().Now(), &sender, frame});
}

void Segment::Deliver(const std::shared_ptr<const Frame>& frame, std::span<Station* const> receivers) {
    World::State& state = World::Get().Internals();
    state.frameOnWire = frame.get();
    state.verdicts.assign(state.programs.size(), -1);
    for (Station* const station : receivers) {
        // Who has left since must not be touched; on most segments nobody ever leaves.
        if (detachments != 0 && std::find(stations.begin(), stations.end(), station) == stations.end()) continue;
        station->Receive(*frame);
    }
    state.frameOnWire = nullptr;
}

}  // namespace sim
