// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/detail/GrownBytes.h>

#include <cstdlib>
#include <new>

namespace courier::hub::serialisation::detail {

namespace {

std::byte* orThrow(void* memory) {
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return static_cast<std::byte*>(memory);
}

} // namespace

GrownBytes GrownBytes::allocate(std::size_t size) { return {orThrow(std::malloc(size)), size}; }

GrownBytes GrownBytes::allocateZeroed(std::size_t size) {
    return {orThrow(std::calloc(size, 1)), size};
}

void GrownBytes::grow(std::size_t size) {
    start = orThrow(std::realloc(start, size));
    capacity = size;
}

void GrownBytes::free() noexcept {
    std::free(start);
    *this = {};
}

} // namespace courier::hub::serialisation::detail
