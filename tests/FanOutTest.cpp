// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

namespace {

using namespace tests;

struct FanOutTest : testing::Test {
    FanOutTest() {
        auto const write = [this](GenericPayloadView&& view, auto const&... source) {
            (sources.push_back(source), ...);
            return GenericSerialiser([view = std::move(view)](auto, std::ostream& out) {
                out << view.index << view.get<Element>().value << ' ';
            });
        };
        auto const keep = [this](GenericPayloadView&& view, auto const&...) {
            return kept.push_back(std::move(view)), writing("kept ");
        };
        auto const refuse = [](auto const&...) -> GenericSerialiser {
            throw LookUpError("refused by ", "a factory", {}, {});
        };
        constexpr std::uint64_t id = getTypeID<Element>();
        catalogue.add(Serialiser("write", id, {1}, write, write, nullptr));
        catalogue.add(Serialiser("keep", id, {2}, keep, keep, nullptr));
        catalogue.add(Serialiser("refuse", id, {3}, refuse, refuse, nullptr));
        catalogue.add(Serialiser("none", id, {4}, nullptr, nullptr, nullptr));
    }
    Catalogue catalogue;
    std::vector<GenericPayloadView> kept;
    std::vector<stop_source> sources; // that factories were passed
    std::atomic<int> destroyed = 0;
};

struct Case {
    char const* why;
    std::size_t elements; // claimed by the payload, which has two
    Formats formats;      // one is for every element
    std::string expected; // what is written, or the error
    std::size_t given;    // sources passed, if there is one
};
Case const cases[] = {
    {"one format for all", 2, {"write"}, "00 11 ", 2},
    {"one for each", 2, {"keep", "write"}, "kept 11 ", 1},
    {"more than elements", 2, {"write", "keep", "unknown"}, "00 kept ", 1},
    {"any", 2, {"*", "keep"}, "00 kept ", 1},
    {"no elements", 0, {"unknown"}, "", 0},
    {"fewer than elements", 3, {"write", "write"}, "Fewer wire formats than payload elements", 0},
    {"an element that is not there", 3, {"write"}, "out of range", 2},
    {"as many as wrap", ~std::size_t{0}, {"write"}, "out of range", 2},
    {"an unknown one", 2, {"write", "unknown"}, "1: No serialiser found for unknown", 1},
    {"a factory that throws", 2, {"write", "refuse"}, "refused by a factory", 1},
    {"an empty factory", 2, {"write", "none"}, std::bad_function_call().what(), 1},
};

TEST_F(FanOutTest, MakesASerialiserForEachElementOrNone) {
    for (Case const& each : cases) {
        for (bool const isStoppable : {false, true}) {
            SCOPED_TRACE(each.why);
            stop_source const source;
            GenericPayload payload = payloadOf(2, destroyed);
            payload.elementCount = each.elements;
            Formats const& formats = each.formats;
            auto const create = [&](auto const&... stop) {
                return formats.size() == 1
                           ? createSerialisersFor(std::move(payload), catalogue, formats[0],
                                                  stop...)
                           : createSerialisersFor(std::move(payload), catalogue, formats, stop...);
            };
            std::string said;
            try {
                auto const made = isStoppable ? create(source) : create();
                for (GenericSerialiser const& serialiser : made.first) {
                    said += written(serialiser);
                }
            } catch (std::out_of_range const& error) {
                said = error.what()[0] == 'F' ? error.what() : "out of range";
            } catch (LookUpError const& error) {
                said = error.element() ? std::to_string(*error.element()) + ": " : "";
                said += error.what();
            } catch (std::exception const& error) {
                said = error.what();
            }
            EXPECT_EQ(said, each.expected);
            EXPECT_EQ(sources, std::vector(isStoppable ? each.given : 0, source));
            EXPECT_EQ(payload.values.size(), said[0] == 'F' ? 2U : 0U); // the caller still has it
            kept.clear();
            sources.clear();
        }
    }
}

TEST_F(FanOutTest, ReleasesThePayloadWithItsLastReference) {
    constexpr int most = 300; // more than fit into a byte
    std::shared_ptr<Sentinel> sentinel;
    bool wasReleased = true;
    GenericPayload payload = payloadOf(most, destroyed);
    payload.objects.emplace_back(this, [&](void*) { wasReleased = sentinel->isReleased(); });
    Formats formats(most, "write");
    formats.back() = "keep";
    auto made = createSerialisersFor(std::move(payload), catalogue, formats);
    sentinel = std::move(made.second);
    made.first.resize(1);
    EXPECT_EQ(written(made.first.front()), "00 ");
    made.first.clear();
    EXPECT_EQ(destroyed, 0);
    EXPECT_FALSE(sentinel->isReleased());
    kept.clear();
    EXPECT_EQ(destroyed, most);
    EXPECT_TRUE(sentinel->isReleased());
    EXPECT_FALSE(wasReleased); // the elements are destroyed first
}

} // namespace
