// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_FORMATS_WRITE_BLOCK_H
#define COURIER_EXAMPLES_FORMATS_WRITE_BLOCK_H

#include <courier/hub/serialisation/IOStreams.h>

#include <cstddef>
#include <memory>
#include <ostream>
#include <span>

namespace courier::examples {

/// Writes what an encoder writes to memory: size = encode(room), where the room is at least n
/// bytes. That is the stream's own block, if it has one.
template <class Encode> void writeBlock(std::ostream& out, std::size_t n, Encode encode) {
    if (auto const room = hub::serialisation::prepare(out, n)) {
        hub::serialisation::commit(out, encode(*room));
    } else {
        auto const block = std::make_unique_for_overwrite<std::byte[]>(n);
        std::size_t const size = encode(std::span(block.get(), n));
        out.write(reinterpret_cast<char const*>(block.get()), static_cast<std::streamsize>(size));
    }
}

} // namespace courier::examples

#endif
