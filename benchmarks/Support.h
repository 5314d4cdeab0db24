// SPDX-License-Identifier: Apache-2.0
// What all benchmarks share: a Row of the table, and what keeps a measurement honest.
#ifndef COURIER_BENCHMARKS_SUPPORT_H
#define COURIER_BENCHMARKS_SUPPORT_H

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

/// Aligns a function to a cache line: the speed of a loop varies with its address by up to a factor
/// of two. The compiler must not know the callers, as if the function were in another file.
#if defined(__clang__)
#define BENCHMARK_ALONE [[gnu::noinline, gnu::aligned(64)]]
#else
#define BENCHMARK_ALONE [[gnu::noipa, gnu::aligned(64)]]
#endif

namespace benchmarks {

/// Each adds the rows of one file to the table.
void addBuffers();
void addLoops();
void addStreams();
void addCodecs();
void addCatalogue();
void addFanOut();

/// The compiler must assume that the object and all memory are read and changed here.
inline void escape(void const* object) noexcept { asm volatile("" : : "r"(object) : "memory"); }

/// The same value, unknown to the compiler.
template <class Value> [[nodiscard]] Value opaque(Value value) noexcept {
    asm volatile("" : "+r"(value));
    return value;
}

/// Ends the process if an operation did not do its work: its figure would be that of something
/// else.
void require(bool holds, char const* what);

/// Bytes of arbitrary values, never freed, at an offset in a page. Source and destination must not
/// have the same offset, nor that of malloc's large blocks: each load would wait for a store that
/// it does not depend on.
enum Offset : std::size_t { source = 1088, destination = 2176 };
[[nodiscard]] std::span<std::byte> bytesAt(Offset offset, std::size_t size);

/// How a row is measured.
enum class Kind {
    counted, ///< processor time, and instructions
    timed,   ///< processor time: the instructions say little, or take too long to count
    cold,    ///< processor time of the first run in a process: a process for each sample
    threads, ///< on two threads at once, by the clock, as each of them sees it
    memory,  ///< the bytes that are allocated for what is made
};

/// One row of the table: work, done by courier and by what one would use instead. report.py names
/// these, and says what one gives up by taking them.
class Row {
public:
    /// One call of the operation counts as many: they share its time and allocations.
    explicit Row(std::string work, double operations = 1, Kind kind = Kind::counted);

    /// Adds one that does the work. make() prepares the input and returns the operation, which is
    /// measured. If that has a prepare(), it is called before each run, and not measured.
    template <class Make> void add(std::string const& who, Make make) const {
        using Operation = std::invoke_result_t<Make>;
        auto const made = std::make_shared<std::optional<Operation>>();
        auto const operation = [=]() -> Operation& {
            return *made ? **made : made->emplace(make());
        };
        addTimed(who, [=, *this](benchmark::State& state) {
            if (kind_ == Kind::threads) {
                Operation ofThisThread = make();
                measure(state, ofThisThread);
            } else {
                measure(state, operation());
            }
        });
        addCounted(who, [=](std::size_t times) { count(operation(), times); });
    }

    /// Adds one whose memory is measured: that of what make() returns.
    template <class Make> void addMade(std::string const& who, Make make) const {
        addTimed(who, [=, *this](benchmark::State& state) {
            std::size_t const before = allocatedBytes();
            auto const made = make();
            state.counters["value"] = static_cast<double>(allocatedBytes() - before) / operations_;
            for (auto _ : state) {
                escape(&made);
            }
        });
    }

private:
    void addTimed(std::string const& who, std::function<void(benchmark::State&)> body) const;
    void addCounted(std::string const& who, std::function<void(std::size_t)> run) const;

    static std::size_t allocations() noexcept; // of this thread so far, by new or by malloc
    static std::size_t allocatedBytes() noexcept;
    static void settle();
    static void toggleCounting();

    template <class Operation> static constexpr bool prepares = requires(Operation o) {
        o.prepare();
    };

    template <class Operation> void measure(benchmark::State& state, Operation& operation) const {
        auto const average = benchmark::Counter::kAvgThreads;
        auto const warmUp = [&] { // maps its memory, fills what is filled once
            if constexpr (prepares<Operation>) {
                operation.prepare();
            }
            std::size_t const before = allocations();
            operation();
            return allocations() - before;
        };
        if (kind_ != Kind::cold) {
            settle();
            warmUp();
            state.counters["allocations"] = {static_cast<double>(warmUp()) / operations_, average};
        }
        for (auto _ : state) {
            if constexpr (prepares<Operation>) {
                state.PauseTiming();
                operation.prepare();
                state.ResumeTiming();
            }
            escape(&operation); // the compiler may keep no earlier result
            operation();
        }
        state.counters["operations"] = {operations_, average};
    }

    template <class Operation> static void count(Operation& operation, std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) {
            if constexpr (prepares<Operation>) {
                operation.prepare();
            }
            toggleCounting();
            escape(&operation);
            operation();
            toggleCounting();
        }
    }

    std::string work_;
    double operations_;
    Kind kind_;
};

} // namespace benchmarks

#endif
