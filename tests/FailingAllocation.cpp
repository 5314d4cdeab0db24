// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <cstdlib>
#include <utility>

namespace {
constexpr std::size_t never = static_cast<std::size_t>(-1);
thread_local std::size_t countdown = never;
thread_local std::size_t made = 0;
thread_local std::size_t freed = 0;

void* allocate(std::size_t size) {
    void* const block = tests::isFault() ? nullptr : std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    ++made;
    return block;
}

void release(void* block) noexcept {
    freed += block != nullptr;
    std::free(block);
}
} // namespace

namespace tests {
void failAfter(std::size_t n) { countdown = n; }
bool stopFailing() { return std::exchange(countdown, never) == never; }
bool isFault() { return countdown != never && countdown-- == 0; } // it is then `never`
std::size_t allocations() { return made; }
std::size_t unfreed() { return made - freed; }
} // namespace tests

// Stand in front of the library's own, which take memory from std::malloc. A DLL cannot be served
// so.
#if !defined(_WIN32) || defined(COURIER_HUB_SERIALISATION_STATIC_DEFINE)
namespace courier::hub::serialisation::detail {
GrownBytes GrownBytes::allocate(std::size_t size) {
    return {static_cast<std::byte*>(::allocate(size)), size};
}
GrownBytes GrownBytes::allocateZeroed(std::size_t size) {
    GrownBytes const bytes = allocate(size);
    std::memset(bytes.start, 0, size);
    return bytes;
}
void GrownBytes::grow(std::size_t size) {
    GrownBytes larger = allocate(size); // elsewhere: an address that is kept too long shows
    std::memcpy(larger.start, start, capacity);
    free();
    *this = larger;
}
void GrownBytes::free() noexcept {
    release(start);
    *this = {};
}
} // namespace courier::hub::serialisation::detail
#endif

// Those for arrays call these.
void* operator new(std::size_t size) { return allocate(size); }
void operator delete(void* block) noexcept { release(block); }
void operator delete(void* block, std::size_t) noexcept { release(block); }

// The start of the whole block lies before the aligned one.
void* operator new(std::size_t size, std::align_val_t alignment) {
    auto const step = static_cast<std::size_t>(alignment);
    auto* const block = static_cast<char*>(allocate(size + step));
    char* const aligned = block + step - reinterpret_cast<std::uintptr_t>(block) % step;
    std::memcpy(aligned - sizeof(block), &block, sizeof(block));
    return aligned;
}
void operator delete(void* aligned, std::align_val_t) noexcept {
    if (aligned != nullptr) {
        void* block = nullptr;
        std::memcpy(&block, static_cast<char*>(aligned) - sizeof(block), sizeof(block));
        release(block);
    }
}
void operator delete(void* aligned, std::size_t, std::align_val_t alignment) noexcept {
    operator delete(aligned, alignment);
}
