// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <cstdlib>
#include <utility>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED
#endif
#endif

// Replaces operator new and the C library's functions, because the library calls both. A call of
// malloc calls REPLACED(malloc), which calls NEXT(malloc), the original.
#if defined(_WIN32) // only operator new: MinGW's mutexes call malloc, and never free the memory
#define REPLACED(name) replaced_##name
#define NEXT(name) std::name
#elif defined(SANITIZED)
#define REPLACED(name) name
#define NEXT(name) __interceptor_##name
#else
#define REPLACED(name) name
#define NEXT(name) __libc_##name
#endif

// ThreadSanitizer calls them before it can run instrumented code.
#define EARLY __attribute__((no_sanitize("thread")))

#if !defined(_WIN32)
extern "C" {
void* NEXT(malloc)(std::size_t size) noexcept;
void* NEXT(calloc)(std::size_t count, std::size_t size) noexcept;
void* NEXT(realloc)(void* block, std::size_t size) noexcept;
void NEXT(free)(void* block) noexcept;
}
#endif

namespace {
constexpr std::size_t never = static_cast<std::size_t>(-1);
thread_local std::size_t countdown = never;
thread_local std::size_t made = 0;
thread_local std::size_t freed = 0;

EARLY void* counted(void* block) {
    made += block != nullptr;
    return block;
}

} // namespace

namespace tests {
void failAfter(std::size_t n) { countdown = n; }
bool stopFailing() { return std::exchange(countdown, never) == never; }
EARLY bool isFault() { return countdown != never && countdown-- == 0; } // after that it is `never`
std::size_t allocations() { return made; }
std::size_t unfreed() { return made - freed; }
} // namespace tests

extern "C" {
EARLY void* REPLACED(malloc)(std::size_t size) noexcept {
    return tests::isFault() ? nullptr : counted(NEXT(malloc)(size));
}
EARLY void* REPLACED(calloc)(std::size_t nmemb, std::size_t size) noexcept {
    return tests::isFault() ? nullptr : counted(NEXT(calloc)(nmemb, size));
}
EARLY void* REPLACED(realloc)(void* ptr, std::size_t size) noexcept {
    void* const larger = tests::isFault() ? nullptr : NEXT(realloc)(ptr, size);
    return ptr == nullptr ? counted(larger) : larger;
}
EARLY void REPLACED(free)(void* ptr) noexcept {
    freed += ptr != nullptr;
    NEXT(free)(ptr);
}
#if !defined(_WIN32) && !defined(SANITIZED)
// No fault point: libc++ allocates exceptions with it, and if that fails, uses reserved memory.
void* NEXT(memalign)(std::size_t alignment, std::size_t size) noexcept;
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return counted(NEXT(memalign)(alignment, size));
}
#endif
}

// Those for arrays call them.
void* operator new(std::size_t size) {
    void* const block = REPLACED(malloc)(size);
    return block != nullptr ? block : throw std::bad_alloc();
}
void operator delete(void* block) noexcept { REPLACED(free)(block); }
void operator delete(void* block, std::size_t) noexcept { REPLACED(free)(block); }
