// SPDX-License-Identifier: Apache-2.0
// Owning bytes: adopting a block, moving and splitting it, growing by pieces.
#include "Support.h"

#include <courier/hub/serialisation/Buffers.h>

#include <absl/strings/cord.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <span>
#include <vector>

namespace benchmarks {
namespace {

using namespace courier::hub::serialisation;

using Vector = std::vector<std::byte>;

std::size_t freed = 0;

// Counts only, so that a figure has no cost of an allocator.
void release(void* /*block*/) { ++freed; }

// What keeps an adopted block alive, and the size of the block.
template <class Pointer> struct Sized {
    Pointer pointer;
    std::size_t size;
};
template <class Deleter> using Unique = Sized<std::unique_ptr<void, Deleter>>;

// In place, as a receiver would write it.
template <class Owner> [[gnu::always_inline]] inline Owner adopt(std::span<std::byte> bytes) {
    return {{bytes.data(), [](void* block) { release(block); }}, bytes.size()};
}
template <> absl::Cord adopt(std::span<std::byte> bytes) {
    return absl::MakeCordFromExternal({reinterpret_cast<char*>(bytes.data()), bytes.size()},
                                      [](absl::string_view) { release(nullptr); });
}
template <> ByteBufferView adopt(std::span<std::byte> bytes) {
    return {bytes.data(), bytes.size()};
}
template <> Vector adopt(std::span<std::byte> bytes) {
    return {bytes.data(), bytes.data() + bytes.size()};
}

template <class Owner> void addAdoption(char const* who) {
    Row("adopt a received block and free it").add(who, [] {
        return [bytes = bytesAt(source, 4096)] {
            std::size_t const before = freed;
            {
                auto const owner = adopt<Owner>(bytes);
                escape(&owner);
            }
            require(freed == before + 1, "the deleter runs once");
        };
    });
}

// Of many buffers and back. One alone would show how long a processor takes to read what it has
// just written.
template <class Owner> void addMove(char const* who) {
    constexpr std::size_t count = 64;
    Row("move a buffer from one queue to another", 2 * count).add(who, [] {
        static auto const bytes = bytesAt(source, 4096);
        std::array<std::vector<Owner>, 2> queues;
        for (std::vector<Owner>& queue : queues) {
            queue.reserve(count);
        }
        for (std::size_t i = 0; i < count; ++i) {
            queues[0].push_back(adopt<Owner>(bytes));
        }
        return [queues = std::move(queues)]() mutable {
            for (std::size_t from : {0U, 1U}) {
                for (Owner& owner : queues[from]) {
                    queues[1 - from].push_back(std::move(owner));
                }
                queues[from].clear();
                escape(&queues);
            }
        };
    });
}

template <class Owner> void addOwner(char const* who) {
    addAdoption<Owner>(who);
    addMove<Owner>(who);
}

// Each message lives on its own. `split` gets the block, the offset and the size of the message.
template <class Block, class Split> void addSplit(char const* who, Split split) {
    constexpr std::size_t count = 1000;
    for (std::size_t const size : {1024U, 16384U}) {
        std::string const amount = std::to_string(size >> 10U) + " KiB";
        Row("1,000 messages of " + amount + " out of one block, for each", count).add(who, [=] {
            std::vector<std::invoke_result_t<Split, Block&, std::size_t, std::size_t>> messages;
            messages.reserve(count);
            return [=, bytes = bytesAt(source, count * size),
                    messages = std::move(messages)]() mutable {
                Block block = adopt<Block>(bytes);
                for (std::size_t i = 0; i < count; ++i) {
                    messages.push_back(split(block, i * size, size));
                }
                escape(messages.data());
                messages.clear();
            };
        });
    }
}

void addSplits() {
    using Shared = std::shared_ptr<std::byte>;
    addSplit<ByteBuffer>("courier", [](ByteBuffer& block, std::size_t, std::size_t n) {
        return block.splitFront(n);
    });
    addSplit<ByteBufferView>("copies", [](ByteBufferView& block, std::size_t at, std::size_t n) {
        return Vector(block.data() + at, block.data() + at + n);
    });
    addSplit<Sized<Shared>>("aliases", [](Sized<Shared>& block, std::size_t at, std::size_t n) {
        return Sized<Shared>{{block.pointer, block.pointer.get() + at}, n};
    });
    addSplit<absl::Cord>("Cord", [](absl::Cord& block, std::size_t at, std::size_t n) {
        return block.Subcord(at, n);
    });
}

// Grows empty targets by pieces, in turn, and destroys them.
template <class Target, std::size_t targets = 1, class Append> void
addAppend(Row const& row, char const* who, std::size_t piece, std::size_t total, Append append) {
    row.add(who, [=] {
        return [=, bytes = bytesAt(source, piece), size = opaque(piece)] {
            std::array<Target, targets> grown;
            for (std::size_t done = 0; done < total; done += size) {
                for (Target& target : grown) {
                    append(target, bytes.data(), size);
                }
            }
            escape(&grown);
        };
    });
}

template <std::size_t targets = 1>
void addAppends(Row const& row, std::size_t piece, std::size_t total) {
    addAppend<ByteBuffer, targets>(row, "courier", piece, total,
                                   [](ByteBuffer& target, std::byte const* p, std::size_t n) {
                                       target.append(ByteBufferView(p, n));
                                   });
    addAppend<Vector, targets>(row, "vector", piece, total,
                               [](Vector& target, std::byte const* p, std::size_t n) {
                                   target.insert(target.end(), p, p + n);
                               });
    addAppend<std::string, targets>(row, "string", piece, total,
                                    [](std::string& target, std::byte const* p, std::size_t n) {
                                        target.append(reinterpret_cast<char const*>(p), n);
                                    });
}

void addAllAppends() {
    for (std::size_t const piece : {1U, 8U, 24U, 33U, 64U, 256U}) {
        addAppends(Row("append pieces of " + std::to_string(piece) + " B up to 64 KiB"), piece,
                   65536);
    }
    auto const pushBack = [](auto& target, std::byte const* p, std::size_t) {
        target.push_back(*p);
    };
    addAppend<ByteBuffer>(Row("append pieces of 1 B up to 64 KiB"), "courier push_back", 1, 65536,
                          pushBack);
    addAppend<Vector>(Row("append pieces of 1 B up to 64 KiB"), "push_back", 1, 65536, pushBack);
    constexpr std::size_t large = 1048576;
    addAppends(Row("append pieces of 256 B up to 1 MiB"), 256, large);
    addAppends<2>(Row("the same to two buffers in turn"), 256, large);
    addAppends(Row("the same, first in a process", 1, Kind::cold), 256, large);
}

template <class Make> void addZeroes(char const* who, Make make) {
    constexpr std::size_t size = std::size_t{64} << 20U;
    for (bool const isTouched : {false, true}) {
        std::string const touched =
            isTouched ? "a byte of each page written" : "until they are read";
        Row("64 MiB of zeroes, " + touched, 1, Kind::timed).add(who, [=] {
            return [=, n = opaque(size)] {
                auto bytes = make(n);
                for (std::size_t i = 0; isTouched && i < n; i += 4096) {
                    bytes[i] = std::byte{1};
                }
                escape(&bytes);
            };
        });
    }
}

} // namespace

void addBuffers() {
    addOwner<ByteBuffer>("courier");
    addOwner<Unique<void (*)(void*)>>("function");
    addOwner<Unique<std::function<void(void*)>>>("callable");
    addOwner<Sized<std::shared_ptr<void>>>("shared");
    addAdoption<absl::Cord>("Cord");
    addMove<Vector>("vector");
    addSplits();
    addAllAppends();
    addZeroes("courier", [](std::size_t n) { return ByteBuffer(n); });
    addZeroes("vector", [](std::size_t n) { return Vector(n); });
    addZeroes("calloc", [](std::size_t n) {
        struct Free {
            void operator()(std::byte* block) const { std::free(block); }
        };
        return std::unique_ptr<std::byte[], Free>(static_cast<std::byte*>(std::calloc(n, 1)));
    });
}

} // namespace benchmarks
