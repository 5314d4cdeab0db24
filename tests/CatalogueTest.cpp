// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <bedrock/core/diag/terminate.h>

#include <thread>

namespace {

using namespace tests;

constexpr std::uint64_t voidID = getTypeID<void>();

struct CatalogueTest : testing::Test {
    Catalogue catalogue;
};
using CatalogueDeathTest = CatalogueTest;

TEST_F(CatalogueTest, AnswersVoidAndEmptyPayloadsWithoutItsRecords) {
    for (bool const registered : {false, true}) {
        if (registered) {
            catalogue.add(record("any", voidID, {voidID}, "void"));
            catalogue.add(reader("any", voidID, 1));
        }
        Serialiser const builtin = catalogue.getSerialiserFor("any", voidID);
        EXPECT_EQ(builtin.getWireFormat(), "any");
        EXPECT_EQ(builtin.getTypeID(), voidID);
        EXPECT_TRUE(builtin.getTypeIDs().empty());
        EXPECT_EQ(written(builtin.getSerialiser(viewOf({1}, 0))), "");
        EXPECT_EQ(written(builtin.getSerialiser(viewOf({1}, 0), stop_source())), "");
        EXPECT_EQ(written(builtin.getSerialiser(payloadOf({1}))), "");
        EXPECT_EQ(written(catalogue.getSerialiserFor("any", GenericPayload())), "");
        std::istringstream in("left alone");
        EXPECT_EQ(catalogue.getDeserialiserFor("any", voidID)(in).elementCount, 0U);
        EXPECT_EQ(in.tellg(), 0);
    }
}

TEST_F(CatalogueDeathTest, EndsTheProcessOnADuplicate) {
    catalogue.add(record("wf", 1, {1}, "first"));
    catalogue.add(reader("wf", 1, 1));
    // The path is the project's own, not the build machine's.
    EXPECT_DEATH(catalogue.add(record("wf", 1, {2}, "second")),
                 "^Attempted to add duplicate serialiser for wf "
                 "\\[courier/hub/serialisation/src/Catalogue.cpp:.+Catalogue::add");
    EXPECT_DEATH(catalogue.add(reader("wf", 1, 2)),
                 "^Attempted to add duplicate deserialiser for wf ");
}

TEST_F(CatalogueTest, LetsAFactoryAskForVoidWhileAWriterWaits) {
    std::atomic<bool> started = false;
    std::thread writer;
    auto const factory = [&](auto&&) {
        writer = std::thread([&] {
            started = true;
            catalogue.add(record("late", 1, {2}, "late"));
        });
        while (!started) {
        }
        // By now it waits for us; were the machine too slow for that, this would test less.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        discard(catalogue.getSerialiserFor("any", GenericPayload()));
        discard(catalogue.getSupportedWireFormats(voidID));
        return catalogue.getSerialiserFor("any", voidID).getSerialiser(GenericPayload());
    };
    catalogue.add(Serialiser("w", 1, {1}, factory, nullptr, nullptr));
    EXPECT_EQ(written(catalogue.getSerialiserFor("w", viewOf({1}, 0))), "");
    writer.join();
    EXPECT_EQ(catalogue.getSupportedWireFormats(1), (Formats{"w", "late"}));
}

TEST_F(CatalogueTest, AllocatesNothingToSearch) {
    std::string const longFormat(100, 'f');
    catalogue.add(reader(longFormat, 1, 1));
    std::size_t const before = allocations();
    EXPECT_TRUE(catalogue.hasDeserialiserFor(longFormat, 1));
    EXPECT_EQ(allocations(), before);
}

} // namespace
