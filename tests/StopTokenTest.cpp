// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

using namespace bedrock::concurrent::threadpool;

namespace {
struct Mine {}; // CoreTest.cpp has a class of this name, too
} // namespace
std::uint64_t idOfAnotherFilesMine();
std::uint64_t idOfAnotherFilesMine() { return tests::getTypeID<Mine>(); }

TEST(StopToken, SharesOneStateWithEverySource) {
    stop_token token = stop_source().get_token();
    EXPECT_TRUE(token.stop_possible());
    EXPECT_FALSE(token.stop_requested()); // destroying the last source requests nothing
    stop_source source, other;
    stop_source copy = source;
    token = source.get_token();
    auto const show = [&](stop_source const& held) {
        return held == copy ? "same" : held.stop_possible() ? "other" : "none";
    };
    EXPECT_EQ(tests::passOn(source, other, show), "none");
    EXPECT_EQ(stop_source(nostopstate).get_token(), stop_token());
    EXPECT_FALSE(source.request_stop());
    EXPECT_FALSE(source.stop_requested());
    EXPECT_FALSE(source.stop_possible());

    // One request of many returns true, and publishes what was written before it.
    int written = 0;
    std::thread observer([&written, token] {
        while (!token.stop_requested()) {
        }
        EXPECT_EQ(written, 1);
    });
    written = 1;
    EXPECT_FALSE(copy.stop_requested());
    EXPECT_TRUE(copy.request_stop());
    EXPECT_TRUE(copy.stop_requested());
    EXPECT_TRUE(token.stop_possible());
    observer.join();
    EXPECT_FALSE(other.request_stop());
}
