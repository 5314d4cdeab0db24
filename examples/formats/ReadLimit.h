// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_FORMATS_READ_LIMIT_H
#define COURIER_EXAMPLES_FORMATS_READ_LIMIT_H

#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>

namespace courier::examples {

/// What is left of the memory that reading one element may take: a few damaged or hostile bytes can
/// expand to any size.
///
/// A blob counts its bytes, a document approximately what its values and texts take. A length that
/// the data only claims takes nothing. A decoder's own memory comes on top: less than a mebibyte,
/// and for zstd the window that the data asks for, up to the limit but no more than 128 MiB and,
/// even below it, 8 MiB.
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

/// Makes a reader, for addFormat(), of one that takes a ReadBudget as well.
template <class Read> auto limited(std::uint64_t limit, Read read) {
    return [limit, read](std::istream& in) { return read(in, ReadBudget(limit)); };
}

} // namespace courier::examples

#endif
