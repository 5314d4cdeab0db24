// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_FORMATS_READ_LIMIT_H
#define COURIER_EXAMPLES_FORMATS_READ_LIMIT_H

#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>

namespace courier::examples {

/// The rest of the memory that reading one element may take. Without a limit, a few damaged or
/// hostile bytes can expand to any size.
///
/// A blob counts its bytes; a document approximately its values and texts. Lengths that the data
/// only claims count nothing. A decoder's own memory is not counted: less than a mebibyte and, for
/// zstd, the window that the data requests, which is bounded by the limit and 128 MiB but may
/// always be 8 MiB.
class ReadBudget {
public:
    explicit ReadBudget(std::uint64_t limit) noexcept : limit_(limit), left_(limit) {}

    /// Throws std::length_error if the limit would be exceeded. Call it before taking memory.
    void spend(std::uint64_t bytes) {
        if (bytes > left_) {
            throw std::length_error("it takes more memory than the read limit of " +
                                    std::to_string(limit_) + " bytes");
        }
        left_ -= bytes;
    }

    [[nodiscard]] std::uint64_t left() const noexcept { return left_; }

private:
    std::uint64_t limit_;
    std::uint64_t left_;
};

/// Turns a reader that takes a ReadBudget into one for addFormat().
template <class Read> auto limited(std::uint64_t limit, Read read) {
    return [limit, read](std::istream& in) { return read(in, ReadBudget(limit)); };
}

} // namespace courier::examples

#endif
