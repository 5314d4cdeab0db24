// SPDX-License-Identifier: Apache-2.0
// What every family of benchmarks is made of.
//
// A benchmark is named <work>/<size>/<who>, where <who> is `courier`, one of its peers, or `limit`
// for what the machine can do. A function makes what is needed and returns the operation, which
// alone is timed; it counts as one or more operations, by which times and allocations are divided.
#ifndef COURIER_BENCHMARKS_SUPPORT_H
#define COURIER_BENCHMARKS_SUPPORT_H

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// A loop's speed depends on where its code happens to lie, by up to a factor of two: before a
/// function, puts it at the start of a cache line of its own. The compiler must know nothing of
/// what calls it, as for a function in another file: g++ would otherwise pass the members of a
/// small argument instead of its address, and see more of what overlaps.
#if defined(__clang__)
#define BENCHMARK_ALONE [[gnu::noinline, gnu::aligned(64)]]
#else
#define BENCHMARK_ALONE [[gnu::noipa, gnu::aligned(64)]]
#endif

namespace benchmarks {

/// The compiler must assume that somebody reads and changes the object, and all memory.
inline void escape(void const* object) noexcept { asm volatile("" : : "r"(object) : "memory"); }

/// The compiler must compute the number.
template <class Number> void keep(Number number) noexcept { asm volatile("" : : "r"(number)); }

/// The same value, of which the compiler knows nothing.
template <class Value> [[nodiscard]] Value opaque(Value value) noexcept {
    asm volatile("" : "+r"(value));
    return value;
}

/// Ends the process when an operation did not do its work: a figure of something else is worse than
/// none.
void require(bool holds, char const* what);

/// The allocations of the calling thread so far, whether by operator new or by malloc.
[[nodiscard]] std::size_t allocations() noexcept;

/// The bytes that are allocated now.
[[nodiscard]] std::size_t allocatedBytes() noexcept;

/// The processor time of the calling thread, in user and system mode. All but the look-ups by
/// several threads are measured by it: nothing here waits, and what else the machine is doing
/// counts less.
[[nodiscard]] double processorSeconds() noexcept;

/// Bytes of arbitrary values, touched beforehand, at a fixed place within a page. The places differ
/// from each other and from where malloc puts large blocks (16): where a source and a destination
/// begin at one offset of a page, each load waits for a store that it does not depend on.
class Bytes {
public:
    enum Place : std::size_t { source = 1088, destination = 2176 };

    Bytes(std::size_t size, Place place);

    [[nodiscard]] std::byte* data() const noexcept { return start_; }
    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    [[nodiscard]] char* chars() const noexcept { return reinterpret_cast<char*>(start_); }

private:
    std::unique_ptr<std::byte[]> block_;
    std::byte* start_;
    std::size_t size_;
};

/// The name of a benchmark.
[[nodiscard]] std::string name(std::string const& work, std::size_t size, std::string const& who);

/// States by how many operations a benchmark's times are to be divided, and their allocations.
void report(benchmark::State& state, double operations, std::size_t allocated);

/// Registers a benchmark of what `make()` returns.
template <class Make>
benchmark::internal::Benchmark* add(std::string const& fullName, Make make, double operations = 1) {
    auto const body = [make, operations](benchmark::State& state) {
        auto operation = make();
        operation(); // faults its memory in
        std::size_t const before = allocations();
        for (auto _ : state) {
            escape(&operation); // nothing that it did before may be kept for this time
            operation();
        }
        report(state, operations, allocations() - before);
    };
    return benchmark::RegisterBenchmark(fullName.c_str(), body);
}

/// An operation that is also counted in instructions: run() does it that many times.
struct Counted {
    std::string name;
    double operations;
    std::function<void(std::size_t times)> run;
};
[[nodiscard]] std::vector<Counted>& countedOperations();

/// The same as add(); an operation so short that time is too noisy to tell is also counted in
/// instructions.
template <class Make> benchmark::internal::Benchmark*
addCounted(std::string const& fullName, Make make, double operations = 1, bool isShort = true) {
    if (isShort) {
        auto const run = [make](std::size_t times) {
            auto operation = make();
            for (std::size_t i = 0; i < times; ++i) {
                escape(&operation);
                operation();
            }
        };
        countedOperations().push_back({fullName, operations, run});
    }
    return add(fullName, make, operations);
}

/// An operation that is measured in a process of its own: main() does it when it is called with
/// `--cold` and the name, and prints the processor time in nanoseconds.
struct Cold {
    std::string name;
    std::function<void()> run;
};
[[nodiscard]] std::vector<Cold>& coldOperations();

/// A family registers its benchmarks by an object at namespace scope.
struct Family {
    explicit Family(void (*addAll)()) { addAll(); }
};

} // namespace benchmarks

#endif
