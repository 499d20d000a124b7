// What happened, as a hash that costs little and in words that cost more.

#include <array>
#include <cstdio>
#include <utility>

#include "Internals.h"
#include "frame_words.h"

namespace sim {
namespace {

constexpr size_t kRecentFrames = 12;

std::string TimeText(Duration time) {
    const auto micro = time.count();
    std::array<char, 32> text;
    const int length = std::snprintf(text.data(), text.size(), "%lld.%06lld", static_cast<long long>(micro / 1'000'000),
                                     static_cast<long long>(micro % 1'000'000));
    return {text.data(), static_cast<size_t>(length)};
}

// FNV-1a over 64-bit words.
void Mix(uint64_t& hash, uint64_t value) {
    hash = (hash ^ value) * 0x100000001B3;
}

void MixBytes(uint64_t& hash, std::span<const uint8_t> bytes) {
    uint64_t word = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        word = (word << 8) | bytes[i];
        if (i % 8 == 7) Mix(hash, std::exchange(word, 0));
    }
    Mix(hash, word);
    Mix(hash, bytes.size());
}

}  // namespace

std::string DescribeFrame(std::span<const uint8_t> frame) {
    const frame_words words = frame_words_of(frame);
    return words.source.empty() ? words.text : words.source + " -> " + words.destination + " " + words.text;
}

void World::State::TraceFrame(const std::shared_ptr<const Frame>& frame, bool inWords) {
    Mix(traceHash, static_cast<uint64_t>(now.count()));
    MixBytes(traceHash, *frame);
    recentFrames.push_back({now, frame});
    if (recentFrames.size() > kRecentFrames) recentFrames.pop_front();
    if (inWords) trace += TimeText(now) + " " + DescribeFrame(*frame) + "\n";
}

void World::State::TraceText(std::string_view what, std::string_view text, bool inWords) {
    Mix(traceHash, static_cast<uint64_t>(now.count()));
    MixBytes(traceHash, std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
    if (inWords) trace.append(TimeText(now)).append(" ").append(what).append(" ").append(text).append("\n");
}

uint64_t World::TraceHash() const {
    return state->traceHash;
}

const std::string& World::Trace() const {
    return state->trace;
}

std::string World::Describe() const {
    std::string text = "seed " + std::to_string(state->seed) + ", " + TimeText(state->now) + " s\n";
    for (const TracedFrame& one : state->recentFrames) {
        text += "  " + TimeText(one.time) + " " + DescribeFrame(*one.frame) + "\n";
    }
    return text;
}

}  // namespace sim
