// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/coming-from-elsewhere.md.

#include <courier/hub/serialisation/Streams.h>

#include <cstddef>
#include <iostream>
#include <istream>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <utility>
#include <vector>

using namespace courier::hub::serialisation;

namespace {

std::size_t sizeOf(std::span<std::byte const> bytes) { return bytes.size(); }

// Keeps any owner of bytes alive as the block of a buffer.
template <class Owner> ByteBuffer adopt(Owner owner) {
    auto kept = std::make_shared<Owner>(std::move(owner));
    void* const bytes = kept->data();
    std::size_t const size = kept->size();
    return ByteBuffer({bytes, [kept = std::move(kept)](void*) mutable { kept.reset(); }}, size);
}

} // namespace

int main() {
    ByteBuffer const fromVector(std::vector<std::byte>(16)); // takes the vector over
    ByteBuffer const fromString = adopt(std::string(100, 'x'));
    std::cout << sizeOf(fromVector) << ' ' << sizeOf(fromString) << '\n';

    std::vector<ByteBuffer> pieces;
    pieces.push_back(adopt(std::string("head, ")));
    pieces.push_back(adopt(std::string("body")));
    ByteBuffer message;
    message.append(std::move(pieces)); // one allocation, and one copy of each piece

    ByteBufferIStreambuf source(std::make_unique<ByteBuffer>(std::move(message)));
    std::istream in(&source);
    std::string line;
    std::getline(in, line);
    std::cout << line << '\n';
}
