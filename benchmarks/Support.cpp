// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#endif

namespace {

thread_local std::size_t allocationCount = 0;

} // namespace

// The GNU C library lets a program wrap its allocator. Operator new calls malloc, so this counts
// the peers that are written in C too.
extern "C" {
void* __libc_malloc(std::size_t size) noexcept;
void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
void* __libc_realloc(void* block, std::size_t size) noexcept;
void* __libc_memalign(std::size_t alignment, std::size_t size) noexcept;

void* malloc(std::size_t size) noexcept {
    ++allocationCount;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
    ++allocationCount;
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) noexcept {
    ++allocationCount;
    return __libc_realloc(block, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    ++allocationCount;
    return __libc_memalign(alignment, size);
}
}

namespace benchmarks {

void require(bool holds, char const* what) {
    if (!holds) {
        std::fprintf(stderr, "The benchmark did not do its work: %s\n", what);
        std::abort();
    }
}

std::size_t allocations() noexcept { return allocationCount; }

std::size_t allocatedBytes() noexcept {
    struct mallinfo2 const info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

double processorSeconds() noexcept {
    std::timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

Bytes::Bytes(std::size_t size, Place place)
    : block_(std::make_unique_for_overwrite<std::byte[]>(size + 2 * 4096)), size_(size) {
    auto const address = reinterpret_cast<std::uintptr_t>(block_.get());
    start_ = block_.get() + (4096 - address % 4096) + place;
    std::uint32_t random = 1;
    for (std::size_t i = 0; i < size; ++i) {
        random = random * 1664525 + 1013904223;
        start_[i] = static_cast<std::byte>(random >> 24);
    }
}

std::string name(std::string const& work, std::size_t size, std::string const& who) {
    return work + "/" + std::to_string(size) + "/" + who;
}

void report(benchmark::State& state, double operations, std::size_t allocated) {
    auto const done = static_cast<double>(state.iterations()) * operations;
    auto const average = benchmark::Counter::kAvgThreads;
    state.counters["operations"] = {operations, average};
    state.counters["allocations"] = {static_cast<double>(allocated) / done, average};
}

std::vector<Counted>& countedOperations() {
    static std::vector<Counted> operations;
    return operations;
}

std::vector<Cold>& coldOperations() {
    static std::vector<Cold> operations;
    return operations;
}

namespace {

// In a process that has done nothing else, so it has never freed a large block. Prints the median
// of fifteen runs.
int measureCold(std::string const& name) {
    for (Cold const& operation : coldOperations()) {
        if (operation.name == name) {
            std::array<double, 15> times{};
            for (double& time : times) {
                double const start = processorSeconds();
                operation.run();
                time = processorSeconds() - start;
            }
            std::sort(times.begin(), times.end());
            std::printf("%.0f\n", 1e9 * times[times.size() / 2]);
            return EXIT_SUCCESS;
        }
    }
    return EXIT_FAILURE;
}

// Under callgrind, dumps the instructions of each counted operation twice, for few and for many
// runs: the difference has no cost of the preparation.
int countInstructions() {
#ifdef CALLGRIND_ZERO_STATS
    addCounted("empty/0/loop", [] { return [] { escape(nullptr); }; });
    for (Counted const& operation : countedOperations()) {
        operation.run(10); // binds the functions of shared libraries
        for (std::size_t const times : {100U, 1100U}) {
            CALLGRIND_ZERO_STATS;
            operation.run(times);
            std::string const label = operation.name + " " + std::to_string(times) + " " +
                                      std::to_string(operation.operations);
            CALLGRIND_DUMP_STATS_AT(label.c_str());
        }
    }
    return EXIT_SUCCESS;
#else
    return EXIT_FAILURE;
#endif
}

// Brings the process to the state of one that has been running for a while: it has had a second
// thread, so reference counts are atomic, and it has freed large blocks, so malloc keeps them
// instead of returning them to the system. Otherwise a benchmark would depend on those before it.
void grow() {
    std::thread([] {}).join();
    void* const large = std::malloc(std::size_t{31} << 20U); // malloc keeps no block above 32 MiB
    escape(large);
    std::free(large);
}

} // namespace

} // namespace benchmarks

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--cold") == 0) {
        return benchmarks::measureCold(argv[2]);
    }
    benchmarks::grow();
    if (argc == 2 && std::strcmp(argv[1], "--instructions") == 0) {
        return benchmarks::countInstructions();
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
