// Memory of the simulated device: the C library's, counted, and failing when a test says so.

#include <cstdlib>

#include "Internals.h"
#include "os_memory.h"

namespace {

size_t liveBlocks = 0;

}  // namespace

void* os_zalloc(size_t size) noexcept {
    if (sim::Refuses(sim::DeviceCall::Allocate)) return nullptr;
    void* memory = std::calloc(1, size == 0 ? 1 : size);
    if (memory != nullptr) ++liveBlocks;
    return memory;
}

void os_free(void* memory) noexcept {
    if (memory == nullptr) return;
    --liveBlocks;
    std::free(memory);
}

size_t sim::LiveBlocks() {
    return liveBlocks;
}
