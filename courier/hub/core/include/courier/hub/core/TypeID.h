// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_CORE_TYPE_ID_H
#define COURIER_HUB_CORE_TYPE_ID_H

#include <courier/hub/core/detail/TypeSpelling.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace courier::hub::core {

/// Computes the 64-bit hash that type identifiers are made of, over a text added in pieces. The
/// hash is the same on every machine, whatever its byte order. Bytes count as unsigned.
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

    /// The hash of the text so far. How it was divided into pieces does not matter.
    [[nodiscard]] constexpr std::uint64_t value() const noexcept {
        // A byte 1 terminates the last word, which is always mixed in, so that trailing zeros
        // count.
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
    unsigned filled_ = 0;    // the number of its bits in use
};

/// The hash of a whole text. One pass, no allocation.
constexpr std::uint64_t hashTypeText(std::string_view text) noexcept {
    TypeTextHash hash;
    hash.add(text);
    return hash.value();
}

namespace detail {
template <class T, class Out> constexpr void spellTypeOfModule(Out& out) noexcept {
    spellType<T>(out);
    if constexpr (isOfOneFile(compilersName<T>())) {
        out.add(" in ");
#ifdef COURIER_MODULE_NAME
        out.add(COURIER_MODULE_NAME " ");
#endif
        out.add(__BASE_FILE__);
    }
}

struct Length {
    constexpr void add(std::string_view piece) noexcept { value += piece.size(); }
    std::size_t value = 0;
};
template <class T> constexpr auto textOfType() noexcept {
    constexpr std::size_t length = [] {
        Length counted;
        spellTypeOfModule<T>(counted);
        return counted.value;
    }();
    Text<length> text;
    spellTypeOfModule<T>(text);
    return text;
}
// Hidden: g++ makes it a unique symbol otherwise, with which a module is never unloaded.
template <class T>
#ifndef _WIN32
[[gnu::visibility("hidden")]]
#endif
inline constexpr auto typeText = textOfType<T>();
} // namespace detail

/// The identifier of a type: a constant that is equal in every module for equal types, whether
/// built by g++ or clang, with libstdc++ or libc++. References and top-level const and volatile are
/// ignored. T may be incomplete.
///
/// A type that belongs to one file (in an unnamed namespace, local to a function, or composed of
/// such a type) has a different identifier in each file. It is made of the type's name, the name of
/// the module, and the name of the main source file, as passed to the compiler. Use such types
/// within their file only, in tests for example.
///
/// courier_add_module() defines the module's name, COURIER_MODULE_NAME, a string literal. Define it
/// for modules that are built by other means: if two of them compile a file of one relative path,
/// or under a -ffile-prefix-map that makes it so, the compiler calls both files the same. Without
/// it, such a type of one module has the identifier of the type of that name in the other, and
/// get() takes one for the other.
///
/// Local classes need care:
///  - clang does not name the function that contains a class. The class has the identifier of a
///    class of the same name at namespace scope, in any file, and get() takes one for the other.
///    With clang, use a local class as an element only if its name is unique.
///  - g++ does not distinguish two classes of one name in different blocks of one function.
///  - A class local to an inline function has a different identifier in each file that includes it.
///    Move it to namespace scope.
///
/// Build all modules that share one of these types with the same compiler and standard library,
/// because compilers name them differently or incompletely:
///  - a type inside a user's own inline namespace: clang omits the namespace, so that two versions
///    of a class have one identifier;
///  - a class inside a template, a template that takes templates, or one that takes types and
///    values in another order than a type, values, or a type, a value, types, if an argument is a
///    defaulted value (clang 14 shows it), a name that libc++ abbreviates (the streams, but not the
///    strings), or an overloaded function (g++ shows only its name);
///  - a class inside a template over `auto`: g++ does not distinguish 3 from 3u there;
///  - a standard library's own types: iterators of containers, `std::exception_ptr`.
///
/// Closures, classes without a name, and types inside or composed of them are rejected at compile
/// time; so are objects, floating-point numbers and parts of objects as template arguments.
template <class T> constexpr std::uint64_t getTypeID() noexcept {
    constexpr std::uint64_t id = [] {
        using Type = std::remove_cvref_t<T>;
        TypeTextHash hash;
        hash.add("i<");
        detail::spellTypeOfModule<Type>(hash);
        return hash.value();
    }();
    return id;
}

/// The name of a type, as getTypeID() hashes it: hashTypeText("i<" + name) is the identifier. For
/// messages: compilers' own names differ.
template <class T> constexpr std::string_view getTypeName() noexcept {
    return detail::typeText<std::remove_cvref_t<T>>.view();
}

static_assert(getTypeID<void>() == 0x5BE70EF845054701,
              "this compiler spells type names in a way that is not known here: the identifiers "
              "would not agree with those of other modules");

} // namespace courier::hub::core

#endif
