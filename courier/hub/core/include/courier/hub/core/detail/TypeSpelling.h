// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_CORE_DETAIL_TYPE_SPELLING_H
#define COURIER_HUB_CORE_DETAIL_TYPE_SPELLING_H

#if __cplusplus < 202002L && !defined(_MSC_VER)
#error "Compile with -std=c++20 or later: this library needs C++20"
#endif

// The only part of Boost.TypeIndex that is needed. Including <boost/type_index/ctti_type_index.hpp>
// takes half a second longer.
#include <boost/type_index/detail/compile_time_type_info.hpp>

#include <array>
#include <cstddef>
#include <string_view>
#include <type_traits>

// Spells types the same way with every compiler: a type is decomposed, and only names come from the
// compiler. Qualifiers and declarators follow their type, so that no two types have one spelling:
//
//     char const*        int[4][3] (three of four)        void(int)*        int n::C::*
//
// Templates are spelled with all their arguments, even defaults, and numbers with their type:
// `n::Grid<double,(unsigned int)3>`. Compilers omit what can be inferred, each in its own way.
//
// The pieces are passed to an Out, which has a function add(std::string_view).
namespace courier::hub::core::detail {

// The searching members of std::string_view are not constant expressions in g++ with
// -fsanitize=undefined.
constexpr bool startsWith(std::string_view text, std::string_view start) noexcept {
    if (text.size() < start.size()) {
        return false;
    }
    for (std::size_t i = 0; i < start.size(); ++i) {
        if (text[i] != start[i]) {
            return false;
        }
    }
    return true;
}

/// The position of the first `wanted` in the text; the text's size if there is none.
constexpr std::size_t firstOf(std::string_view text, std::string_view wanted) noexcept {
    std::size_t i = 0;
    while (i < text.size() && !startsWith(text.substr(i), wanted)) {
        ++i;
    }
    return i;
}
constexpr bool contains(std::string_view text, std::string_view wanted) noexcept {
    return firstOf(text, wanted) != text.size();
}

/// The text before its last `end`.
constexpr std::string_view before(std::string_view text, char end) noexcept {
    while (!text.empty() && text.back() != end) {
        text.remove_suffix(1);
    }
    return text.substr(0, text.size() - (text.empty() ? 0 : 1));
}

/// The compiler's name of T without leading qualifiers or keywords.
template <class T> constexpr std::string_view compilersName() noexcept {
    // What Boost extracts from the compiler's signature still ends with the signature's bracket.
    return before(boost::detail::ctti<T>::n(), ']');
}

/// The argument in the name of a template with one argument.
constexpr std::string_view argumentOf(std::string_view name) noexcept {
    return before(name.substr(firstOf(name, "<") + 1), '>');
}

/// True if the name contains any of the marks.
template <std::size_t n>
constexpr bool containsAny(std::string_view name, std::string_view const (&marks)[n]) noexcept {
    for (std::string_view const mark : marks) {
        if (contains(name, mark)) {
            return true;
        }
    }
    return false;
}

/// True if a part of the name is a closure or a class without a name.
constexpr bool hasUnnamedPart(std::string_view name) noexcept {
    constexpr std::string_view marks[] = {"<unnamed", "(unnamed",    "<lambda",
                                          "(lambda",  "(anonymous ", "{unnamed"};
    constexpr std::string_view unnamedNamespace = "(anonymous namespace)";
    while (!name.empty()) { // clang's unnamed namespaces begin like its unnamed classes
        std::size_t const end = firstOf(name, unnamedNamespace);
        if (containsAny(name.substr(0, end), marks)) {
            return true;
        }
        name.remove_prefix(end == name.size() ? end : end + unnamedNamespace.size());
    }
    return false;
}

/// True if the name belongs to one file: it is in an unnamed namespace, or local to a function.
constexpr bool isOfOneFile(std::string_view name) noexcept {
    constexpr std::string_view marks[] = {
        "{anonymous}", "(anonymous namespace)", ")::",         " const::",
        "&::",         " volatile::",           " noexcept::", " requires "};
    return containsAny(name, marks);
}

/// True if an address is more than the name of an object, function or member.
constexpr bool hasPartOfObject(std::string_view name) noexcept {
    constexpr std::string_view marks[] = {"[", ".", "+", "(", "\"", "::operator", "*"};
    return containsAny(name, marks);
}

/// True if a template in the name has an argument that compilers spell differently: an object of a
/// class, a part of an object, a floating-point number, an enumerator without a name, an operator,
/// an unprintable character.
constexpr bool hasUnspelledArgument(std::string_view name) noexcept {
    constexpr std::string_view unnamedNamespace = "{anonymous}";
    constexpr std::string_view marks[] = {"{", "'\\", "\"", "::operator"};
    char last = '\0';
    bool isInside = false;  // in the arguments of a template
    bool isAddress = false; // in an argument that is an address
    for (; !name.empty(); name.remove_prefix(1)) {
        if (startsWith(name, unnamedNamespace)) {
            name.remove_prefix(unnamedNamespace.size() - 1);
            continue;
        }
        char const c = name.front();
        bool const isFirst = last == '<' || last == ',';
        bool const isCast = c == '(' && isFirst && !startsWith(name, "(& ") &&
                            !startsWith(name, "(anonymous namespace)");
        bool const isFraction = c == '.' && last >= '0' && last <= '9';
        isInside = isInside || c == '<';
        isAddress = isFirst ? c == '&' || c == '(' : isAddress && c != ',' && c != '>';
        bool const isPart = isAddress && (c == '[' || c == '.');
        if (isCast || isFraction || isPart) {
            return true;
        }
        for (std::string_view const mark : marks) {
            if (isInside && startsWith(name, mark)) {
                return true;
            }
        }
        last = c == ' ' ? last : c;
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

/// A text of at most `capacity` bytes, assembled at compile time.
template <std::size_t capacity> struct Text {
    std::array<char, capacity> bytes{};
    std::size_t size = 0;

    constexpr void add(std::string_view piece) noexcept {
        for (char const c : piece) {
            bytes[size++] = c;
        }
    }
    [[nodiscard]] constexpr std::string_view view() const noexcept { return {bytes.data(), size}; }
};

/// Normalises a compiler's name: blanks only between words, the shorter names of the integers,
/// addresses as `&n::x`, no inline namespaces of the standard libraries (clang omits them), and the
/// full names of the strings (clang abbreviates them with libc++). At most three times as long.
template <std::size_t capacity> constexpr Text<capacity> spellName(std::string_view name) noexcept {
    Text<capacity> out;
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
        {"(anonymous namespace)::", "{anonymous}::"},
        {"std::string", "std::basic_string<char>"},
        {"std::string_view", "std::basic_string_view<char>"},
    };
    bool isAfterWord = false;
    bool isAddress = false; // in an address as g++ spells it: (& n::x)
    while (!name.empty()) {
        if (startsWith(name, "(& ")) {
            out.add("&");
            name.remove_prefix(3);
            isAddress = true;
            isAfterWord = false;
            continue;
        }
        if (isAddress && name.front() == ')') {
            name.remove_prefix(1);
            isAddress = false;
            continue;
        }
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
            if (startsWith(name, from) &&
                (from.back() == ':' || !startsInWord(name.substr(from.size())))) {
                length = from.size();
                text = to;
                break;
            }
        }
        out.add(text);
        isAfterWord = isInWord(name[length - 1]);
        name.remove_prefix(length);
    }
    return out;
}

template <class Out> constexpr void spellNumber(unsigned long long number, Out& out) noexcept {
    if (number > 9) {
        spellNumber(number / 10, out);
    }
    out.add(std::string_view("0123456789").substr(number % 10, 1));
}

template <class T, class Out> constexpr void spellType(Out& out) noexcept;

template <auto> struct OfValue;

/// The name in a compiler's address of an object, function or member: n::x of `(& n::x)`, `&n::x`
/// and `n::x`.
constexpr std::string_view nameInAddress(std::string_view address) noexcept {
    while (!address.empty() && !isInWord(address.front()) && address.front() != '{') {
        address.remove_prefix(1);
    }
    while (!address.empty() && address.back() == ')') {
        address.remove_suffix(1);
    }
    return address;
}

/// With a cast, as an enumerator without a name needs one: (n::Colour)2, (int*)&n::x.
template <auto value, class Out> constexpr void spellValue(Out& out) noexcept {
    using T = std::remove_const_t<decltype(value)>;
    out.add("(");
    spellType<T>(out);
    out.add(")");
    constexpr bool isNumber = std::is_integral_v<T> || std::is_enum_v<T>;
    if constexpr (isNumber && sizeof(T) <= sizeof(long long)) {
        if constexpr (value < T{}) {
            out.add("-");
            spellNumber(0 - static_cast<unsigned long long>(value), out);
        } else {
            spellNumber(static_cast<unsigned long long>(value), out);
        }
    } else {
        static_assert(std::is_pointer_v<T> || std::is_member_pointer_v<T> ||
                          std::is_null_pointer_v<T>,
                      "an object or a floating-point number as the argument of a template has no "
                      "spelling on which compilers agree: use a type as the argument");
        // Compared as text, because comparing addresses is not a constant expression in g++ with
        // -fsanitize=undefined.
        constexpr std::string_view name =
            nameInAddress(argumentOf(compilersName<OfValue<value>>()));
        constexpr std::string_view null = "nullptr";
        constexpr bool isNull = (name[0] >= '0' && name[0] <= '9') ||
                                (name.size() == null.size() && startsWith(name, null));
        static_assert(
            isNull || (!hasUnnamedPart(name) && !isOfOneFile(name) && !hasPartOfObject(name)),
            "the address of a part of an object, of an operator, or of what belongs to "
            "one file has no spelling on which compilers agree: give it a name of its own");
        if constexpr (isNull) {
            out.add("nullptr");
        } else {
            out.add("&");
            out.add(spellName<3 * name.size()>(name).view());
        }
    }
}

/// Calls the functions, each of which spells a type or value, with commas between.
template <class Out, class... Spell> constexpr void spellList(Out& out, Spell... spell) noexcept {
    [[maybe_unused]] std::string_view comma;
    ((out.add(comma), spell(out), comma = ","), ...);
}

/// The name of T or, if T wraps a template, of that template. Computed once for each T, not each
/// time that T is part of another type, because it takes long to compile.
template <class T, bool isTemplate> constexpr auto spelledName() noexcept {
    constexpr std::string_view name =
        isTemplate ? argumentOf(compilersName<T>()) : compilersName<T>();
    static_assert(
        !hasUnnamedPart(name),
        "a closure, a class without a name, and what is inside of them have no identifier: "
        "nothing tells one from another. Give the class a name outside of any lambda");
    static_assert(
        hasUnnamedPart(name) || !hasUnspelledArgument(name),
        "a class inside a template has no identifier if compilers write an argument of the "
        "template in more ways than one. Move the class out of the template");
    return spellName<3 * name.size()>(name);
}
template <class T, bool isTemplate> inline constexpr auto nameOf = spelledName<T, isTemplate>();

/// Spells a template: the name that Wrapped contains, and the arguments, by these functions.
template <class Wrapped, class Out, class... Spell>
constexpr void spellTemplate(Out& out, Spell... spell) noexcept {
    out.add(nameOf<Wrapped, true>.view());
    out.add("<");
    spellList(out, spell...);
    out.add(">");
}

/// Spells a type that is composed of others, by one specialisation for each kind. The primary
/// template spells classes, enumerations, fundamental types and whatever else cannot be decomposed.
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

template <template <class, auto, class...> class> struct OfTypeValueAndTypes;
template <template <class, auto, class...> class Template, class First, auto value, class Type,
          class... Types>
struct Composite<Template<First, value, Type, Types...>> {
    template <class Out> static constexpr void spell(Out& out) noexcept {
        spellTemplate<OfTypeValueAndTypes<Template>>(out, spellType<First, Out>,
                                                     spellValue<value, Out>, spellType<Type, Out>,
                                                     spellType<Types, Out>...);
    }
};

// Functions with qualifiers, which only pointers to members have, keep the compiler's spelling.
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
    } else if constexpr (std::is_reference_v<T>) { // a blank, unlike a function's qualifier
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
