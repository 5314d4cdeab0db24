// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_READ_LIMIT_H
#define COURIER_EXAMPLES_READ_LIMIT_H

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace courier::examples {

/// How much memory the decoding of one element may take: a few damaged or hostile bytes can expand
/// to any size. Each deserialiser of the example modules carries the limit of its module as its
/// handle, so that a program can set it:
///
///     std::static_pointer_cast<ReadLimit>(deserialiser.getHandle())->bytes = 1 << 30;
///
/// A blob counts its bytes, a document approximately what its values and texts take. Lengths that
/// the data only claims take nothing. A decoder's own memory comes on top: less than a mebibyte,
/// and for zstd the window that the data asks for, up to the limit but no more than 128 MiB and,
/// also below it, 8 MiB. Documents are refused that nest more than 500 levels deep.
///
/// Any thread may change it at any time; reads that begin afterwards see it.
struct ReadLimit {
    std::atomic<std::uint64_t> bytes{std::uint64_t{4} << 30};
};

/// What is left of a limit during one read.
class ReadBudget {
public:
    explicit ReadBudget(ReadLimit const& limit) noexcept : limit_(limit.bytes), left_(limit_) {}

    /// Throws std::length_error when the limit would be exceeded. Call it before taking memory.
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

} // namespace courier::examples

#endif
