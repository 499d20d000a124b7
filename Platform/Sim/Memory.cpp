// Memory of the simulated device: the C library's, counted, and failing when a test says so.

#include <cstdlib>

#include "Internals.h"
#include "os_memory.h"

namespace {

size_t liveBlocks = 0;
size_t allocationsUntilFailure = 0;  // 1: the next one fails; 0: none

}  // namespace

void* os_zalloc(size_t size) noexcept {
    if (allocationsUntilFailure != 0 && --allocationsUntilFailure == 0) return nullptr;
    void* memory = std::calloc(1, size == 0 ? 1 : size);
    if (memory != nullptr) ++liveBlocks;
    return memory;
}

void os_free(void* memory) noexcept {
    if (memory == nullptr) return;
    --liveBlocks;
    std::free(memory);
}

namespace sim {

size_t LiveBlocks() {
    return liveBlocks;
}
size_t AllocationsUntilFailure() {
    return allocationsUntilFailure;
}
void SetAllocationsUntilFailure(size_t count) {
    allocationsUntilFailure = count;
}

}  // namespace sim
