// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <bedrock/core/diag/terminate.h>

#include <stdexcept>
#include <thread>

namespace {

using namespace tests;

constexpr std::uint64_t voidID = getTypeID<void>();

struct CatalogueTest : testing::Test {
    Catalogue catalogue;

    std::string view(std::string const& format, IDs ids, std::size_t index = 0) const {
        return written(catalogue.getSerialiserFor(format, viewOf(std::move(ids), index)));
    }
    std::string stoppable(std::string const& format, IDs ids, std::size_t index = 0) const {
        return written(
            catalogue.getSerialiserFor(format, viewOf(std::move(ids), index), stop_source()));
    }
    std::string payload(std::string const& format, IDs ids) const {
        return written(catalogue.getSerialiserFor(format, payloadOf(std::move(ids))));
    }
};
using CatalogueDeathTest = CatalogueTest;

TEST_F(CatalogueTest, FindsByTypeAndFormat) {
    catalogue.add(record("z", 1, {1}, "first"));
    catalogue.add(record("a", 1, {1, 2}, "second"));
    catalogue.add(record("*", 1, {3}, "star"));
    catalogue.add(record("a", 5, {5}, "other"));
    catalogue.add(record("b", 6, {1, 2}, "same list"));
    EXPECT_EQ(view("a", {5, 1}, 1), "second view");
    EXPECT_EQ(stoppable("a", {5, 1}, 0), "other stop");
    // The wildcard takes what was registered first, under any name.
    EXPECT_EQ(view("*", {1}), "first view");
    EXPECT_EQ(stoppable("*", {1}), "first stop");
    EXPECT_EQ(catalogue.getSerialiserFor("*", 1).getWireFormat(), "z");
    EXPECT_EQ(catalogue.getSerialiserFor("*", IDs{1, 2}).getWireFormat(), "a");
    EXPECT_EQ(catalogue.getSerialiserFor("a", IDs{1, 2}).getTypeIDs(), (IDs{1, 2}));
    EXPECT_EQ(catalogue.getSupportedWireFormats(1), (Formats{"z", "a", "*"}));
    EXPECT_EQ(catalogue.getSupportedWireFormats(IDs{1, 2}), (Formats{"a", "b"}));
    EXPECT_EQ(catalogue.getSupportedWireFormats(IDs{}), Formats());
}

TEST_F(CatalogueTest, PrefersTheWholeListOfAPayload) {
    catalogue.add(record("w", 1, {}, "by type"));
    catalogue.add(record("w", 9, {1}, "by another list"));
    EXPECT_EQ(payload("w", {1, 2}), "by type payload");
    catalogue.add(record("w", 8, {1, 2}, "by list"));
    EXPECT_EQ(payload("w", {1, 2}), "by list payload");
    EXPECT_EQ(payload("*", {1, 2}), "by list payload");
    EXPECT_EQ(payload("*", {1, 7}), "by type payload");
}

TEST_F(CatalogueTest, FindsDeserialisersWithoutWildcard) {
    std::uint64_t const stream = getTypeID<std::istream>();
    catalogue.add(reader("json", 1, 11));
    catalogue.add(reader("cbor", 1, 12));
    catalogue.add(reader("raw", stream, 13));
    EXPECT_EQ(valueRead(catalogue.getDeserialiserFor("cbor", 1)), 12);
    EXPECT_EQ(valueRead(catalogue.getDeserialiserFor("raw", stream)), 13);
    EXPECT_TRUE(catalogue.hasDeserialiserFor("json", 1));
    for (std::string const format : {"JSON", "jso", "jsonx", "*", "raw"}) {
        EXPECT_FALSE(catalogue.hasDeserialiserFor(format, 1));
        EXPECT_ERROR(std::runtime_error, "No deserialiser found for " + format,
                     catalogue.getDeserialiserFor(format, 1));
    }
    auto const readable = [&](std::uint64_t id) {
        return catalogue.getSupportedDeserialisationWireFormats(id);
    };
    EXPECT_EQ(readable(1), (Formats{"json", "cbor"}));
    EXPECT_EQ(readable(stream), Formats{"*"});
    EXPECT_EQ(readable(getTypeID<GenericPayload>()), Formats{"*"});
}

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
        EXPECT_TRUE(catalogue.hasDeserialiserFor("any", voidID));
        EXPECT_EQ(catalogue.getSupportedWireFormats(voidID), Formats{"builtin"});
        EXPECT_EQ(catalogue.getSupportedDeserialisationWireFormats(voidID), Formats{"builtin"});
    }
    // By view and by list, the identifier is one like any other.
    EXPECT_EQ(view("any", {voidID}), "void view");
    EXPECT_EQ(catalogue.getSupportedWireFormats(IDs{voidID}), Formats{"any"});
}

