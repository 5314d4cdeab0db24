// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <stdexcept>

namespace {

using namespace tests;

TEST(FanOut, MakesNoRoomForElementsThatAPayloadOnlyClaims) {
    Catalogue catalogue;
    catalogue.add(Serialiser(
        "a", getTypeID<Element>(), {}, [](auto&&) { return GenericSerialiser(); }, nullptr,
        nullptr));
    std::atomic<int> destroyed = 0;
    GenericPayload lying = payloadOf(1, destroyed);
    lying.elementCount = std::size_t{1} << 62;
    EXPECT_THROW(discard(createSerialisersFor(std::move(lying), catalogue, "a")),
                 std::out_of_range);
    EXPECT_EQ(destroyed, 1);
}

} // namespace
