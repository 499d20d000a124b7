// Plays as bytes.

#include "Play.h"

#include <algorithm>

namespace sim::fuzz {

Play ReadPlay(std::span<const uint8_t> bytes) {
    Play play{};
    if (bytes.size() < 2) return play;
    play.scene = bytes[0];
    play.flags = bytes[1];
    bytes = bytes.subspan(2);
    while (bytes.size() >= 2) {
        const size_t wanted = bytes.size() < 4 ? 0 : bytes[2] + bytes[3] * size_t{256};
        const size_t begin = std::min<size_t>(bytes.size(), 4);
        const auto data = bytes.subspan(begin, std::min(wanted, bytes.size() - begin));
        play.steps.push_back({static_cast<StepKind>(bytes[0] % static_cast<uint8_t>(StepKind::kCount)),
                              bytes[1],
                              {data.begin(), data.end()}});
        bytes = bytes.subspan(begin + data.size());
    }
    return play;
}

std::vector<uint8_t> WritePlay(const Play& play) {
    std::vector<uint8_t> bytes{play.scene, play.flags};
    for (const Step& step : play.steps) {
        const size_t size = std::min<size_t>(step.data.size(), UINT16_MAX);
        bytes.insert(bytes.end(), {static_cast<uint8_t>(step.kind), step.argument, static_cast<uint8_t>(size),
                                   static_cast<uint8_t>(size >> 8)});
        bytes.insert(bytes.end(), step.data.begin(), step.data.begin() + size);
    }
    return bytes;
}

}  // namespace sim::fuzz