TEST_F(CatalogueTest, ReleasesItsLockWhenALookUpFails) {
    catalogue.add(Serialiser("empty", 1, {2}, nullptr, nullptr, nullptr));
    catalogue.add(Serialiser(
        "throws", 1, {3}, [](auto&&) -> GenericSerialiser { throw std::domain_error("mine"); },
        nullptr, nullptr));
    for (std::string const format : {"x", "*", ""}) {
        std::string const message = "No serialiser found for " + format;
        EXPECT_ERROR(std::runtime_error, message, catalogue.getSerialiserFor(format, 9));
        EXPECT_ERROR(std::runtime_error, message, catalogue.getSerialiserFor(format, IDs{9}));
        EXPECT_ERROR(std::runtime_error, message, view(format, {9}));
        EXPECT_ERROR(std::runtime_error, message, stoppable(format, {9}));
        EXPECT_ERROR(std::runtime_error, message, payload(format, {9}));
    }
    EXPECT_THROW(view("*", {1}, 1), std::out_of_range);
    EXPECT_THROW(stoppable("*", {1}, 1), std::out_of_range);
    EXPECT_THROW(payload("*", {}), std::out_of_range);
    EXPECT_THROW(view("empty", {1}), std::bad_function_call);
    EXPECT_THROW(stoppable("throws", {1}), std::bad_function_call); // no factory for another
    EXPECT_ERROR(std::domain_error, "mine", view("throws", {1}));
    catalogue.add(record("after", 1, {4}, "after")); // would hang, were the lock still held
    EXPECT_EQ(view("after", {1}), "after view");
}

TEST_F(CatalogueTest, IgnoresDuplicatesWhereTheyAreTolerated) {
    ASSERT_TRUE(bedrock_diag_set_terminate(false));
    catalogue.add(record("w", 1, {1}, "first"));
    catalogue.add(record("w", 1, {2}, "same type"));
    catalogue.add(record("w", 2, {1}, "same list"));
    catalogue.add(record("v", 3, {}, "empty list"));
    catalogue.add(record("v", 4, {}, "empty list again"));
    catalogue.add(reader("w", 1, 1));
    catalogue.add(reader("w", 1, 2));
    EXPECT_FALSE(bedrock_diag_set_terminate(true));
    EXPECT_EQ(catalogue.getSupportedWireFormats(1), Formats{"w"});
    EXPECT_EQ(catalogue.getSupportedWireFormats(2), Formats());
    EXPECT_EQ(catalogue.getSupportedWireFormats(IDs{2}), Formats());
    EXPECT_EQ(catalogue.getSupportedWireFormats(IDs{}), Formats{"v"});
    EXPECT_EQ(view("w", {1}), "first view");
    EXPECT_EQ(valueRead(catalogue.getDeserialiserFor("w", 1)), 1);
}

TEST_F(CatalogueDeathTest, EndsTheProcessOnADuplicate) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    catalogue.add(record("wf", 1, {1}, "first"));
    catalogue.add(reader("wf", 1, 1));
    // The path is the project's own, not the build machine's.
    EXPECT_DEATH(catalogue.add(record("wf", 1, {2}, "second")),
                 "^Attempted to add duplicate serialiser for wf "
                 "\\[courier/hub/serialisation/src/Catalogue.cpp:[0-9]+, .*Catalogue::add");
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
    EXPECT_EQ(view("w", {1}), "");
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
