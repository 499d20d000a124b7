// Memory for the daemon's records.
//
// Everything the daemon allocates by itself comes from os_zalloc: zero-filled, and null when there is none left, never
// an exception. A platform may let an allocation fail on purpose; that is how tests reach every failure path.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <type_traits>

// A zero-filled block of `size` bytes, aligned for any record; null when memory is out. A size of 0 is not a failure:
// it gives a block that may only be freed.
[[nodiscard]] void* os_zalloc(size_t size) noexcept;

// Gives a block back. Null is ignored.
void os_free(void* memory) noexcept;

struct os_deleter {
    void operator()(void* memory) const noexcept { os_free(memory); }
};

// An owned array of plain elements from os_zalloc.
template <typename Element>
using os_array = std::unique_ptr<Element[], os_deleter>;

// `count` zero-filled elements; null when memory is out or the size overflows. A count of 0 is not a failure.
template <typename Element>
[[nodiscard]] os_array<Element> os_zalloc_array(size_t count) noexcept {
    static_assert(std::is_trivially_destructible_v<Element> && alignof(Element) <= alignof(std::max_align_t));
    if (count > SIZE_MAX / sizeof(Element)) return nullptr;
    return os_array<Element>(static_cast<Element*>(os_zalloc(count * sizeof(Element))));
}

// A copy of `elements` with `spare` zero-filled ones behind it; null when memory is out. The element type is named by
// the caller, so that whatever is a span of such elements can be handed over: os_copy_array<char>(text, 1).
template <typename Element>
[[nodiscard]] os_array<Element> os_copy_array(std::type_identity_t<std::span<const Element>> elements,
                                              size_t spare = 0) noexcept {
    static_assert(std::is_trivially_copyable_v<Element>);
    if (spare > SIZE_MAX - elements.size()) return nullptr;
    os_array<Element> copy = os_zalloc_array<Element>(elements.size() + spare);
    if (copy != nullptr) std::copy(elements.begin(), elements.end(), copy.get());
    return copy;
}

// One record, every field zero; null when memory is out.
template <typename Record>
[[nodiscard]] Record* os_new() noexcept {
    static_assert(std::is_nothrow_default_constructible_v<Record> && alignof(Record) <= alignof(std::max_align_t));
    void* memory = os_zalloc(sizeof(Record));
    return memory == nullptr ? nullptr : new (memory) Record{};
}

// Destroys a record from os_new. Null is ignored.
template <typename Record>
void os_delete(Record* record) noexcept {
    if (record == nullptr) return;
    record->~Record();
    os_free(record);
}

struct os_record_deleter {
    template <typename Record>
    void operator()(Record* record) const noexcept {
        os_delete(record);
    }
};

// An owned record from os_new.
template <typename Record>
using os_owner = std::unique_ptr<Record, os_record_deleter>;

template <typename Record>
struct os_records_deleter {
    size_t count = 0;
    void operator()(Record* records) const noexcept {
        std::destroy_n(records, count);
        os_free(records);
    }
};

// An owned array of records that own something themselves.
template <typename Record>
using os_records = std::unique_ptr<Record[], os_records_deleter<Record>>;

// `count` records, every field zero; null when memory is out or the size overflows.
template <typename Record>
[[nodiscard]] os_records<Record> os_new_records(size_t count) noexcept {
    static_assert(std::is_nothrow_default_constructible_v<Record> && alignof(Record) <= alignof(std::max_align_t));
    if (count > SIZE_MAX / sizeof(Record)) return nullptr;
    auto* const records = static_cast<Record*>(os_zalloc(count * sizeof(Record)));
    if (records != nullptr) std::uninitialized_value_construct_n(records, count);
    return {records, {count}};
}
