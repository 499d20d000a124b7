// Byte buffers of fixed capacity with a used length: where frames and messages are built. Only wpabuf_free takes an
// absent buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "os_memory.h"

struct wpabuf;  // owned by whoever called wpabuf_alloc

// An empty buffer that can hold `capacity` bytes; null when memory is out.
[[nodiscard]] wpabuf* wpabuf_alloc(size_t capacity) noexcept;

// Gives the buffer back. Null is ignored.
void wpabuf_free(wpabuf* buffer) noexcept;

// Sets the used length to 0; the bytes stay.
void wpabuf_reset(wpabuf* buffer) noexcept;

// Grows the used length by `length` and returns the added room, to be filled by the caller. Growing past the capacity
// is refused: an empty span, and the buffer unchanged. A length of 0 gives an empty span too.
[[nodiscard]] std::span<uint8_t> wpabuf_put(wpabuf* buffer, size_t length) noexcept;

// Appends `bytes` whole, or nothing: false when they don't fit.
[[nodiscard]] bool wpabuf_put_data(wpabuf* buffer, std::span<const uint8_t> bytes) noexcept;

// Used length, and the bytes left to the capacity.
[[nodiscard]] size_t wpabuf_len(const wpabuf* buffer) noexcept;
[[nodiscard]] size_t wpabuf_room(const wpabuf* buffer) noexcept;

// The used bytes; valid until the buffer is freed.
[[nodiscard]] std::span<const uint8_t> wpabuf_bytes(const wpabuf* buffer) noexcept;
