// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <chrono>
#include <stdexcept>
#include <thread>

namespace {

using namespace tests;

TEST(SharedPayload, LivesAsLongAsItsReferences) {
    std::atomic<int> destroyed = 0;
    GenericPayloadWrapperPtr first(new GenericPayloadWrapper(payloadOf(1, destroyed)));
    std::shared_ptr<Sentinel> const sentinel = first->getSentinel();
    first->addRef(); // this reference is then handed over
    GenericPayloadWrapperPtr handedOver(first.get(), false);
    GenericPayloadWrapperPtr copy(first);
    GenericPayloadWrapperPtr& alias = copy;
    copy = handedOver;
    copy = alias;
    copy = std::move(alias);
    GenericPayloadWrapperPtr moved(std::move(first));
    EXPECT_FALSE(first);
    moved = GenericPayloadWrapperPtr();
    handedOver = GenericPayloadWrapperPtr(nullptr);
    EXPECT_EQ(destroyed, 0);
    {
        GenericPayloadView view(std::move(copy), 0);
        GenericPayloadView second = view;
        view = second;
        second = GenericPayloadView(second);
        EXPECT_FALSE(sentinel->isReleased());
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_TRUE(sentinel->isReleased());
}

TEST(SharedPayload, NamesItsElementsByView) {
    std::atomic<int> destroyed = 0;
    GenericPayloadWrapperPtr const shared(new GenericPayloadWrapper(payloadOf(2, destroyed)));
    GenericPayloadView view(shared, 1);
    EXPECT_EQ(view.getTypeID(), getTypeID<Element>());
    view.get<Element>().value = 8;
    EXPECT_EQ(shared->get().get<Element>(1).value, 8);
    EXPECT_THROW(discard(view.get<int>()), std::bad_cast);
    EXPECT_THROW(discard(GenericPayloadView(shared, 2).getTypeID()), std::out_of_range);
    EXPECT_THROW(discard(GenericPayloadView(shared, 2).get<int>()), std::out_of_range);
    GenericPayloadView const taken(std::move(view));
    EXPECT_THROW(discard(view.getTypeID()), std::out_of_range);
}

TEST(SharedPayload, SentinelWaitsNoLongerThanAsked) {
    Sentinel sentinel;
    EXPECT_FALSE(sentinel.waitFor(std::chrono::milliseconds(1)));
    EXPECT_FALSE(sentinel.waitFor(std::chrono::hours::min()));
    std::thread releaser([&] { sentinel.notify(); });
    EXPECT_TRUE(sentinel.waitFor(std::chrono::hours::max())); // would overflow a deadline
    releaser.join();
    EXPECT_TRUE(sentinel.waitFor(std::chrono::nanoseconds(0)));
    sentinel.wait(); // returns at once
}

} // namespace
