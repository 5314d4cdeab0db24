// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <bedrock/core/diag/terminate.h>

#include <csignal>

// What the model in fuzz/ does not cover.
using namespace tests;

TEST(CatalogueDeathTest, EndsTheProcessOnADuplicate) {
    Catalogue catalogue;
    catalogue.add(record("wf", 0xA, {1}, "first"));
    catalogue.add(reader("wf", 1, 1));
    // The path is relative to the project, not one of the build machine.
    EXPECT_DEATH(catalogue.add(record("wf", 0xB, {1}, "second")),
                 "identifier 0xA, now for 0xB\nAttempted to add duplicate serialiser for wf "
                 "\\[courier/hub/serialisation/src/Catalogue.cpp:.+Catalogue::add");
    EXPECT_DEATH(catalogue.add(reader("wf", 1, 2)),
                 "identifier 0x1, now for 0x1\nAttempted to add duplicate deserialiser for wf ");
#ifndef _WIN32
    EXPECT_EXIT(bedrock::core::diag::terminate("50 %d", "file", 7, "function"),
                testing::KilledBySignal(SIGABRT), "^50 %d \\[file:7, function]\n(qemu: .*)?$");
#endif
    EXPECT_TRUE(bedrock_diag_set_terminate(false)); // returns the previous value
    EXPECT_FALSE(bedrock_diag_set_terminate(true));
}

TEST(Catalogue, AllocatesNothingToSearch) {
    Catalogue catalogue;
    std::string const longFormat(100, 'f');
    catalogue.add(reader(longFormat, 1, 1));
    std::size_t const before = allocations();
    EXPECT_TRUE(catalogue.hasDeserialiserFor(longFormat, 1));
    EXPECT_EQ(allocations(), before);
}

// What went wrong with a fan-out.
std::string explained(Catalogue const& catalogue, char const* format, IDs ids, auto... stop) {
    try {
        discard(createSerialisersFor(payloadOf(std::move(ids)), catalogue, format, stop...));
    } catch (LookUpError const& error) {
        return error.explain();
    }
    return "";
}

TEST(Catalogue, ExplainsAFailedLookUp) {
    Catalogue catalogue;
    catalogue.add(record("json", 0xA1, {}, "json"));
    EXPECT_EQ(explained(catalogue, "jsn", {0xA1}),
              "No serialiser found for jsn, for element 0, type identifier 0xA1. Registered for "
              "that: json. Check how the wire format is spelt, and that the module that registers "
              "it was loaded.");
    EXPECT_EQ(explained(catalogue, "json", {0xA1, 0xB2}),
              "No serialiser found for json, for element 1, type identifier 0xB2. Nothing is "
              "registered for that. Check that the module of the type was loaded and has "
              "registered in this catalogue, and that the element is a std::shared_ptr to the "
              "very type that the module registers, not to a base class or to another pointer.");
}

TEST(Catalogue, NamesNoElementForWhatAFactoryLooksUp) {
    Catalogue catalogue;
    auto const fail = [&](auto&&...) { return catalogue.getSerialiserFor("none", viewOf({1}, 0)); };
    catalogue.add(Serialiser("json", 2, {}, fail, fail, nullptr));
    std::string const start = "No serialiser found for none, type identifier 0x1.";
    EXPECT_TRUE(explained(catalogue, "json", {2}).starts_with(start));
    EXPECT_TRUE(explained(catalogue, "json", {2}, stop_source()).starts_with(start));
}

TEST(Reentrant, LooksUpWhileARegistrationWaitsWhichEnds) {
    using std::chrono::milliseconds;
    Catalogue catalogue, other;
    // At least two threads for each stripe of the lock, so that one always holds it.
    std::vector<std::thread> threads(40);
    constexpr int most = 500; // look-ups of each, so that the test ends
    std::atomic<std::size_t> calls = 0, exhausted = 0;
    std::atomic<bool> registered = false;
    auto const slow = [&](auto&&) {
        ++calls;
        std::this_thread::sleep_for(milliseconds(1));
        discard(other.getSupportedWireFormats(2));
        discard(catalogue.getSerialiserFor("slow", 2));
        return GenericSerialiser();
    };
    catalogue.add(Serialiser("slow", 2, {}, slow, nullptr, nullptr));
    Sentinel begin; // no spinning: it could keep the last thread from starting
    for (std::thread& each : threads) {
        each = std::thread([&] {
            begin.wait();
            int n = 0;
            for (; n < most && !registered; ++n) {
                discard(catalogue.getSerialiserFor("slow", viewOf({2}, 0)));
            }
            exhausted += n == most;
        });
    }
    begin.notify();
    while (calls < 2 * threads.size()) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    catalogue.add(record("late", 3, {3}, "late"));
    registered = true;
    std::ranges::for_each(threads, &std::thread::join);
    EXPECT_EQ(exhausted, 0U);
}

TEST(Reentrant, LooksUpByWayOfAnotherCatalogue) {
    Catalogue catalogue, other;
    auto const back = [&](auto&&) {
        discard(catalogue.getSerialiserFor("there", 2));
        EXPECT_THROW(catalogue.add(record("x", 9, {9}, "")), std::logic_error);
        return GenericSerialiser();
    };
    other.add(Serialiser("back", 1, {}, back, nullptr, nullptr));
    auto const there = [&](auto&&) {
        discard(other.getSerialiserFor("back", viewOf({1}, 0)));
        other.add(record("free", 5, {5}, "")); // its own factory has returned
        return writing("done");
    };
    catalogue.add(Serialiser("there", 2, {}, there, nullptr, nullptr));
    EXPECT_EQ(written(catalogue.getSerialiserFor("there", viewOf({2}, 0))), "done");
}
