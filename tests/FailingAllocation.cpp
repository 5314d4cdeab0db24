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
#if defined(_WIN32) // only operator new
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
}
#endif

namespace {
constexpr std::size_t never = static_cast<std::size_t>(-1);
thread_local std::size_t countdown = never;
thread_local std::size_t made = 0;
} // namespace

namespace tests {
void failAfter(std::size_t n) { countdown = n; }
bool stopFailing() { return std::exchange(countdown, never) == never; }
EARLY bool isFault() { return countdown != never && countdown-- == 0; } // after that it is `never`
std::size_t allocations() { return made; }
} // namespace tests

extern "C" {
EARLY void* REPLACED(malloc)(std::size_t size) noexcept {
    return ++made, tests::isFault() ? nullptr : NEXT(malloc)(size);
}
EARLY void* REPLACED(calloc)(std::size_t nmemb, std::size_t size) noexcept {
    return ++made, tests::isFault() ? nullptr : NEXT(calloc)(nmemb, size);
}
EARLY void* REPLACED(realloc)(void* ptr, std::size_t size) noexcept {
    return ++made, tests::isFault() ? nullptr : NEXT(realloc)(ptr, size);
}
}

// Those for arrays call them.
void* operator new(std::size_t size) {
    void* const block = REPLACED(malloc)(size);
    return block != nullptr ? block : throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
