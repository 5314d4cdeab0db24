// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_CORE_DETAIL_TYPE_SPELLING_H
#define COURIER_HUB_CORE_DETAIL_TYPE_SPELLING_H

// The one part of Boost.TypeIndex that is needed: <boost/type_index/ctti_type_index.hpp> would cost
// every includer half a second more.
#include <boost/type_index/detail/compile_time_type_info.hpp>

#include <cstddef>
#include <string_view>
#include <type_traits>

// Spells types in one way, whatever the compiler: a type is taken apart, and only names come from
// the compiler. What is built on a type follows it, so that no two types read alike:
//
//     char const*        int[4][3] (three of four)        void(int)*        int n::C::*
//
// Templates are written with all their arguments, defaults too, and numbers with their type:
// `n::Grid<double,(unsigned int)3>`. Compilers leave out what they take for obvious, each something
// else.
//
// The pieces go to an Out, which has add(std::string_view).
namespace courier::hub::core::detail {

/// The compiler's name of T without qualifiers or keywords in front.
template <class T> constexpr std::string_view compilersName() noexcept {
    // What Boost cuts out of the compiler's signature still ends in that signature's bracket.
    std::string_view const name = boost::detail::ctti<T>::n();
    return name.substr(0, name.rfind(']'));
}

/// The argument of a template with one.
constexpr std::string_view argumentOf(std::string_view name) noexcept {
    auto const first = name.find('<') + 1;
    return name.substr(first, name.rfind('>') - first);
}

/// Whether the name says the same type in every file. It does not in an unnamed namespace, for a
/// closure, for a class without a name or for one local to a function.
constexpr bool isNameShared(std::string_view name) noexcept {
    constexpr std::string_view marks[] = {
        "{anonymous}", "(anonymous", "<unnamed", "(unnamed",    "<lambda",    "(lambda at",
        ")::",         " const::",   "&::",      " volatile::", " requires ",
    };
    for (std::string_view const mark : marks) {
        if (name.find(mark) != std::string_view::npos) {
            return false;
        }
    }
    return true;
}

/// Whether a template in the name has an argument that is neither a type nor a word: compilers
/// spell numbers and addresses differently, and g++ writes 3 for 3U, which is another type.
constexpr bool hasValueArgument(std::string_view name) noexcept {
    char before = '\0';
    for (char const c : name) {
        bool const isFirst = before == '<' || before == ',';
        if (c == '{' || c == '\'' ||
            (isFirst && std::string_view("-0123456789(&").find(c) != std::string_view::npos)) {
            return true;
        }
        before = c == ' ' ? before : c;
    }
    return false;
}

constexpr bool isInWord(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           static_cast<unsigned char>(c) >= 0x80;
}
constexpr bool startsInWord(std::string_view text) noexcept {
    return !text.empty() && isInWord(text.front());
}

/// A text of at most `capacity` bytes, put together at compile time.
template <std::size_t capacity> struct Text {
    char bytes[capacity] = {};
    std::size_t size = 0;

    constexpr void add(std::string_view piece) noexcept {
        piece.copy(bytes + size, piece.size());
        size += piece.size();
    }
    [[nodiscard]] constexpr std::string_view view() const noexcept { return {bytes, size}; }
};

/// Spells a compiler's name with blanks only between words, with the shorter names of the integers,
/// without the inline namespaces of the standard libraries, which clang leaves out, and without the
/// short names that libc++ has clang use for the strings. At most three times as long.
template <std::size_t capacity>
constexpr void spellName(std::string_view name, Text<capacity>& out) noexcept {
    constexpr std::string_view replacements[][2] = {
        {"long long unsigned int", "unsigned long long"},
        {"long long int", "long long"},
        {"long unsigned int", "unsigned long"},
        {"long int", "long"},
        {"short unsigned int", "unsigned short"},
        {"short int", "short"},
        {"__int128 unsigned", "unsigned __int128"},
        {"__cxx11::", ""},
        {"_V2::", ""},
        {"__1::", ""},
        {"std::string", "std::basic_string<char>"},
        {"std::string_view", "std::basic_string_view<char>"},
    };
    bool isAfterWord = false;
    while (!name.empty()) {
        if (name.front() == ' ') {
            name.remove_prefix(1);
            if (isAfterWord && startsInWord(name)) {
                out.add(" ");
            }
            isAfterWord = false;
            continue;
        }
        std::size_t length = 1;
        while (isInWord(name.front()) && startsInWord(name.substr(length))) {
            ++length;
        }
        std::string_view text = name.substr(0, length);
        for (auto const& [from, to] : replacements) {
            if (from.front() == name.front() && name.starts_with(from) &&
                (from.ends_with(':') || !startsInWord(name.substr(from.size())))) {
                length = from.size();
                text = to;
                break;
            }
        }
        out.add(text);
        isAfterWord = isInWord(name[length - 1]);
        name.remove_prefix(length);
    }
}

template <class Out> constexpr void spellNumber(unsigned long long number, Out& out) noexcept {
    if (number > 9) {
        spellNumber(number / 10, out);
    }
    out.add(std::string_view("0123456789").substr(number % 10, 1));
}

template <class T, class Out> constexpr void spellType(Out& out) noexcept;

/// As C++ writes it with a cast, which enumerators without a name need anyway: (n::Colour)2.
template <auto value, class Out> constexpr void spellValue(Out& out) noexcept {
    using T = std::remove_const_t<decltype(value)>;
    static_assert((std::is_integral_v<T> || std::is_enum_v<T>)&&sizeof(T) <= sizeof(long long),
                  "of the values that a template may take, only numbers, characters, bool and "
                  "enumerators have a spelling on which compilers agree");
    out.add("(");
    spellType<T>(out);
    out.add(")");
    if constexpr (value < T{}) {
        out.add("-");
        spellNumber(0 - static_cast<unsigned long long>(value), out);
    } else {
        spellNumber(static_cast<unsigned long long>(value), out);
    }
}

/// Spells what each function spells, with commas between.
template <class Out, class... Spell> constexpr void spellList(Out& out, Spell... spell) noexcept {
    [[maybe_unused]] std::string_view comma;
    ((out.add(comma), spell(out), comma = ","), ...);
}

/// The name of T or, where T is Wrapped<a template>, of that template. Spelt once for each T, not
/// each time that T is part of another type: compilers are slow at this.
template <class T, bool isTemplate> constexpr auto spelledName() noexcept {
    constexpr std::string_view name =
        isTemplate ? argumentOf(compilersName<T>()) : compilersName<T>();
    static_assert(
        isNameShared(name),
        "a type without a name outside its file has no identifier: two modules could each "
        "have their own type under one identifier");
    static_assert(!isNameShared(name) || !hasValueArgument(name),
                  "a class inside a template that has a value for an argument has no identifier: "
                  "compilers write that value in more ways than one");
    Text<3 * name.size()> text;
    spellName(name, text);
    return text;
}
template <class T, bool isTemplate> inline constexpr auto nameOf = spelledName<T, isTemplate>();

/// Spells a template by the name in Wrapped and, with these functions, its arguments.
template <class Wrapped, class Out, class... Spell>
constexpr void spellTemplate(Out& out, Spell... spell) noexcept {
    out.add(nameOf<Wrapped, true>.view());
    out.add("<");
    spellList(out, spell...);
    out.add(">");
}

/// What is built of several types, by one specialisation each. Here: classes, enumerations and
/// fundamental types, and whatever else cannot be taken apart.
template <class T> struct Composite {
    template <class Out> static constexpr void spell(Out& out) noexcept {
        out.add(nameOf<T, false>.view());
    }
};

template <template <class...> class> struct OfTypes;
template <template <class...> class Template, class... Types> struct Composite<Template<Types...>> {
    template <class Out> static constexpr void spell(Out& out) noexcept {
        spellTemplate<OfTypes<Template>>(out, spellType<Types, Out>...);
    }
};

template <template <auto...> class> struct OfValues;
template <template <auto...> class Template, auto... values> struct Composite<Template<values...>> {
    template <class Out> static constexpr void spell(Out& out) noexcept {
        spellTemplate<OfValues<Template>>(out, spellValue<values, Out>...);
    }
};

template <template <class, auto...> class> struct OfTypeAndValues;
template <template <class, auto...> class Template, class Type, auto value, auto... values>
struct Composite<Template<Type, value, values...>> {
    template <class Out> static constexpr void spell(Out& out) noexcept {
        spellTemplate<OfTypeAndValues<Template>>(out, spellType<Type, Out>, spellValue<value, Out>,
                                                 spellValue<values, Out>...);
    }
};

template <template <class, class, auto...> class> struct OfTypesAndValues;
template <template <class, class, auto...> class Template, class First, class Second, auto value,
          auto... values>
struct Composite<Template<First, Second, value, values...>> {
    template <class Out> static constexpr void spell(Out& out) noexcept {
        spellTemplate<OfTypesAndValues<Template>>(out, spellType<First, Out>,
                                                  spellType<Second, Out>, spellValue<value, Out>,
                                                  spellValue<values, Out>...);
    }
};

template <template <auto, class...> class> struct OfValueAndTypes;
template <template <auto, class...> class Template, auto value, class Type, class... Types>
struct Composite<Template<value, Type, Types...>> {
    template <class Out> static constexpr void spell(Out& out) noexcept {
        spellTemplate<OfValueAndTypes<Template>>(out, spellValue<value, Out>, spellType<Type, Out>,
                                                 spellType<Types, Out>...);
    }
};

// Functions with qualifiers, which only pointers to members need, keep the compiler's spelling.
template <class Result, class... Types, bool isNoexcept>
struct Composite<Result(Types...) noexcept(isNoexcept)> {
    template <class Out> static constexpr void spell(Out& out) noexcept {
        spellType<Result>(out);
        out.add("(");
        spellList(out, spellType<Types, Out>...);
        out.add(isNoexcept ? ") noexcept" : ")");
    }
};

template <class Member, class Class> struct Composite<Member Class::*> {
    template <class Out> static constexpr void spell(Out& out) noexcept {
        spellType<Member>(out);
        out.add(" ");
        spellType<Class>(out);
        out.add("::*");
    }
};

template <class T, class Out> constexpr void spellType(Out& out) noexcept {
    if constexpr (std::is_const_v<T>) {
        spellType<std::remove_const_t<T>>(out);
        out.add(" const");
    } else if constexpr (std::is_volatile_v<T>) {
        spellType<std::remove_volatile_t<T>>(out);
        out.add(" volatile");
    } else if constexpr (std::is_pointer_v<T>) {
        spellType<std::remove_pointer_t<T>>(out);
        out.add("*");
    } else if constexpr (std::is_reference_v<T>) { // the blank tells it from a function's qualifier
        spellType<std::remove_reference_t<T>>(out);
        out.add(std::is_lvalue_reference_v<T> ? " &" : " &&");
    } else if constexpr (std::is_array_v<T>) {
        spellType<std::remove_extent_t<T>>(out);
        out.add("[");
        if constexpr (std::is_bounded_array_v<T>) {
            spellNumber(std::extent_v<T>, out);
        }
        out.add("]");
    } else {
        Composite<T>::spell(out);
    }
}

} // namespace courier::hub::core::detail

#endif
