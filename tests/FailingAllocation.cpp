// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <cstdlib>

namespace {
constexpr std::size_t never = static_cast<std::size_t>(-1);
thread_local std::size_t countdown = never;
thread_local std::size_t made = 0;

void* allocate(std::size_t size) {
    ++made;
    if (countdown != never && countdown-- == 0) {
        throw std::bad_alloc(); // the countdown is now `never`
    }
    void* const block = std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
} // namespace

namespace tests {
void failAllocationAfter(std::size_t n) { countdown = n; }
void stopFailingAllocations() { countdown = never; }
std::size_t allocations() { return made; }
} // namespace tests

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
