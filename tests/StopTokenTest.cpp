// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <thread>

namespace {

using bedrock::concurrent::threadpool::nostopstate;
using bedrock::concurrent::threadpool::stop_source;
using bedrock::concurrent::threadpool::stop_token;

TEST(StopToken, SharesOneStateWithEverySource) {
    stop_token token;
    {
        stop_source const last;
        token = last.get_token();
        EXPECT_NE(last, stop_source());
    }
    EXPECT_TRUE(token.stop_possible()); // outlives its sources, whose end stops nothing
    EXPECT_FALSE(token.stop_requested());

    stop_source source;
    stop_source copy = source;
    token = copy.get_token();
    stop_source moved(std::move(source));
    EXPECT_EQ(moved, copy);
    EXPECT_EQ(source, stop_source(nostopstate));
    EXPECT_EQ(source.get_token(), stop_token());
    EXPECT_FALSE(source.request_stop() || source.stop_requested() || source.stop_possible());

    // One request of many is the one, and shows what was written before it.
    int written = 0;
    std::thread observer([&written, token] {
        while (!token.stop_requested()) {
        }
        EXPECT_EQ(written, 1);
    });
    written = 1;
    EXPECT_TRUE(copy.request_stop());
    observer.join();
    EXPECT_FALSE(moved.request_stop());
}

} // namespace
