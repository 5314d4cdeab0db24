// SPDX-License-Identifier: Apache-2.0
// Loops by iterators, which are compiled into the user's code. Built with -O2, at which g++ leaves
// more of them as they are written. No other file may instantiate the same templates: the linker
// keeps one copy of each.
#include "Support.h"

#include <courier/hub/serialisation/Buffers.h>

#include <algorithm>
#include <span>
#include <vector>

namespace benchmarks {
namespace {

template <class Range> BENCHMARK_ALONE void copy(Range const& range, std::byte* target) {
    std::copy(range.begin(), range.end(), target);
}

template <class Range> BENCHMARK_ALONE std::vector<std::byte> construct(Range const& range) {
    return {range.begin(), range.end()};
}

template <class Range> void addLoop(char const* who) {
    constexpr std::size_t size = 65536;
    Row("`std::copy` of 64 KiB by a buffer's iterators, g++ -O2").add(who, [] {
        return [bytes = bytesAt(source, size), target = bytesAt(destination, size)] {
            copy(Range(bytes.data(), size), target.data());
        };
    });
    Row("a `std::vector` of 64 KiB from a buffer's iterators, g++ -O2").add(who, [] {
        return [bytes = bytesAt(source, size)] {
            auto const made = construct(Range(bytes.data(), size));
            escape(&made);
        };
    });
}

} // namespace

void addLoops() {
    addLoop<courier::hub::serialisation::ByteBufferView>("courier");
    addLoop<std::span<std::byte const>>("span");
}

} // namespace benchmarks
