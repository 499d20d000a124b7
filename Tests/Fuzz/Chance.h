// Choices that a mutator makes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace sim::fuzz {

class Chance {
public:
    explicit Chance(unsigned seed) : random(seed) {}
    // A number below `end`; 0 where there is none.
    [[nodiscard]] size_t Below(size_t end) { return end == 0 ? 0 : random() % end; }
    [[nodiscard]] bool OneIn(size_t count) { return Below(count) == 0; }
    template <typename List>
    [[nodiscard]] auto& Of(List& list) {
        return list[Below(std::size(list))];
    }

private:
    std::minstd_rand random;
};

// Lets libFuzzer change the bytes, with its dictionaries and what it has seen compared, and grow them a little.
template <typename Bytes>
void MutateBytes(Bytes& bytes, size_t growth) {
    const size_t size = bytes.size();
    bytes.resize(size + growth);
    bytes.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(bytes.data()), size, bytes.size()));
}

}  // namespace sim::fuzz
