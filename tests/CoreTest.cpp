// SPDX-License-Identifier: Apache-2.0
#include "GoldenIdentifiers.h" // which checks itself
#include "Support.h"

using namespace tests;

TEST(TypeID, RefusesNamesThatOtherFilesCouldHave) {
    using courier::hub::core::detail::isNameShared, courier::hub::core::detail::hasValueArgument;
    for (auto const* const name :
         {"{anonymous}::T", "(anonymous namespace)::T", "std::vector<{anonymous}::T>",
          "main()::<lambda(int)>", "(lambda at a.cpp:3:5)", "n::<unnamed struct>",
          "n::(unnamed struct at a.cpp:3:5)", "main()::T", "n::S::f() const::T", "n::S::f() &&::T",
          "n::S::f() volatile::T", "n::f() requires  true::T"}) {
        EXPECT_FALSE(isNameShared(name)) << name;
    }
    for (auto const* const name :
         {"n::anonymous::T", "void (n::S::*)() const", "std::function<void (int) const>::T",
          "n::my_const::T", "int &(*)(long &&)", "n::V<int (&)[3], true>::T"}) {
        EXPECT_TRUE(isNameShared(name) && !hasValueArgument(name)) << name;
    }
    for (auto const* const name : {"V<3>::T", "V<int, -3>::T", "V<(n::E)5>::T", "V<(& n::x)>::T",
                                   "V<&n::x>::T", "V<'a'>::T", "V<L'a'>::T", "V<n::L{1}>::T"}) {
        EXPECT_TRUE(hasValueArgument(name)) << name;
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
