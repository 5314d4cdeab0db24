// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

using namespace tests;

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
    auto const isReleasedWithin = [](auto timeout) {
        Sentinel unreleased;
        std::thread releaser([&] { unreleased.notify(); });
        static_cast<void>(unreleased.isReleased()); // concurrently, for ThreadSanitizer
        bool const isReleased = unreleased.waitFor(timeout);
        releaser.join();
        return isReleased;
    };
    EXPECT_TRUE(isReleasedWithin(std::chrono::years(500))); // would overflow a deadline
    EXPECT_TRUE(isReleasedWithin(std::chrono::days::max()));
}
