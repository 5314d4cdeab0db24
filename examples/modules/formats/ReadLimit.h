// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_FORMATS_READ_LIMIT_H
#define COURIER_EXAMPLES_FORMATS_READ_LIMIT_H

#include <courier/hub/serialisation/Catalogue.h>

#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>

namespace courier::examples {

/// The most memory that reading one element may take. Readers throw std::length_error above it.
///
/// A program tells it to its modules through the catalogue, the one thing that they share: it sets
/// the limit before it lets them register. Each catalogue has its own limit.
struct ReadLimit {
    std::uint64_t bytes;
};
inline constexpr std::uint64_t defaultReadLimit = std::uint64_t{256} << 20;
inline constexpr char readLimitName[] = "setting"; // as a wire format, which needs no bytes

inline void setReadLimit(hub::serialisation::Catalogue& catalogue, std::uint64_t bytes) {
    catalogue.add(
        hub::serialisation::Deserialiser(readLimitName, hub::core::getTypeID<ReadLimit>(),
                                         [bytes](std::istream&) { return ReadLimit{bytes}; }));
}

/// The limit that was set, or the default.
inline std::uint64_t readLimit(hub::serialisation::Catalogue const& catalogue) {
    constexpr auto id = hub::core::getTypeID<ReadLimit>();
    if (!catalogue.hasDeserialiserFor(readLimitName, id)) {
        return defaultReadLimit;
    }
    std::istream none(nullptr);
    return catalogue.getDeserialiserFor(readLimitName, id)(none).get<ReadLimit>(0).bytes;
}

/// The rest of the memory that reading one element may take. Without a limit, a few damaged or
/// hostile bytes can expand to any size.
///
/// A blob counts its bytes, a document its values and texts with all that they take while they are
/// read. A decoder's own memory is not counted: less than a mebibyte, and 8 MiB for zstd.
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

/// Turns a reader that takes a ReadBudget into one for addFormat(), with the catalogue's limit.
template <class Read> auto limited(hub::serialisation::Catalogue const& catalogue, Read read) {
    return [limit = readLimit(catalogue), read](std::istream& in) {
        return read(in, ReadBudget(limit));
    };
}

} // namespace courier::examples

#endif
