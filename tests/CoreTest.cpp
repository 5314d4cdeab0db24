// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <iosfwd>
#include <stdexcept>

namespace tests {
enum class Colour { red };
} // namespace tests

namespace {

using namespace tests;
using courier::hub::core::hashTypeText;

// The literals come from a separate program, so that neither a change of the hash nor one of the
// spelling passes unseen: modules built years apart must agree.
TEST(TypeID, IsTheSameForEveryCompiler) {
    EXPECT_EQ(hashTypeText(""), 0x1ED1B5ABBD8399B7);
    EXPECT_EQ(hashTypeText("abc"), 0x68FE5A6E75DA685E);
    EXPECT_EQ(hashTypeText("\x80\xFF"), 0x17846F076B110E00);
    EXPECT_EQ(getTypeID<void>(), 0x5BE70EF845054701);
    EXPECT_EQ(getTypeID<GenericPayload>(), 0xF443267B783DDD4E);
    std::pair<std::uint64_t, char const*> const spellings[] = {
        {getTypeID<bool>(), "bool"},
        {getTypeID<signed char>(), "signed char"},
        {getTypeID<short>(), "short"},
        {getTypeID<unsigned short>(), "unsigned short"},
        {getTypeID<unsigned>(), "unsigned int"},
        {getTypeID<long>(), "long"},
        {getTypeID<unsigned long>(), "unsigned long"},
        {getTypeID<long long>(), "long long"},
        {getTypeID<unsigned long long>(), "unsigned long long"},
        {getTypeID<long double>(), "long double"},
        {getTypeID<Element const volatile&>(), "tests::Element"},
        {getTypeID<Colour>(), "tests::Colour"},
        {getTypeID<std::istream>(), "std::basic_istream<char>"},
    };
    for (auto const& [id, name] : spellings) {
        EXPECT_EQ(id, hashTypeText("i<" + std::string(name))) << name;
    }
    EXPECT_NE(getTypeID<Element const*>(), getTypeID<Element*>());
}

TEST(TypeID, RefusesNamesThatOtherFilesCouldHave) {
    using courier::hub::core::detail::isNameShared;
    for (auto const* const name :
         {"{anonymous}::T", "(anonymous namespace)::T", "std::vector<{anonymous}::T>",
          "main()::<lambda(int)>", "(lambda at a.cpp:3:5)", "n::<unnamed struct>",
          "n::(unnamed struct at a.cpp:3:5)", "main()::T", "n::S::f() const::T", "n::S::f() &&::T",
          "n::S::f() volatile::T"}) {
        EXPECT_FALSE(isNameShared(name)) << name;
    }
    for (auto const* const name :
         {"n::anonymous::T", "void (n::S::*)() const", "std::function<void (int) const>::T",
          "n::my_const::T", "n::V<(n::E)5>", "int &(*)(long &&)"}) {
        EXPECT_TRUE(isNameShared(name)) << name;
    }
}

TEST(GenericPayload, HoldsElementsByType) {
    GenericPayload payload;
    payload.add(std::make_shared<int>(7));
    payload.add(std::shared_ptr<double>());
    payload.get<int>(0) = 8;
    EXPECT_EQ(std::as_const(payload).get<int>(0), 8);
    EXPECT_THROW(discard(payload.get<unsigned>(0)), std::bad_cast);
    EXPECT_THROW(discard(payload.get<double>(1)), std::bad_cast); // without a value
    EXPECT_THROW(discard(payload.get<int>(2)), std::out_of_range);
    GenericPayload const taken(std::move(payload));
    EXPECT_TRUE(payload.typeIDs.empty() && payload.values.empty());
    EXPECT_EQ(payload.elementCount + taken.elementCount, 4U);
}

} // namespace
