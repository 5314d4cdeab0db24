// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/streams.md.

#include <courier/hub/serialisation/Streams.h>

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <istream>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <utility>

using namespace courier::hub::serialisation;

namespace {

ByteBuffer write() {
    ByteBufferOStreambuf sink;
    std::ostream out(&sink);
    out << 3 << ' ' << "apples" << '\n';
    if (!out.flush()) { // memory ran out on the way
        throw std::bad_alloc();
    }
    return sink.release(); // the block that was written to: no copy
}

} // namespace

int main() {
    ByteBuffer buffer = write();

    // Borrowed: the buffer outlives the reader.
    {
        NonOwningByteBufferViewIStreambuf source(buffer.makeView(0, 0));
        std::istream in(&source);
        int count = 0;
        std::string fruit;
        if (!(in >> count >> fruit)) {
            std::cerr << "damaged\n";
            return 1;
        }
        std::cout << fruit << ": " << count << '\n';
    }

    // Byte by byte, from any source of bytes.
    ByteStream stream(std::make_unique<ByteBufferByteStreamImpl>(buffer.clone()));
    auto const lines = std::ranges::count(stream, std::byte{'\n'});
    std::cout << lines << " line\n";

    // Owned: whoever gets the stream buffer needs nothing else.
    ByteBufferIStreambuf source(std::make_unique<ByteBuffer>(std::move(buffer)));
    std::istream in(&source);
    for (std::string word; in >> word;) {
        std::cout << word << '\n';
    }
}
