// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/coming-from-elsewhere.md.

#include <courier/hub/serialisation/IOStreams.h>

#include <cstddef>
#include <iostream>
#include <span>
#include <string>
#include <utility>
#include <vector>

using namespace courier::hub::serialisation;

namespace {

std::size_t sizeOf(std::span<std::byte const> bytes) { return bytes.size(); }

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

    ByteBufferIStream in(std::move(message));
    std::string line;
    if (std::getline(in, line)) {
        std::cout << line << '\n';
    }
}
