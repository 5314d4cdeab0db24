// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

using namespace bedrock::concurrent::threadpool;

namespace {
struct Mine {}; // CoreTest.cpp has a class of this name, too
} // namespace
std::uint64_t idOfAnotherFilesMine();
std::uint64_t idOfAnotherFilesMine() { return tests::getTypeID<Mine>(); }

TEST(StopToken, ShowsWhatWasWrittenBeforeTheRequest) {
    stop_source source;
    int written = 0;
    std::thread observer([&written, token = source.get_token()] {
        while (!token.stop_requested()) {
        }
        EXPECT_EQ(written, 1);
    });
    written = 1;
    source.request_stop();
    observer.join();
}
