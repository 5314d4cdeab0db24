// SPDX-License-Identifier: Apache-2.0
// What all benchmarks share.
//
// A benchmark is named <work>/<size>/<who>, where <who> is `courier`, one of its peers, or `limit`
// for what the machine can do. A function prepares the input and returns the operation. Only the
// operation is timed. It counts as one or more, by which times and allocations are divided.
#ifndef COURIER_BENCHMARKS_SUPPORT_H
#define COURIER_BENCHMARKS_SUPPORT_H

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Aligns a function to a cache line: the speed of a loop varies with its address by up to a factor
/// of two. The compiler must not know the callers, as if the function were in another file: g++
/// would otherwise pass the members of a small argument instead of its address, and know what
/// overlaps.
#if defined(__clang__)
#define BENCHMARK_ALONE [[gnu::noinline, gnu::aligned(64)]]
#else
#define BENCHMARK_ALONE [[gnu::noipa, gnu::aligned(64)]]
#endif

namespace benchmarks {

/// The compiler must assume that the object and all memory are read and changed here.
inline void escape(void const* object) noexcept { asm volatile("" : : "r"(object) : "memory"); }

/// The compiler must compute the number.
template <class Number> void keep(Number number) noexcept { asm volatile("" : : "r"(number)); }

/// The same value, unknown to the compiler.
template <class Value> [[nodiscard]] Value opaque(Value value) noexcept {
    asm volatile("" : "+r"(value));
    return value;
}

/// Ends the process if an operation did not do its work: its figure would be that of something
/// else.
void require(bool holds, char const* what);

/// The allocations of the calling thread so far, whether by operator new or by malloc.
[[nodiscard]] std::size_t allocations() noexcept;

/// The bytes that are allocated now.
[[nodiscard]] std::size_t allocatedBytes() noexcept;

/// The processor time of the calling thread, in user and system mode. It is used for everything
/// except look-ups by several threads: nothing here waits, and other processes matter less.
[[nodiscard]] double processorSeconds() noexcept;

/// Bytes of arbitrary values, touched beforehand, at a fixed offset in a page. The offsets differ
/// from each other and from that of malloc's large blocks (16): if source and destination have the
/// same offset, each load waits for a store that it does not depend on.
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

/// Sets by how many operations a benchmark's times and allocations are divided.
void report(benchmark::State& state, double operations, std::size_t allocated);

/// Registers a benchmark of what `make()` returns.
template <class Make>
benchmark::internal::Benchmark* add(std::string const& fullName, Make make, double operations = 1) {
    auto const body = [make, operations](benchmark::State& state) {
        auto operation = make();
        operation(); // maps its memory
        std::size_t const before = allocations();
        for (auto _ : state) {
            escape(&operation); // the compiler may keep no earlier result
            operation();
        }
        report(state, operations, allocations() - before);
    };
    return benchmark::RegisterBenchmark(fullName.c_str(), body);
}

/// An operation that is also counted in instructions: run() does it as often as it is told.
struct Counted {
    std::string name;
    double operations;
    std::function<void(std::size_t times)> run;
};
[[nodiscard]] std::vector<Counted>& countedOperations();

/// The same as add(), for an operation that is too short for precise times: it is also counted in
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
