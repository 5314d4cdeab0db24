// SPDX-License-Identifier: Apache-2.0
// Reading bytes in place, through std::istream and byte by byte.
#include "Support.h"

#include <courier/hub/serialisation/IOStreams.h>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <istream>
#include <iterator>
#include <map>
#include <span>
#include <spanstream>
#include <sstream>

namespace benchmarks {
namespace {

using namespace courier::hub::serialisation;

// Each kind of stream is made from the same bytes, which somebody else owns.

struct Courier {
    Courier(char const* data, std::size_t size)
        : in(ByteBufferView(reinterpret_cast<std::byte const*>(data), size)) {}
    ByteBufferIStream in;
};

struct SpanStream {
    SpanStream(char const* data, std::size_t size) : in(std::span<char const>(data, size)) {}
    std::ispanstream in;
};

struct StringStream {
    StringStream(char const* data, std::size_t size) : in(std::string(data, size)) {}
    std::istringstream in;
};

struct ArrayStream {
    ArrayStream(char const* data, std::size_t size) : in(data, size) {}
    boost::iostreams::stream<boost::iostreams::array_source> in;
};

// Large inputs are read in pieces into one block, as decoders do: the figure is that of the stream,
// not of allocating memory to read into.
constexpr std::size_t largestRead = 1048576;

// The largest input takes long to make and is only read, so all benchmarks share one.
Bytes const& input(std::size_t size) {
    static std::map<std::size_t, Bytes> inputs;
    return inputs.try_emplace(size, size, Bytes::source).first->second;
}

constexpr std::size_t textSize = 65536;

// Lines that hold one number each, a whole and a fractional one in turn.
std::string numbers() {
    std::ostringstream out;
    for (std::uint32_t i = 1; out.view().size() < textSize; ++i) {
        std::uint32_t const value = i * 2654435761U;
        out << value << '\n' << static_cast<double>(value) / 1024 << '\n';
    }
    return std::move(out).str();
}

// Lines between 0 and 120 characters long.
std::string lines() {
    std::string text;
    for (std::size_t i = 1; text.size() < textSize; ++i) {
        text.append(i * 37 % 121, 'x').push_back('\n');
    }
    return text;
}

void addRead(std::size_t size, char const* who,
             void (*read)(Bytes const& source, Bytes const& target)) {
    auto const make = [=] {
        return [=, target = Bytes(std::min(size, largestRead), Bytes::destination)] {
            read(input(size), target);
            escape(target.data());
        };
    };
    addCounted(name("read", size, who), make, 1, size <= 4096);
}

// The work on an open stream of `size` bytes is one function for all streams, so that the address
// of its loop is the same for all.

BENCHMARK_ALONE void readInto(Bytes const& target, std::istream& in, std::size_t size) {
    std::size_t done = 0;
    while (done < size && in.read(target.chars(), static_cast<std::streamsize>(target.size()))) {
        done += target.size();
    }
    require(done == size, "every byte is read");
}

BENCHMARK_ALONE void readLines(std::istream& in, std::size_t size) {
    std::size_t done = 0;
    for (std::string line; std::getline(in, line);) {
        done += line.size() + 1;
    }
    require(done == size, "every line is read");
}

BENCHMARK_ALONE void readNumbers(std::istream& in, std::size_t /*size*/) {
    std::uint32_t whole = 0;
    std::uint32_t count = 0;
    for (double fractional = 0; in >> whole >> fractional; ++count) {
        escape(&fractional);
    }
    require(in.eof() && whole == count * 2654435761U, "every number is read");
}

BENCHMARK_ALONE void readCharacters(std::istream& in, std::size_t size) {
    std::streambuf& buffer = *in.rdbuf();
    std::uint64_t total = 0;
    std::size_t done = 0;
    for (int c = buffer.sbumpc(); c != std::char_traits<char>::eof(); c = buffer.sbumpc()) {
        total += static_cast<std::uint64_t>(c);
        ++done;
    }
    keep(total);
    require(done == size, "every character is read");
}

template <class Stream> void addStream(char const* who) {
    for (std::size_t const size : {64U, 4096U, 1048576U, 268435456U}) {
        addRead(size, who, [](Bytes const& source, Bytes const& target) {
            Stream stream(source.chars(), source.size());
            readInto(target, stream.in, source.size());
        });
    }
    auto const addText = [who](char const* work, auto makeText, auto read) {
        add(name(work, textSize, who), [=] {
            return [read, text = makeText()] {
                Stream stream(text.data(), text.size());
                read(stream.in, text.size());
            };
        });
    };
    addText("getline", lines, readLines);
    addText("numbers", numbers, readNumbers);
    addText("sbumpc", lines, readCharacters);
}

constexpr std::size_t streamSize = 65536;

ByteBuffer streamInput() {
    return {ByteBuffer::Block(input(streamSize).data(), [](void*) { /* kept by input() */ }),
            streamSize};
}

// Each makes a source, reads and adds up all its bytes, and returns their number.

BENCHMARK_ALONE std::size_t readByBase(std::uint64_t& total) {
    auto made = std::make_unique<ByteBufferByteStreamImpl>(streamInput());
    // The compiler does not know the type of the source at the call.
    ByteStream const stream(
        std::unique_ptr<ByteStreamImpl>(opaque<ByteStreamImpl*>(made.release())));
    std::size_t count = 0;
    for (std::byte const b : stream) {
        total += std::to_integer<std::uint64_t>(b);
        ++count;
    }
    return count;
}

BENCHMARK_ALONE std::size_t readConcrete(std::uint64_t& total) {
    ByteBufferByteStreamImpl source(streamInput());
    std::size_t count = 0;
    for (; source; ++count) {
        total += std::to_integer<std::uint64_t>(source.getByte());
    }
    return count;
}

BENCHMARK_ALONE std::size_t readByStreambufIterator(std::uint64_t& total) {
    std::ispanstream in(std::span<char const>(input(streamSize).chars(), streamSize));
    std::size_t count = 0;
    for (std::istreambuf_iterator<char> it(in), end; it != end; ++it) {
        total += static_cast<unsigned char>(*it);
        ++count;
    }
    return count;
}

void addByteStream(char const* who, std::size_t (*read)(std::uint64_t& total)) {
    auto const make = [read] {
        return [read] {
            std::uint64_t total = 0;
            require(read(total) == streamSize, "every byte is read");
            keep(total);
        };
    };
    add(name("byte_stream", streamSize, who), make, streamSize); // the time of one byte
}

Family const streams([] {
    addStream<Courier>("courier");
    addStream<SpanStream>("ispanstream");
    addStream<StringStream>("istringstream");
    addStream<ArrayStream>("boost");
    for (std::size_t const size : {64U, 4096U, 1048576U, 268435456U}) {
        addRead(size, "limit", [](Bytes const& source, Bytes const& target) {
            for (std::size_t done = 0; done < source.size(); done += target.size()) {
                std::memcpy(target.data(), source.data() + done, target.size());
                escape(target.data());
            }
        });
    }
    addByteStream("courier", readByBase);
    addByteStream("courier_concrete", readConcrete);
    addByteStream("istreambuf_iterator", readByStreambufIterator);
});

} // namespace
} // namespace benchmarks
