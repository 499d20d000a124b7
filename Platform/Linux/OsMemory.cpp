// Memory: the C library's, where fresh pages come zero-filled without being touched.
#include <cstdlib>

#include "os_memory.h"

void* os_zalloc(size_t size) noexcept {
    return std::calloc(1, size == 0 ? 1 : size);
}

void os_free(void* memory) noexcept {
    std::free(memory);
}
