// How many frames a role may send, whatever servers, neighbours and strangers make it do.
#pragma once

#include <array>
#include <cstdint>

// When the latest frames went out, in milliseconds of the monotonic clock: a ring.
struct Ostrel_FrameRing {
    std::array<uint64_t, 30> sent;
    uint32_t count;  // of them so far
};

// What a role's rules allow; 0: any number. No more a minute than the record holds.
struct Ostrel_FrameBudget {
    uint32_t mostPerSecond;
    uint32_t mostPerMinute;
};

// The milliseconds until a frame may go out after which there is room for `number - 1` more, in the minute, and in the
// second for as many of them as it holds; 0: now.
[[nodiscard]] uint32_t Ostrel_FrameRest(const Ostrel_FrameRing& frames, const Ostrel_FrameBudget& budget,
                                        uint32_t number = 1);

// A frame goes out now.
void Ostrel_FrameNote(Ostrel_FrameRing& frames);
