// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/streams.md.

#include <courier/hub/serialisation/IOStreams.h>

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

using namespace courier::hub::serialisation;

namespace {

ByteBuffer write() {
    ByteBufferOStream out;
    out << 3 << ' ' << "apples" << '\n'; // throws if memory runs out
    return out.release();                // the block that was written to: no copy
}

} // namespace

int main() {
    ByteBuffer buffer = write();

    // Borrowed: the buffer outlives the stream.
    {
        ByteBufferIStream in{ByteBufferView(buffer)};
        int count = 0;
        std::string fruit;
        if (!(in >> count >> fruit)) {
            std::cerr << "not a count and a fruit\n";
            return 1;
        }
        std::cout << fruit << ": " << count << '\n';
    }

    // Byte by byte, from any source of bytes.
    ByteStream stream(std::make_unique<ByteBufferByteStreamImpl>(buffer.clone()));
    auto const lines = std::ranges::count(stream, std::byte{'\n'});
    std::cout << lines << " line\n";

    // Owned: the stream keeps the bytes alive.
    ByteBufferIStream in(std::move(buffer));
    for (std::string word; in >> word;) {
        std::cout << word << ", " << in.unread().size() << " bytes left\n";
    }
}
