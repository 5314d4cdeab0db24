// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_CORE_TYPE_ID_H
#define COURIER_HUB_CORE_TYPE_ID_H

#include <courier/hub/core/detail/TypeSpelling.h>

#include <cstdint>
#include <string_view>
#include <type_traits>

namespace courier::hub::core {

/// The 64-bit hash of which type identifiers are made, of a text that is added in pieces. It is the
/// same on every machine, whatever its byte order, and for every release of Boost. Bytes count as
/// unsigned.
class TypeTextHash {
public:
    /// Adds the next piece.
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
        // The last word is always mixed in, closed by a byte 1, so that trailing zeros count.
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
/// A type that belongs to one file (in an unnamed namespace, local to a function, or built of such
/// a type) has an identifier of its own in each file: that of its name and of the name of the main
/// source file, as the compiler was given it. It serves within that file, for tests for example; do
/// not exchange such types between files or modules.
///
/// Local classes need care:
///  - clang does not tell in which function a class is. There the identifier is that of a class of
///    the same name at namespace scope, in any file, and get() of one yields the other. Under clang
///    use a local class as an element only if its name is used nowhere else.
///  - g++ does not tell two classes of one name in different blocks of one function.
///  - A class local to an inline function has an identifier in each file that includes it. Move it
///    to namespace scope.
///
/// Modules that share one of these types must be built by the same compiler, with the same standard
/// library, because the compilers do not tell enough about it:
///  - what is inside a user's own inline namespace: clang leaves that out, and so gives two
///    versions of a class one identifier;
///  - a class inside a template, or a template that takes templates, if one of the arguments is a
///    defaulted value (clang 14 shows it), a name for which libc++ has a short one (the streams,
///    but not the strings), or an overloaded function (g++ shows its name only);
///  - a class inside a template over `auto`: g++ does not tell 3 from 3u there;
///  - what a standard library defines for itself: iterators of containers, `std::exception_ptr`.
///
/// Refused at compile time are closures and classes without a name, and whatever is inside or made
/// of them; and as arguments of a template objects, floating-point numbers and parts of objects.
template <class T> constexpr std::uint64_t getTypeID() noexcept {
    constexpr std::uint64_t id = [] {
        using Type = std::remove_cvref_t<T>;
        TypeTextHash hash;
        hash.add("i<");
        detail::spellType<Type>(hash);
        if constexpr (detail::isOfOneFile(detail::compilersName<Type>())) {
            hash.add(" in ");
            hash.add(__BASE_FILE__);
        }
        return hash.value();
    }();
    return id;
}

static_assert(getTypeID<void>() == 0x5BE70EF845054701,
              "this compiler spells type names in a way that is not known here: the identifiers "
              "would not agree with those of other modules");

} // namespace courier::hub::core

#endif
