// SPDX-License-Identifier: Apache-2.0
// Loops over bytes, by iterators. Built once for each optimisation level.
#include "Support.h"

#include <courier/hub/serialisation/Buffers.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

namespace benchmarks {
namespace {

using namespace courier::hub::serialisation;

constexpr std::size_t size = 65536;

// The bytes of a range all differ from this one.
constexpr std::byte absent{0};

struct Pointers {
    std::byte const* first;
    std::byte const* last;
    [[nodiscard]] std::byte const* begin() const { return first; }
    [[nodiscard]] std::byte const* end() const { return last; }
};

template <class Range> BENCHMARK_ALONE std::uint64_t sum(Range const& range) {
    std::uint64_t total = 0;
    for (std::byte const b : range) {
        total += std::to_integer<std::uint64_t>(b);
    }
    return total;
}

template <class Range> BENCHMARK_ALONE bool contains(Range const& range, std::byte value) {
    return std::find(range.begin(), range.end(), value) != range.end();
}

template <class Range> BENCHMARK_ALONE bool equal(Range const& a, Range const& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

template <class Range> BENCHMARK_ALONE void copy(Range const& range, std::byte* target) {
    std::copy(range.begin(), range.end(), target);
}

template <class Range> BENCHMARK_ALONE std::vector<std::byte> construct(Range const& range) {
    return {range.begin(), range.end()};
}

std::string work(char const* operation) { return BENCHMARK_LEVEL "_" + std::string(operation); }

// `form` makes the range from a first and a last byte.
template <class Form> void addForm(char const* who, Form form) {
    auto const made = [form](Bytes::Place place) {
        Bytes bytes(size, place);
        std::replace(bytes.data(), bytes.data() + size, absent, std::byte{1});
        auto range = form(bytes.data(), bytes.data() + size);
        return std::pair(std::move(bytes), std::move(range));
    };
    add(name(work("sum"), size, who),
        [made] { return [source = made(Bytes::source)] { keep(sum(source.second)); }; });
    add(name(work("find"), size, who), [made] {
        return [source = made(Bytes::source)] { keep(contains(source.second, opaque(absent))); };
    });
    // Both ranges hold the same values: they are compared to the end.
    add(name(work("equal"), size, who), [made] {
        return [a = made(Bytes::source), b = made(Bytes::destination)] {
            bool const same = equal(a.second, b.second);
            require(same, "the ranges are equal");
        };
    });
    add(name(work("copy"), size, who), [made] {
        return [source = made(Bytes::source), target = Bytes(size, Bytes::destination)] {
            copy(source.second, target.data());
            escape(target.data());
        };
    });
    add(name(work("construct"), size, who), [made] {
        return [source = made(Bytes::source)] {
            std::vector<std::byte> const bytes = construct(source.second);
            escape(bytes.data());
        };
    });
}

Family const iteration([] {
    addForm("courier_vector_form", [](std::byte const* first, std::byte const* last) {
        return ByteBuffer(std::vector<std::byte>(first, last));
    });
    addForm("courier_external_form", [](std::byte* first, std::byte* last) {
        return ByteBuffer(ByteBuffer::Block(first, [](void*) { /* Bytes keeps it */ }),
                          static_cast<std::size_t>(last - first));
    });
    addForm("courier_view", [](std::byte const* first, std::byte const* last) {
        return ByteBufferView(first, static_cast<std::size_t>(last - first));
    });
    addForm("courier_span", [](std::byte const* first, std::byte const* last) {
        ByteBufferView const view(first, static_cast<std::size_t>(last - first));
        return std::span<std::byte const>(view);
    });
    addForm("pointer", [](std::byte const* first, std::byte const* last) {
        return Pointers{first, last};
    });
    addForm("vector", [](std::byte const* first, std::byte const* last) {
        return std::vector<std::byte>(first, last);
    });

    add(name(work("copy"), size, "limit"), [] {
        return [source = Bytes(size, Bytes::source), target = Bytes(size, Bytes::destination)] {
            std::memmove(target.data(), source.data(), source.size());
            escape(target.data());
        };
    });
    add(name(work("construct"), size, "limit"), [] {
        return [source = Bytes(size, Bytes::source)] {
            auto const target = std::make_unique_for_overwrite<std::byte[]>(source.size());
            std::memmove(target.get(), source.data(), source.size());
            escape(target.get());
        };
    });
});

} // namespace
} // namespace benchmarks
