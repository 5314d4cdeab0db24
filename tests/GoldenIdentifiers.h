// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_TESTS_GOLDEN_IDENTIFIERS_H
#define COURIER_TESTS_GOLDEN_IDENTIFIERS_H

// The identifiers of these types, which must be the same for every compiler, standard library and
// machine: modules built years apart must agree.

#include <courier/hub/core/GenericPayload.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace golden {

enum class Colour : unsigned char { red, green };
struct Class {
    struct Nested;
    int member;
};
template <class> struct Of {
    struct Nested;
    template <class> struct NestedOf;
};
template <class, unsigned = 3, Colour = Colour::green> struct Grid;
template <auto> struct Value;
template <int*> struct Address;
template <int> struct Matrix { struct Row; };
template <int, class, class> struct Mixed;
template <class, int, class> struct Mixed2;
using Widest [[gnu::mode(TI)]] = unsigned;
inline int object, objects[2];
inline void function() {}

using namespace courier::hub::core;

static_assert(hashTypeText("") == 0x1ED1B5ABBD8399B7);
static_assert(hashTypeText("abc") == 0x68FE5A6E75DA685E);
static_assert(hashTypeText("\x80\xFF") == 0x17846F076B110E00);

#define STRING "std::basic_string<char,std::char_traits<char>,std::allocator<char>>"
#define GOLDEN(id, text, ...)                                                                      \
    static_assert(getTypeID<__VA_ARGS__>() == id && getTypeName<__VA_ARGS__>() == text, text);
#include "GoldenIdentifiers.def"
#undef GOLDEN
#undef STRING

} // namespace golden

#endif
