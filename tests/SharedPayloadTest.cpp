// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

using namespace tests;

TEST(SharedPayload, LivesAsLongAsItsReferences) {
    std::atomic<int> destroyed = 0;
    GenericPayloadWrapperPtr first(GenericPayloadWrapperPtr::make(payloadOf(1, destroyed)));
    GenericPayloadWrapperPtr other(GenericPayloadWrapperPtr::make(payloadOf(1, destroyed)));
    auto const show = [](GenericPayloadWrapperPtr const& held) {
        return held ? std::to_string(held->get().get<Element>(0).value) : "null";
    };
    std::shared_ptr<Sentinel> const sentinel = first->getSentinel();
    EXPECT_EQ(passOn(first, other, show), "null");
    EXPECT_EQ(destroyed, 1); // that of the other payload
    other->addRef();         // the reference that is adopted below
    GenericPayloadView view(GenericPayloadWrapperPtr(other.get(), false), 0);
    other = GenericPayloadWrapperPtr(nullptr);
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(sentinel->isReleased());
    view = GenericPayloadView(view);
    view.wrapper = {};
    EXPECT_EQ(destroyed, 2);
    EXPECT_TRUE(sentinel->isReleased());
}

TEST(SharedPayload, NamesItsElementsByView) {
    std::atomic<int> destroyed = 0;
    GenericPayloadWrapperPtr const shared(GenericPayloadWrapperPtr::make(payloadOf(2, destroyed)));
    GenericPayloadView view(shared, 1);
    EXPECT_EQ(view.getTypeID(), getTypeID<Element>());
    EXPECT_EQ(&view.get<Element>(), &shared->get().get<Element>(1));
    EXPECT_THROW(discard(view.get<int>()), std::bad_cast);
    EXPECT_THROW(discard(GenericPayloadView(shared, 2).getTypeID()), std::out_of_range);
    EXPECT_THROW(discard(GenericPayloadView(shared, 2).get<int>()), std::out_of_range);
    GenericPayloadView copy(shared, 0);
    copy = view;
    EXPECT_EQ(copy.index, 1U);
    GenericPayloadView const taken(std::move(view));
    EXPECT_THROW(discard(view.getTypeID()), std::out_of_range);
}

TEST(SharedPayload, SentinelWakesAllThatWait) {
    Sentinel sentinel;
    std::atomic<int> waiting = 0;
    std::vector<std::thread> threads(4);
    for (std::thread& each : threads) {
        each = std::thread([&] { ++waiting, sentinel.wait(); });
    }
    while (waiting < 4) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // until they wait
    sentinel.notify();
    std::ranges::for_each(threads, &std::thread::join);
}

TEST(SharedPayload, SentinelWaitsNoLongerThanAsked) {
    Sentinel sentinel;
    auto const start = std::chrono::steady_clock::now();
    EXPECT_FALSE(sentinel.waitFor(std::chrono::milliseconds(20)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    EXPECT_FALSE(sentinel.waitFor(std::chrono::hours::min()));
    EXPECT_FALSE(
        sentinel.waitFor(std::chrono::duration<double>(std::numeric_limits<double>::quiet_NaN())));
    std::thread releaser([&] { sentinel.notify(); });
    bool const wasReleased = sentinel.isReleased();         // concurrently, for ThreadSanitizer
    EXPECT_TRUE(sentinel.waitFor(std::chrono::years(500))); // would overflow a deadline
    releaser.join();
    EXPECT_GE(sentinel.isReleased(), wasReleased);
    EXPECT_TRUE(sentinel.waitFor(std::chrono::nanoseconds(0)));
    sentinel.wait(); // returns at once
}
