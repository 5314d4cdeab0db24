// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <stdexcept>

namespace {

using namespace tests;

struct FanOut : testing::Test {
    Catalogue catalogue;
    std::atomic<int> destroyed = 0;
    std::vector<stop_source> sources; // that factories were given
    int calls = 0;

    FanOut() {
        constexpr std::uint64_t id = getTypeID<Element>();
        for (std::string const format : {"a", "b"}) {
            auto const keep = [this, format](GenericPayloadView&& view) {
                ++calls;
                return GenericSerialiser([format, view = std::move(view)](auto, std::ostream& out) {
                    out << format << view.get<Element>().value;
                });
            };
            auto const keepStoppable = [this, keep](GenericPayloadView&& view,
                                                    stop_source&& source) {
                sources.push_back(std::move(source));
                return keep(std::move(view));
            };
            catalogue.add(Serialiser(format, id, {id}, keep, keepStoppable, nullptr));
        }
        auto const drop = [](auto&&) { return GenericSerialiser(); };
        auto const fail = [](auto&&) -> GenericSerialiser { throw std::domain_error("mine"); };
        catalogue.add(Serialiser("drop", id, {}, drop, nullptr, nullptr));
        catalogue.add(Serialiser("throw", id, {}, fail, nullptr, nullptr));
    }

    GenericPayload payload(int elements) { return payloadOf(elements, destroyed); }
};

std::string written(std::vector<GenericSerialiser> const& serialisers) {
    std::string all;
    for (GenericSerialiser const& serialiser : serialisers) {
        all += tests::written(serialiser);
    }
    return all;
}

TEST_F(FanOut, MakesOneSerialiserForEachElement) {
    auto [same, sentinel] = createSerialisersFor(payload(3), catalogue, "a");
    EXPECT_EQ(written(same), "a0a1a2");
    while (!same.empty()) {
        EXPECT_FALSE(sentinel->isReleased());
        EXPECT_EQ(destroyed, 0);
        same.pop_back();
    }
    EXPECT_EQ(destroyed, 3);
    EXPECT_TRUE(sentinel->isReleased());
    stop_source const source;
    Formats const formats{"b", "*", "not used"};
    EXPECT_EQ(written(createSerialisersFor(payload(2), catalogue, formats).first), "b0a1");
    EXPECT_EQ(written(createSerialisersFor(payload(2), catalogue, formats, source).first), "b0a1");
    EXPECT_EQ(sources, (std::vector{source, source}));
}

TEST_F(FanOut, ReleasesBeforeItReturnsWhatNobodyKept) {
    auto const [dropped, sentinel] = createSerialisersFor(payload(3), catalogue, "drop");
    EXPECT_EQ(dropped.size(), 3U);
    EXPECT_EQ(destroyed, 3);
    EXPECT_TRUE(sentinel->isReleased());
    auto const [none, released] = createSerialisersFor(payload(0), catalogue, "nobody's");
    EXPECT_TRUE(none.empty());
    EXPECT_TRUE(released->isReleased());
}

TEST_F(FanOut, LeavesNothingBehindWhenALookUpFails) {
    GenericPayload lying = payload(1);
    lying.elementCount = std::size_t{1} << 62;
    EXPECT_THROW(discard(createSerialisersFor(std::move(lying), catalogue, "a")),
                 std::out_of_range);
    EXPECT_EQ(destroyed, 1);
    EXPECT_ERROR(std::runtime_error, "No serialiser found for x",
                 createSerialisersFor(payload(3), catalogue, Formats{"a", "x", "a"}));
    EXPECT_ERROR(std::domain_error, "mine",
                 createSerialisersFor(payload(3), catalogue, Formats{"a", "a", "throw"}));
    EXPECT_EQ(destroyed, 7);
    EXPECT_EQ(calls, 4);

    GenericPayload kept = payload(3);
    std::string const message = "Fewer wire formats than payload elements";
    EXPECT_ERROR(std::out_of_range, message,
                 createSerialisersFor(std::move(kept), catalogue, Formats{"a", "a"}));
    EXPECT_ERROR(std::out_of_range, message,
                 createSerialisersFor(std::move(kept), catalogue, Formats{"a"}, stop_source()));
    EXPECT_EQ(kept.values.size(), 3U);
}

} // namespace
