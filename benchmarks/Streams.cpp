// SPDX-License-Identifier: Apache-2.0
// Reading bytes in place, through std::istream and byte by byte.
#include "Support.h"

#include <courier/hub/serialisation/IOStreams.h>

#include <cstdint>
#include <istream>
#include <iterator>
#include <span>
#include <spanstream>
#include <sstream>

namespace benchmarks {
namespace {

using namespace courier::hub::serialisation;

// Each kind of stream is opened on the same bytes, which somebody else owns.
template <class Stream> Stream open(std::span<char> bytes) {
    if constexpr (std::same_as<Stream, ByteBufferIStream>) {
        return ByteBufferIStream(ByteBufferView(std::as_bytes(bytes).data(), bytes.size()));
    } else if constexpr (std::same_as<Stream, std::ispanstream>) {
        return std::ispanstream(bytes);
    } else {
        return std::istringstream(std::string(bytes.data(), bytes.size()));
    }
}

// The same function for all streams, so that its address is the same for all.
BENCHMARK_ALONE void readBlock(std::istream& in, std::span<char> target) {
    in.read(target.data(), static_cast<std::streamsize>(target.size()));
    require(in.good(), "every byte is read");
}

std::span<char> charactersAt(Offset offset, std::size_t size) {
    return {reinterpret_cast<char*>(bytesAt(offset, size).data()), size};
}

template <class Stream> void addStream(char const* who) {
    for (std::size_t const size : {64U, 1048576U}) {
        Row("open a stream and read " + std::string(size == 64 ? "64 B" : "1 MiB")).add(who, [=] {
            return [bytes = charactersAt(source, size), target = charactersAt(destination, size)] {
                auto stream = open<Stream>(bytes);
                readBlock(stream, target);
            };
        });
    }
}

std::uint64_t sumOf(auto it, auto end) {
    std::uint64_t total = 0;
    for (; it != end; ++it) {
        total += static_cast<std::uint8_t>(*it);
    }
    return total;
}

BENCHMARK_ALONE std::uint64_t readByteStream(std::span<char> bytes) {
    ByteBuffer::Block block(bytes.data(), [](void*) { /* the caller keeps it */ });
    auto made =
        std::make_unique<ByteBufferByteStreamImpl>(ByteBuffer(std::move(block), bytes.size()));
    // The compiler must not know the type of the source.
    std::unique_ptr<ByteStreamImpl> any(opaque<ByteStreamImpl*>(made.release()));
    ByteStream const stream(std::move(any));
    return sumOf(stream.begin(), stream.end());
}

BENCHMARK_ALONE std::uint64_t readByStreambufIterator(std::span<char> bytes) {
    auto stream = open<std::ispanstream>(bytes);
    using Iterator = std::istreambuf_iterator<char>;
    return sumOf(Iterator(stream), Iterator());
}

void addByteStream(char const* who, std::uint64_t (*read)(std::span<char>)) {
    constexpr std::size_t size = 65536;
    Row("one byte from a `ByteStream` of 64 KiB", size).add(who, [read] {
        auto const bytes = charactersAt(source, size);
        return [=, total = sumOf(bytes.begin(), bytes.end())] {
            require(read(bytes) == total, "every byte is read");
        };
    });
}

} // namespace

void addStreams() {
    addStream<ByteBufferIStream>("courier");
    addStream<std::ispanstream>("ispanstream");
    addStream<std::istringstream>("istringstream");
    addByteStream("courier", readByteStream);
    addByteStream("istreambuf_iterator", readByStreambufIterator);
}

} // namespace benchmarks
