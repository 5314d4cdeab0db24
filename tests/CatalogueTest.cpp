// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <bedrock/core/diag/terminate.h>

#include <csignal>
#include <future>

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
    catalogue.add(reader("wf", 1, 2));
    EXPECT_FALSE(bedrock_diag_set_terminate(true));
    EXPECT_EQ(valueRead(catalogue.getDeserialiserFor("wf", 1)), 1);
}

TEST(CatalogueTest, AllocatesNothingToSearch) {
    Catalogue catalogue;
    std::string const longFormat(100, 'f');
    catalogue.add(reader(longFormat, 1, 1));
    std::size_t const before = allocations();
    EXPECT_TRUE(catalogue.hasDeserialiserFor(longFormat, 1));
    EXPECT_EQ(allocations(), before);
}

std::string said(GenericSerialiser const& made) { return written(made); }
std::string said(GenericDeserialiser const& read) { return std::to_string(valueRead(read)); }
std::string said(Serialiser const& found) { return said(found.getSerialiser(GenericPayload())); }
std::string said(bool has) { return has ? "yes" : "no"; }
template <class Item> std::string said(std::vector<Item> const& list) {
    return testing::PrintToString(list);
}

struct LookUp {
    char const* why;
    std::string (*asked)(Catalogue const& c);
    std::string expected;
};
#define ASK(...) [](Catalogue const& c) { return said(__VA_ARGS__); }

LookUp const lookUps[] = {
    {"an element in a format", ASK(c.getSerialiserFor("json", viewOf({9, 1}, 1))), "json view"},
    {"the same, to be stopped", ASK(c.getSerialiserFor("json", viewOf({1}, 0), {})), "json stop"},
    {"the same, by nobody",
     ASK(c.getSerialiserFor("json", viewOf({1}, 0),
                            stop_source(bedrock::concurrent::threadpool::nostopstate))),
     "json stop"},
    {"a record by identifier", ASK(c.getSerialiserFor("text", 1)), "pair payload"},
    {"a payload by its list", ASK(c.getSerialiserFor("text", payloadOf({1, 2}))), "pair payload"},
    {"a payload by its first element, if no record has the list",
     ASK(c.getSerialiserFor("json", payloadOf({1, 9}))), "json payload"},
    {"in any format: the first one", ASK(c.getSerialiserFor("*", viewOf({1}, 0))), "json view"},
    {"in any format, by list", ASK(c.getSerialiserFor("*", IDs{1, 2})), "pair payload"},
    {"in another format of that length", ASK(c.getSerialiserFor("text", viewOf({2}, 0))),
     R"(No serialiser found for text: { 2 }, { "bin" })"},
    {"in a format whose name begins with a star", ASK(c.getSerialiserFor("**", 1)),
     R"(No serialiser found for **: { 1 }, { "json", "text" })"},
    {"by a list in another order", ASK(c.getSerialiserFor("*", IDs{2, 1})),
     "No serialiser found for *: { 2, 1 }, {}"},
    {"by a payload of neither", ASK(c.getSerialiserFor("none", payloadOf({1, 2}))),
     R"(No serialiser found for none: { 1, 2 }, { "text", "json" })"},
    {"an element past the end", ASK(c.getSerialiserFor("json", viewOf({1}, 1))), "out of range"},
    {"the formats of a type", ASK(c.getSupportedWireFormats(1)), R"({ "json", "text" })"},
    {"a reader", ASK(c.getDeserialiserFor("json", 1)), "10"},
    {"a reader of any format", ASK(c.getDeserialiserFor("*", 1)),
     R"(No deserialiser found for *: { 1 }, { "json" })"},
    {"whether there is a reader of any format", ASK(c.hasDeserialiserFor("*", 1)), "no"},
};

TEST(CatalogueTest, LooksUp) {
    Catalogue catalogue;
    catalogue.add(record("json", 1, {1}, "json"));
    catalogue.add(record("text", 1, {1, 2}, "pair"));
    catalogue.add(record("bin", 2, {}, "bin"));
    catalogue.add(reader("json", 1, 10));
    for (auto const& [why, asked, expected] : lookUps) {
        SCOPED_TRACE(why);
        try {
            EXPECT_EQ(asked(catalogue), expected);
        } catch (LookUpError const& error) {
            EXPECT_EQ(error.what() + (": " + said(error.typeIDs())) + ", " +
                          said(error.supportedWireFormats()),
                      expected);
            EXPECT_EQ(error.typeID(), error.typeIDs().empty() ? 0 : error.typeIDs().front());
        } catch (std::out_of_range const&) {
            EXPECT_EQ("out of range", expected);
        }
    }
}

