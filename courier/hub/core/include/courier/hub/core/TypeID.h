// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_CORE_TYPE_ID_H
#define COURIER_HUB_CORE_TYPE_ID_H

#include <courier/hub/core/detail/TypeSpelling.h>

#include <cstdint>
#include <string_view>
#include <type_traits>

namespace courier::hub::core {

/// The 64-bit hash on which type identifiers rest, of a text that comes in pieces: the same on
/// every machine, whatever its byte order, and for every release of Boost. Bytes count as unsigned.
class TypeTextHash {
public:
    /// The next piece.
    constexpr void add(std::string_view piece) noexcept {
        for (char const c : piece) {
            word_ |= std::uint64_t{static_cast<unsigned char>(c)} << filled_;
            filled_ += 8;
            if (filled_ == 32) {
                hash_ = mix(hash_ + 0x9E3779B9 + word_);
                word_ = 0;
                filled_ = 0;
            }
        }
    }

    /// The hash of all pieces so far, however the text was cut.
    [[nodiscard]] constexpr std::uint64_t value() const noexcept {
        // The last word always runs, closed by a byte 1, so that trailing zeros count.
        return mix(hash_ + 0x9E3779B9 + (word_ | std::uint64_t{1} << filled_));
    }

private:
    static constexpr std::uint64_t mix(std::uint64_t x) noexcept {
        constexpr std::uint64_t multiplier = 0x0E9846AF9B1A615D;
        x = (x ^ (x >> 32)) * multiplier;
        x = (x ^ (x >> 32)) * multiplier;
        return x ^ (x >> 28);
    }

    std::uint64_t hash_ = 0;
    std::uint64_t word_ = 0; // little-endian
    unsigned filled_ = 0;    // its bits
};

/// The hash of a whole text. One pass, no allocation.
constexpr std::uint64_t hashTypeText(std::string_view text) noexcept {
    TypeTextHash hash;
    hash.add(text);
    return hash.value();
}

/// The identifier of a type: a constant, equal in every module for equal types, whether g++ or
/// clang built it, with libstdc++ or libc++. References and top-level const and volatile are
/// ignored. T may be incomplete.
///
/// Modules that share one of these types must be built by the same compiler, with the same standard
/// library, for the compilers do not tell enough about it:
///  - what is inside a user's own inline namespace: clang leaves that out, and so gives two
///    versions of a class one identifier;
///  - a local class: clang leaves the function out;
///  - a class inside a template, or a template that takes templates, if one of the arguments is a
///    defaulted value (clang 14 shows it), a name for which libc++ has a short one (the streams,
///    but not the strings), or an overloaded function (g++ shows its name only);
///  - what a standard library defines for itself: iterators of containers, `std::exception_ptr`.
///
/// Refused at compile time are a type without a name outside its file (in an unnamed namespace, a
/// closure, a local class where the compiler shows it), also as an argument of a template;
/// pointers, floating-point numbers and objects as arguments of a template; and numbers as
/// arguments of one around a class, or of one that mixes types and values in an unusual order
/// (usual are values only, values after one or two types, types after one value).
template <class T> constexpr std::uint64_t getTypeID() noexcept {
    constexpr std::uint64_t id = [] {
        TypeTextHash hash;
        hash.add("i<");
        detail::spellType<std::remove_cvref_t<T>>(hash);
        return hash.value();
    }();
    return id;
}

static_assert(getTypeID<void>() == 0x5BE70EF845054701,
              "this compiler spells type names in a way that is not known here: the identifiers "
              "would not agree with those of other modules");

} // namespace courier::hub::core

#endif
