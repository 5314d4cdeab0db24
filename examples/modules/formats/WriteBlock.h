// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_FORMATS_WRITE_BLOCK_H
#define COURIER_EXAMPLES_FORMATS_WRITE_BLOCK_H

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Serialisers.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <ostream>
#include <span>

namespace courier::examples {

/// Writes a block in pieces, between which it can be stopped. Costs less than a StoppableOStream.
inline void writeAll(std::span<std::byte const> block, std::ostream& out,
                     hub::serialisation::stop_token const& stop) {
    do {
        constexpr std::size_t largestPiece = 65536;
        hub::serialisation::throwIfStopped(stop);
        auto const piece = block.first(std::min(block.size(), largestPiece));
        out.write(reinterpret_cast<char const*>(piece.data()),
                  static_cast<std::streamsize>(piece.size()));
        block = block.subspan(piece.size());
    } while (!block.empty());
}

/// Writes what an encoder writes to memory: size = encode(room), where the room is at least n
/// bytes. That is the stream's own block, if it has one.
template <class Encode> void writeBlock(std::size_t n, std::ostream& out,
                                        hub::serialisation::stop_token const& stop, Encode encode) {
    hub::serialisation::throwIfStopped(stop);
    if (auto const room = hub::serialisation::prepare(out, n)) {
        hub::serialisation::commit(out, encode(*room));
    } else {
        auto const block = std::make_unique_for_overwrite<std::byte[]>(n);
        std::span<std::byte> const whole(block.get(), n);
        writeAll(whole.first(encode(whole)), out, stop);
    }
}

} // namespace courier::examples

#endif