TEST(CatalogueTest, ExplainsAFailedLookUp) {
    Catalogue catalogue;
    catalogue.add(record("json", 0xA1, {}, "json"));
    auto const explained = [](auto lookUp) -> std::string {
        try {
            lookUp();
        } catch (LookUpError const& error) {
            return LookUpError(error).explain();
        }
        return "";
    };
    EXPECT_EQ(explained([&] { discard(catalogue.getSerialiserFor("jsn", 0xA1)); }),
              "No serialiser found for jsn, type identifier 0xA1. Registered for that: json. Check "
              "how the wire format is spelt, and that the module that registers it was loaded.");
    EXPECT_EQ(
        explained([&] {
            discard(createSerialisersFor(payloadOf({0xA1, 0xB2}), catalogue, "json"));
        }),
        "No serialiser found for json, for element 1, type identifier 0xB2. Nothing is "
        "registered for that. Check that the module of the type was loaded and has registered "
        "in this catalogue, and that the element is a std::shared_ptr to the very type that "
        "the module registers, not to a base class or to another pointer.");
}

// A factory that uses the catalogue that calls it.
struct ReentrantTest : testing::Test {
    ReentrantTest() {
        catalogue.add(record("inner", 1, {1}, "inner"));
        catalogue.add(reader("inner", 1, 1));
    }
    std::string whenFactoryDoes(std::function<void()> action) {
        auto const factory = [action = std::move(action)](auto&&) {
            action();
            return writing("done");
        };
        catalogue.add(Serialiser("outer", 2, {}, factory, nullptr, nullptr));
        return written(catalogue.getSerialiserFor("outer", viewOf({2}, 0)));
    }
    void lookUpEverything() const {
        EXPECT_EQ(written(catalogue.getSerialiserFor("inner", viewOf({1}, 0))), "inner view");
        EXPECT_EQ(catalogue.getSerialiserFor("*", 1).getWireFormat(), "inner");
        EXPECT_EQ(catalogue.getSupportedWireFormats(IDs{1}), Formats{"inner"});
        EXPECT_EQ(valueRead(catalogue.getDeserialiserFor("inner", 1)), 1);
        EXPECT_THROW(discard(catalogue.getSerialiserFor("none", 1)), LookUpError);
    }
    Catalogue catalogue;
};

TEST_F(ReentrantTest, LooksUpWhileARegistrationWaits) {
    std::thread registering;
    std::future<void> probe;
    EXPECT_EQ(whenFactoryDoes([&] {
                  registering = std::thread([&] { catalogue.add(record("late", 3, {3}, "")); });
                  // Look-ups of other threads wait behind a waiting registration: when one does not
                  // return, the registration is waiting.
                  do {
                      probe = std::async(std::launch::async,
                                         [&] { discard(catalogue.getSupportedWireFormats(1)); });
                  } while (probe.wait_for(std::chrono::milliseconds(50)) ==
                           std::future_status::ready);
                  lookUpEverything();
              }),
              "done");
    registering.join();
    EXPECT_EQ(catalogue.getSupportedWireFormats(3), Formats{"late"});
}

TEST_F(ReentrantTest, LooksUpByWayOfAnotherCatalogue) {
    Catalogue other;
    auto const back = [&](auto&&) {
        lookUpEverything();
        EXPECT_THROW(catalogue.add(record("x", 9, {9}, "")), std::logic_error);
        return GenericSerialiser();
    };
    other.add(Serialiser("back", 1, {}, back, nullptr, nullptr));
    EXPECT_EQ(whenFactoryDoes([&] {
                  discard(other.getSerialiserFor("back", viewOf({1}, 0)));
                  other.add(record("free", 5, {5}, "")); // its own factory has returned
              }),
              "done");
}

TEST_F(ReentrantTest, RefusesToRegisterAndStaysUsable) {
    EXPECT_EQ(whenFactoryDoes([&] {
                  EXPECT_THROW(catalogue.add(record("new", 4, {4}, "")), std::logic_error);
                  catalogue.add(reader("new", 4, 1)); // the other set has a lock of its own
              }),
              "done");
    catalogue.add(Serialiser(
        "throws", 6, {6}, [](auto&&) -> GenericSerialiser { throw 1; }, nullptr, nullptr));
    EXPECT_THROW(discard(catalogue.getSerialiserFor("throws", viewOf({6}, 0))), int);
    catalogue.add(record("new", 4, {4}, ""));
    EXPECT_EQ(catalogue.getSupportedWireFormats(4), Formats{"new"});
    EXPECT_TRUE(catalogue.hasDeserialiserFor("new", 4));
}
