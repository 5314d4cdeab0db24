// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_TESTS_SUPPORT_H
#define COURIER_TESTS_SUPPORT_H

#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/Streams.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <typeinfo>
#include <vector>

namespace tests {

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;
using courier::hub::core::getTypeID;
using IDs = std::vector<std::uint64_t>;
using Formats = std::vector<std::string>;

/// Makes the fault point after the next `n` on this thread fail, and no other. Every allocation is
/// a fault point.
void failAfter(std::size_t n);
/// Whether it has failed by now.
bool stopFailing();
/// A test's own fault point: true if it must fail.
bool isFault();
/// Allocations on this thread so far.
std::size_t allocations();

/// The message of an exception of exactly this type.
template <class Exception, class Action> std::string messageOf(Action action) {
    try {
        action();
    } catch (Exception const& e) {
        return typeid(e) == typeid(Exception) ? e.what() : std::string("a derived exception");
    }
    return "no exception";
}

#define EXPECT_ERROR(Exception, message, expression)                                               \
    EXPECT_EQ(messageOf<Exception>([&] { static_cast<void>(expression); }), message)

/// Calls `f` and discards the result, for EXPECT_THROW.
template <class Result> void discard(Result&&) {}

inline std::vector<std::byte> bytes(std::string_view text) {
    auto const* const first = reinterpret_cast<std::byte const*>(text.data());
    return {first, first + text.size()};
}
inline std::string text(ByteBufferView view) {
    return {reinterpret_cast<char const*>(view.data()), view.size()};
}
inline std::string text(ByteBuffer const& buffer) { return text(buffer.makeView(0, 0)); }

/// Makes external blocks and counts how often they are freed.
struct Blocks {
    int made = 0;
    int freed = 0;

    ByteBuffer adopt(std::string_view content) {
        auto* const block = new std::byte[content.size() + 1];
        std::memcpy(block, content.data(), content.size());
        ++made;
        auto const free = [this](void* p) {
            ++freed;
            delete[] static_cast<std::byte*>(p);
        };
        return {ByteBuffer::Block(block, free), content.size()};
    }
};

/// A target of writes that asks a test's function how much of each piece it takes. The first flush
/// succeeds.
struct Target : std::streambuf {
    int_type overflow(int_type c) override {
        char const byte = traits_type::to_char_type(c);
        return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
    }
    std::streamsize xsputn(char const* s, std::streamsize n) override {
        std::streamsize const taken = take(n);
        got.append(s, static_cast<std::size_t>(taken));
        largest = std::max(largest, n);
        return taken;
    }
    int sync() override { return flushed++ == 0 ? 0 : -1; }

    std::function<std::streamsize(std::streamsize)> take = [](std::streamsize n) { return n; };
    std::string got;
    std::streamsize largest = 0;
    int flushed = 0;
    std::ostream stream{this};
};

/// An element that counts its destruction.
struct Element {
    Element(int v, std::atomic<int>& count) : value(v), destroyed(count) {}
    ~Element() { ++destroyed; }
    int value;
    std::atomic<int>& destroyed;
};
inline GenericPayload payloadOf(int elements, std::atomic<int>& destroyed) {
    GenericPayload payload;
    for (int i = 0; i < elements; ++i) {
        payload.add(std::make_shared<Element>(i, destroyed));
    }
    return payload;
}
/// A payload with these type identifiers, whose elements are never read, and a view of it.
inline GenericPayload payloadOf(IDs ids) {
    GenericPayload payload;
    payload.values.resize(ids.size() + 1);
    payload.elementCount = ids.size();
    payload.typeIDs = std::move(ids);
    return payload;
}
inline GenericPayloadView viewOf(IDs ids, std::size_t index) {
    return {GenericPayloadWrapperPtr::make(payloadOf(std::move(ids))), index};
}

inline GenericSerialiser writing(std::string const& text) {
    return GenericSerialiser([text](stop_token, std::ostream& out) { out << text; });
}
inline std::string written(GenericSerialiser const& serialiser) {
    std::ostringstream out;
    serialiser(out);
    return out.str();
}
/// A record whose serialisers write its name and the factory that made them.
inline Serialiser record(std::string format, std::uint64_t id, IDs ids, std::string const& name) {
    return {std::move(format),
            id,
            std::move(ids),
            [name](auto&&) { return writing(name + " view"); },
            [name](auto&&, auto&&) { return writing(name + " stop"); },
            [name](auto&&) { return writing(name + " payload"); }};
}

template <class R, class Routine>
GenericDeserialiser reading(Routine routine, std::shared_ptr<void> handle = {}) {
    return GenericDeserialiser(std::function<R(std::istream&)>(routine), std::move(handle));
}
inline int valueRead(GenericDeserialiser const& deserialiser) {
    std::istringstream in;
    return deserialiser(in).get<int>(0);
}
inline Deserialiser reader(std::string format, std::uint64_t id, int value) {
    return {std::move(format), id, reading<int>([value](std::istream&) { return value; })};
}

} // namespace tests

#endif
