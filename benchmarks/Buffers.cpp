// SPDX-License-Identifier: Apache-2.0
// Owning bytes: adopting a block, moving a buffer, growing one piece by piece.
#include "Support.h"

#include <courier/hub/serialisation/Buffers.h>

#include <absl/strings/cord.h>
#include <zmq.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace benchmarks {
namespace {

using namespace courier::hub::serialisation;

constexpr std::size_t blockSize = 4096;

std::size_t freed = 0;

void release(void* /*block*/) { ++freed; }
void releaseMessage(void* block, void* /*hint*/) { release(block); }

ByteBuffer adopt(Bytes const& bytes) {
    return {ByteBuffer::Block(bytes.data(), [](void* p) { release(p); }), bytes.size()};
}

// Adopts a block that the deleter only counts, so that the figure has no cost of an allocator.
template <class Adopt> void addAdoption(char const* who, Adopt adoptAndDestroy) {
    addCounted(name("adopt", blockSize, who), [adoptAndDestroy] {
        Bytes bytes(blockSize, Bytes::source);
        std::size_t const before = freed;
        adoptAndDestroy(bytes);
        require(freed == before + 1, "the deleter runs once");
        return [adoptAndDestroy, bytes = std::move(bytes)] { adoptAndDestroy(bytes); };
    });
}

// A message of the peer, with a C++ owner.
class ZmqMessage {
public:
    ZmqMessage() { zmq_msg_init(&message_); }
    explicit ZmqMessage(Bytes const& bytes) {
        zmq_msg_init_data(&message_, bytes.data(), bytes.size(), releaseMessage, nullptr);
    }
    ZmqMessage(ZmqMessage&& other) noexcept : ZmqMessage() { *this = std::move(other); }
    ZmqMessage& operator=(ZmqMessage&& other) noexcept {
        zmq_msg_move(&message_, &other.message_);
        return *this;
    }
    ~ZmqMessage() { zmq_msg_close(&message_); }

private:
    zmq_msg_t message_;
};

// Moves the messages of one queue to another and back: onto existing empty ones (assign), or onto
// new ones, after which the old ones are destroyed (construct). One message alone, moved back and
// forth, would only show how long a processor takes to read what it has just written.
template <class Message> void addMoves(char const* who, Message (*make)(Bytes const& bytes)) {
    constexpr std::size_t count = 64;
    static Bytes const bytes(blockSize, Bytes::source);
    auto const queue = [make] {
        std::vector<Message> messages;
        std::generate_n(std::back_inserter(messages), count, [make] { return make(bytes); });
        return messages;
    };
    auto const assign = [](std::vector<Message>& from, std::vector<Message>& to) {
        std::move(from.begin(), from.end(), to.begin());
        escape(to.data());
    };
    auto const construct = [](std::vector<Message>& from, std::vector<Message>& to) {
        for (Message& message : from) {
            to.push_back(std::move(message));
        }
        from.clear();
        escape(to.data());
    };
    auto const addMove = [&](char const* work, std::size_t others, auto move) {
        auto const makePair = [=] {
            return [move, here = queue(), there = std::vector<Message>(others)]() mutable {
                move(here, there);
                move(there, here);
            };
        };
        addCounted(name(work, blockSize, who), makePair, 2 * count);
    };
    addMove("move", count, assign);
    addMove("move_construct", 0, construct);
}

// Grows an empty target by pieces, up to `total` bytes, and destroys it.
template <class Target, class Append>
void addAppend(std::size_t piece, std::size_t total, char const* who, Append append) {
    std::string const work = "append" + std::to_string(piece);
    add(name(work, total, who), [=] {
        return [=, source = Bytes(total, Bytes::source), size = opaque(piece)] {
            Target target;
            for (std::size_t done = 0; done < source.size(); done += size) {
                append(target, source.data() + done, size);
            }
            escape(&target);
        };
    });
    // The same piece again and again: a source as large as the target would not stay in the cache.
    coldOperations().push_back({name("cold_" + work, total, who), [=] {
                                    std::vector<std::byte> const source(piece, std::byte{1});
                                    Target target;
                                    for (std::size_t done = 0; done < total; done += piece) {
                                        append(target, source.data(), piece);
                                    }
                                    escape(&target);
                                }});
}

// Zeroed memory that has not been read.
template <class Target> void addZeroed(char const* who) {
    constexpr std::size_t size = std::size_t{64} << 20;
    add(name("zeroed", size, who), [] {
        return [n = opaque(size)] {
            Target const target(n);
            escape(&target);
        };
    });
}

void addAppends(std::size_t piece, std::size_t total) {
    addAppend<ByteBuffer>(piece, total, "courier",
                          [](ByteBuffer& target, std::byte const* p, std::size_t n) {
                              target.append(ByteBufferView(p, n));
                          });
    addAppend<std::vector<std::byte>>(piece, total, "vector",
                                      [](std::vector<std::byte>& target, std::byte const* p,
                                         std::size_t n) { target.insert(target.end(), p, p + n); });
    addAppend<std::string>(piece, total, "string",
                           [](std::string& target, std::byte const* p, std::size_t n) {
                               target.append(reinterpret_cast<char const*>(p), n);
                           });
    addAppend<absl::Cord>(piece, total, "cord",
                          [](absl::Cord& target, std::byte const* p, std::size_t n) {
                              target.Append({reinterpret_cast<char const*>(p), n});
                          });
    add(name("append" + std::to_string(piece), total, "limit"), [=] {
        return [source = Bytes(total, Bytes::source), target = Bytes(total, Bytes::destination),
                size = opaque(piece)] {
            for (std::size_t done = 0; done < source.size(); done += size) {
                std::memcpy(target.data() + done, source.data() + done, size);
            }
            escape(target.data());
        };
    });
}

Family const buffers([] {
    addAdoption("courier", [](Bytes const& bytes) {
        ByteBuffer const buffer = adopt(bytes);
        escape(&buffer);
    });
    addAdoption("shared_ptr", [](Bytes const& bytes) {
        std::shared_ptr<void> const pointer(bytes.data(), [](void* p) { release(p); });
        escape(&pointer);
    });
    addAdoption("zmq", [](Bytes const& bytes) {
        zmq_msg_t message;
        zmq_msg_init_data(&message, bytes.data(), bytes.size(), releaseMessage, nullptr);
        escape(&message);
        zmq_msg_close(&message);
    });
    addAdoption("cord", [](Bytes const& bytes) {
        absl::Cord const cord = absl::MakeCordFromExternal(
            {bytes.chars(), bytes.size()}, [](absl::string_view) { release(nullptr); });
        escape(&cord);
    });

    addMoves<ByteBuffer>("courier", adopt);
    addMoves<ZmqMessage>("zmq", [](Bytes const& bytes) { return ZmqMessage(bytes); });

    addZeroed<ByteBuffer>("courier");
    addZeroed<std::vector<std::byte>>("vector");
    for (std::size_t const piece : {16U, 256U}) {
        for (std::size_t const total : {4096U, 65536U, 1048576U}) {
            addAppends(piece, total);
        }
    }
});

} // namespace
} // namespace benchmarks
