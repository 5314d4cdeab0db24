// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_CORE_TYPE_ID_H
#define COURIER_HUB_CORE_TYPE_ID_H

// The one part of Boost.TypeIndex that is needed: <boost/type_index/ctti_type_index.hpp> would cost
// every includer half a second more.
#include <boost/type_index/detail/compile_time_type_info.hpp>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace courier::hub::core {

/// The 64-bit hash of a text, on which type identifiers rest: the same on every machine, whatever
/// its byte order, and for every release of Boost. Bytes count as unsigned. One pass, no
/// allocation.
constexpr std::uint64_t hashTypeText(std::string_view text) noexcept {
    auto const mix = [](std::uint64_t x) {
        constexpr std::uint64_t multiplier = 0x0E9846AF9B1A615D;
        x = (x ^ (x >> 32)) * multiplier;
        x = (x ^ (x >> 32)) * multiplier;
        return x ^ (x >> 28);
    };
    std::uint64_t hash = 0;
    std::uint64_t word = 0;
    unsigned filled = 0; // bits of the little-endian word
    for (char const c : text) {
        word |= std::uint64_t{static_cast<unsigned char>(c)} << filled;
        filled += 8;
        if (filled == 32) {
            hash = mix(hash + 0x9E3779B9 + word);
            word = 0;
            filled = 0;
        }
    }
    // The last word always runs, closed by a byte 1, so that trailing zeros count.
    return mix(hash + 0x9E3779B9 + (word | std::uint64_t{1} << filled));
}

namespace detail {

/// The name of T without qualifiers or keywords in front, as both g++ and clang spell it where T is
/// fundamental or a class that is not a template.
template <class T> constexpr std::string_view typeName() noexcept {
    // g++ writes "long unsigned int" where clang writes "unsigned long"; the shorter one it is.
    if constexpr (std::is_same_v<T, short>) {
        return "short";
    } else if constexpr (std::is_same_v<T, unsigned short>) {
        return "unsigned short";
    } else if constexpr (std::is_same_v<T, long>) {
        return "long";
    } else if constexpr (std::is_same_v<T, unsigned long>) {
        return "unsigned long";
    } else if constexpr (std::is_same_v<T, long long>) {
        return "long long";
    } else if constexpr (std::is_same_v<T, unsigned long long>) {
        return "unsigned long long";
    } else {
        // What Boost cuts out of the compiler's signature still ends in that signature's bracket.
        std::string_view const name = boost::detail::ctti<T>::n();
        return name.substr(0, name.rfind(']'));
    }
}

/// Whether the name says the same type in every file. It does not in an unnamed namespace, for a
/// closure, for a class without a name or for one local to a function.
constexpr bool isNameShared(std::string_view name) noexcept {
    constexpr std::string_view marks[] = {
        "{anonymous}", "(anonymous", "<unnamed", "(unnamed", "<lambda",
        "(lambda at",  ")::",        " const::", "&::",      " volatile::",
    };
    for (std::string_view const mark : marks) {
        if (name.find(mark) != std::string_view::npos) {
            return false;
        }
    }
    return true;
}

template <class T> constexpr std::uint64_t hashTypeName() noexcept {
    constexpr std::string_view prefix = "i<";
    constexpr std::string_view name = typeName<T>();
    char text[prefix.size() + name.size()] = {};
    prefix.copy(text, prefix.size());
    name.copy(text + prefix.size(), name.size());
    return hashTypeText({text, sizeof(text)});
}

static_assert(hashTypeName<void>() == 0x5BE70EF845054701,
              "this compiler spells type names in a way that is not known here: the identifiers "
              "would not agree with those of other modules");

} // namespace detail

/// The identifier of a type: a constant, equal in every module for equal types. References and
/// top-level const and volatile are ignored. T may be incomplete.
///
/// Modules built by g++ and by clang agree for `void`, for fundamental types and for every class
/// that is neither a template nor inside an inline namespace; for other types the two compilers
/// spell some names differently, and modules that share them must be built by the same one.
///
/// A type without a name outside its file (in an unnamed namespace, a closure, a local class where
/// the compiler shows it) is refused at compile time.
template <class T> constexpr std::uint64_t getTypeID() noexcept {
    using Bare = std::remove_cvref_t<T>;
    static_assert(
        detail::isNameShared(detail::typeName<Bare>()),
        "a type without a name outside its file has no identifier: two modules could each "
        "have their own type under one identifier");
    constexpr std::uint64_t id = detail::hashTypeName<Bare>();
    return id;
}

} // namespace courier::hub::core

#endif
