// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/detail/GrowingBytes.h>

#include <cstdlib>
#include <new>

namespace courier::hub::serialisation::detail {

namespace {

std::byte* checked(void* block) {
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return static_cast<std::byte*>(block);
}

} // namespace

GrowingBytes GrowingBytes::zeroed(std::size_t n, std::size_t capacity) {
    GrowingBytes bytes;
    if (capacity != 0) {
        bytes.data_ = checked(std::calloc(capacity, 1));
        bytes.size_ = n;
        bytes.capacity_ = capacity;
    }
    return bytes;
}

void GrowingBytes::reallocate(std::size_t capacity) {
    if (capacity_ != 0) {
        data_ = checked(std::realloc(data_, capacity));
    } else if (capacity == 0) {
        data_ = nullptr;
    } else {
        std::byte* const copy = checked(std::malloc(capacity));
        if (size_ != 0) {
            std::memcpy(copy, data_, size_);
        }
        data_ = copy;
    }
    capacity_ = capacity;
}

// Not inline, so that the library's std::free is called: each module may have one of its own.
void GrowingBytes::release(std::byte* data) noexcept { std::free(data); }

} // namespace courier::hub::serialisation::detail
