// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

using namespace tests;

TEST(CatalogueDeathTest, EndsTheProcessOnADuplicate) {
    Catalogue catalogue;
    catalogue.add(record("wf", 1, {1}, "first"));
    catalogue.add(reader("wf", 1, 1));
    // The path is the project's own, not the build machine's.
    EXPECT_DEATH(catalogue.add(record("wf", 1, {2}, "second")),
                 "^Attempted to add duplicate serialiser for wf "
                 "\\[courier/hub/serialisation/src/Catalogue.cpp:.+Catalogue::add");
    EXPECT_DEATH(catalogue.add(reader("wf", 1, 2)),
                 "^Attempted to add duplicate deserialiser for wf ");
}

TEST(CatalogueTest, AllocatesNothingToSearch) {
    Catalogue catalogue;
    std::string const longFormat(100, 'f');
    catalogue.add(reader(longFormat, 1, 1));
    std::size_t const before = allocations();
    EXPECT_TRUE(catalogue.hasDeserialiserFor(longFormat, 1));
    EXPECT_EQ(allocations(), before);
}
