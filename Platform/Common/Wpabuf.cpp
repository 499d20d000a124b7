// Byte buffers: a header with the capacity and the used length, and the bytes behind it in the same block.
//
// The used length only grows through wpabuf_put, which is the one place where it is compared with the capacity, so that
// whoever fills a buffer need not count.
#include "wpabuf.h"

#include <algorithm>

struct wpabuf {
    size_t capacity;
    size_t used;
};

namespace {

uint8_t* Bytes(wpabuf* buffer) noexcept {
    return reinterpret_cast<uint8_t*>(buffer + 1);
}

}  // namespace

wpabuf* wpabuf_alloc(size_t capacity) noexcept {
    if (capacity > SIZE_MAX - sizeof(wpabuf)) return nullptr;
    void* memory = os_zalloc(sizeof(wpabuf) + capacity);
    return memory == nullptr ? nullptr : new (memory) wpabuf{.capacity = capacity, .used = 0};
}

void wpabuf_free(wpabuf* buffer) noexcept {
    os_free(buffer);
}

void wpabuf_reset(wpabuf* buffer) noexcept {
    buffer->used = 0;
}

std::span<uint8_t> wpabuf_put(wpabuf* buffer, size_t length) noexcept {
    if (length == 0 || length > wpabuf_room(buffer)) return {};
    const std::span<uint8_t> added(Bytes(buffer) + buffer->used, length);
    buffer->used += length;
    return added;
}

bool wpabuf_put_data(wpabuf* buffer, std::span<const uint8_t> bytes) noexcept {
    const std::span<uint8_t> room = wpabuf_put(buffer, bytes.size());
    if (room.size() != bytes.size()) return false;
    std::copy(bytes.begin(), bytes.end(), room.begin());
    return true;
}

size_t wpabuf_len(const wpabuf* buffer) noexcept {
    return buffer->used;
}

size_t wpabuf_room(const wpabuf* buffer) noexcept {
    return buffer->capacity - buffer->used;
}

std::span<const uint8_t> wpabuf_bytes(const wpabuf* buffer) noexcept {
    return {reinterpret_cast<const uint8_t*>(buffer + 1), buffer->used};
}
