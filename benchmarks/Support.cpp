// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <thread>
#include <vector>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_TOGGLE_COLLECT
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(label) static_cast<void>(label)
#endif

namespace {
thread_local std::size_t allocationCount = 0;
} // namespace

// The GNU C library lets a program wrap its allocator. Operator new calls malloc.
extern "C" {
void* __libc_malloc(std::size_t size) noexcept;
void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
void* __libc_realloc(void* block, std::size_t size) noexcept;

void* malloc(std::size_t size) noexcept { return ++allocationCount, __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) noexcept {
    return ++allocationCount, __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) noexcept {
    return ++allocationCount, __libc_realloc(block, size);
}
}

namespace benchmarks {

void require(bool holds, char const* what) {
    if (!holds) {
        std::fprintf(stderr, "The benchmark did not do its work: %s\n", what);
        std::abort();
    }
}

std::span<std::byte> bytesAt(Offset offset, std::size_t size) {
    auto* const page = static_cast<std::byte*>(std::aligned_alloc(4096, (size / 4096 + 2) * 4096));
    std::span const bytes(page + offset, size);
    std::ranges::generate(bytes, [random = std::uint32_t{1}]() mutable {
        random = random * 1664525 + 1013904223;
        return static_cast<std::byte>(random >> 24U);
    });
    return bytes;
}

namespace {

struct Counted {
    std::string name;
    double operations;
    std::function<void(std::size_t)> run;
};

std::vector<Counted> countedOperations;

// Under callgrind: dumps the instructions of each counted operation.
void countInstructions() {
    for (Counted const& operation : countedOperations) {
        operation.run(2); // binds the functions of shared libraries, fills what is filled once
        std::clock_t const start = std::clock();
        operation.run(1);
        double const seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
        auto const times = static_cast<std::size_t>(std::clamp(0.02 / seconds, 2.0, 500.0));
        CALLGRIND_ZERO_STATS;
        operation.run(times);
        std::string const label = std::to_string(times) + " " +
                                  std::to_string(operation.operations) + " " + operation.name;
        CALLGRIND_DUMP_STATS_AT(label.c_str());
    }
}

} // namespace

Row::Row(std::string work, double operations, Kind kind)
    : work_(std::move(work)), operations_(operations), kind_(kind) {
    static constexpr std::array kinds{"counted", "timed", "cold", "threads", "memory"};
    work_.insert(0, std::string(kinds.at(static_cast<std::size_t>(kind_))) + " | ").append(" | ");
}

void Row::addTimed(std::string const& who, std::function<void(benchmark::State&)> body) const {
    auto* const added = benchmark::RegisterBenchmark((work_ + who).c_str(), std::move(body));
    if (kind_ == Kind::cold || kind_ == Kind::memory) {
        added->Iterations(1);
    } else if (kind_ == Kind::threads) {
        added->Threads(2)->UseRealTime();
    }
}

void Row::addCounted(std::string const& who, std::function<void(std::size_t)> run) const {
    if (kind_ == Kind::counted) {
        countedOperations.push_back({work_ + who, operations_, std::move(run)});
    }
}

std::size_t Row::allocations() noexcept { return allocationCount; }

std::size_t Row::allocatedBytes() noexcept {
    struct mallinfo2 const info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Brings the process to the state of one that has been running for a while: it has had a second
// thread, so reference counts are atomic, and has freed a large block, so malloc keeps freed
// memory.
void Row::settle() {
    static bool const once = [] {
        std::thread([] {}).join();
        std::free(opaque(std::malloc(std::size_t{31} << 20U))); // it keeps no block above 32 MiB
        return true;
    }();
    escape(&once);
}

void Row::toggleCounting() { CALLGRIND_TOGGLE_COLLECT; }

} // namespace benchmarks

int main(int argc, char** argv) {
    using namespace benchmarks;
    addBuffers();
    addLoops();
    addStreams();
    addCodecs();
    addCatalogue();
    addFanOut();
    if (argc == 2 && std::string_view(argv[1]) == "--instructions") {
        Row("").add("nothing", [] { return [] {}; }); // what counting itself takes
        countInstructions();
        return EXIT_SUCCESS;
    }
    benchmark::Initialize(&argc, argv);
#if defined(__clang__)
    benchmark::AddCustomContext("compiler", __VERSION__);
#else
    benchmark::AddCustomContext("compiler", "g++ " __VERSION__);
#endif
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
