// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <map>

using namespace tests;

// The identifiers must be the same for every compiler, standard library and machine: modules built
// years apart must agree.
namespace golden {

enum class Colour : unsigned char { red, green };
struct Class {
    struct Nested;
    int member;
};
namespace n_V2 {
class Class;
}
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

inline int nullptrNot; // an address whose name begins like nullptr
static_assert(getTypeID<golden::Value<&nullptrNot>>() !=
              getTypeID<golden::Value<static_cast<int*>(nullptr)>>());

namespace {

struct OfThisFile {};
template <class> struct OfThisFileToo {};

TEST(TypeID, GivesWhatBelongsToAFileAnIdentifierOfItsOwn) {
    using courier::hub::core::getTypeName, courier::hub::core::hashTypeText;
    std::string const file = __BASE_FILE__;
    EXPECT_EQ(getTypeID<OfThisFile>(), hashTypeText("i<{anonymous}::OfThisFile in " + file));
    EXPECT_EQ(getTypeName<OfThisFile const*&>(), "{anonymous}::OfThisFile const* in " + file);
    EXPECT_NE(getTypeID<OfThisFileToo<int>>(), getTypeID<OfThisFileToo<long>>());
#if !defined(__clang__) // which does not tell where a local class is
    struct Local {};
    EXPECT_TRUE(getTypeName<Local>().ends_with("::Local in " + file)) << getTypeName<Local>();
#endif
}

// The compilers' names of types without a name, of types of one file, and of types with two
// spellings.
TEST(TypeID, KnowsNamesThatNothingTellsApart) {
    using namespace courier::hub::core::detail;
    for (auto const* const name :
         {"main()::<lambda(int)>", "(lambda at a.cpp:3:5)", "n::<unnamed struct>",
          "n::Of<(anonymous namespace)::(unnamed at a.cpp:1)>", "(anonymous class)::T"}) {
        EXPECT_TRUE(hasUnnamedPart(name)) << name;
    }
    for (auto const* const name :
         {"{anonymous}::T", "(anonymous namespace)::T", "main()::T", "n::S::f() const::T",
          "n::S::f() &&::T", "n::S::f() volatile::T", "n::f() requires  true::T"}) {
        EXPECT_TRUE(isOfOneFile(name)) << name;
        EXPECT_FALSE(hasUnnamedPart(name)) << name;
        EXPECT_FALSE(hasUnspelledArgument(name)) << name;
    }
    for (auto const* const name :
         {"n::anonymous::T", "void (n::S::*)() const", "std::function<void (int) const>::T",
          "n::my_const::T", "int &(*)(long &&)", "V<int, -3>::T", "V<(& n::x)>::T", "V<'a'>::T"}) {
        EXPECT_FALSE(isOfOneFile(name)) << name;
        EXPECT_FALSE(hasUnspelledArgument(name)) << name;
    }
    for (auto const* const name : {"V<(n::E)5>::T", "V<'\\012'>::T", "V<n::L{1}>::T", "V<2.5>::T",
                                   "V<(& n::x[1])>::T", "V<&n::S::operator<>::T"}) {
        EXPECT_TRUE(hasUnspelledArgument(name)) << name;
    }
}

TEST(GenericPayload, SaysWhatABadElementHas) {
    using courier::hub::core::BadElementType;
    GenericPayload payload;
    payload.emplace<int>(7);
    payload.typeIDs.push_back(getTypeID<int>()); // without a value
    EXPECT_ERROR(BadElementType,
                 "Element 0 has type identifier 0x717A581CF9B345CB, not 0x50B935BC7BC34261 "
                 "of unsigned int",
                 payload.get<unsigned>(0));
    EXPECT_ERROR(std::out_of_range,
                 "The payload has no element 1: its elementCount is 1, with 2 typeIDs and 1 values",
                 payload.get<int>(1));
    EXPECT_STREQ(
        BadElementType(~std::size_t{0}, ~0ULL, ~0ULL).what(),
        "Element 18446744073709551615 has type identifier 0xFFFFFFFFFFFFFFFF but no value");
    std::string const cut = BadElementType(0, 1, 2, std::string(600, 'x')).what();
    EXPECT_TRUE(cut.size() == 511 && cut.ends_with("xxx...")) << cut;
}

} // namespace
