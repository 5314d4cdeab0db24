// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <future>

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

TEST(CatalogueTest, SaysWhatAFailedLookUpCouldHaveFound) {
    Catalogue catalogue;
    catalogue.add(record("b", 1, {1, 2}, "both"));
    catalogue.add(record("a", 1, {}, "one"));
    catalogue.add(reader("r", 1, 1));
    using LookUp = std::function<void()>;
    struct Case {
        char const* why;
        LookUp asked;
        IDs typeIDs;
        Formats supported;
    };
    std::string const none = "none";
    Case const cases[] = {
        {"by identifier", [&] { discard(catalogue.getSerialiserFor(none, 1)); }, {1}, {"b", "a"}},
        {"by list",
         [&] {
             discard(catalogue.getSerialiserFor(none, IDs{1, 2}));
         },
         {1, 2},
         {"b"}},
        {"by view",
         [&] {
             discard(catalogue.getSerialiserFor(none, viewOf({3, 1}, 1)));
         },
         {1},
         {"b", "a"}},
        {"by payload",
         [&] {
             discard(catalogue.getSerialiserFor(none, payloadOf({1, 2})));
         },
         {1, 2},
         {"b", "a"}},
        {"unknown list", [&] { discard(catalogue.getSerialiserFor(none, IDs{})); }, {}, {"a"}},
        {"deserialiser", [&] { discard(catalogue.getDeserialiserFor(none, 1)); }, {1}, {"r"}},
    };
    for (auto const& [why, asked, typeIDs, supported] : cases) {
        SCOPED_TRACE(why);
        try {
            asked();
            FAIL() << "found";
        } catch (LookUpError const& error) {
            EXPECT_EQ(error.wireFormat(), none);
            EXPECT_EQ(error.typeIDs(), typeIDs);
            EXPECT_EQ(error.typeID(), typeIDs.empty() ? 0 : typeIDs.front());
            EXPECT_EQ(error.supportedWireFormats(), supported);
        }
    }
}

// A factory that does something with the catalogue that calls it.
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
                  // A look-up of another thread stays behind a registration that waits: as soon as
                  // one does not come back, the registration is there.
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

TEST_F(ReentrantTest, LooksUpWhileARecordIsCopiedOut) {
    struct CopyLooksUp {
        CopyLooksUp(ReentrantTest& t) : test(&t) {}
        CopyLooksUp(CopyLooksUp const& from) : test(from.test), armed(from.armed) {
            if (*armed) {
                test->lookUpEverything();
            }
        }
        int operator()(std::istream&) const { return 1; }
        ReentrantTest* test;
        std::shared_ptr<bool> armed = std::make_shared<bool>(false);
    } copied(*this);
    catalogue.add(Deserialiser("copies", 7, reading<int>(copied)));
    *copied.armed = true;
    EXPECT_EQ(valueRead(catalogue.getDeserialiserFor("copies", 7)), 1);
}
