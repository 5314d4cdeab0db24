// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

using namespace tests;

TEST(Serialisers, DefaultsFlushOrDoNothing) {
    struct FlushCounter : std::stringbuf {
        int sync() override { return ++flushes, 0; }
        int flushes = 0;
    } buffer;
    std::ostream out(&buffer);
    GenericSerialiser flushing;
    flushing(out);
    flushing.getStopSource().request_stop();
    flushing(out);
    DeferredSerialiser()(out);
    EXPECT_EQ(buffer.flushes, 2);
    EXPECT_EQ(buffer.str(), "");
    EXPECT_NE(GenericSerialiser().getStopSource(), GenericSerialiser().getStopSource());
}

TEST(Serialisers, AllocateNoStopStateForARoutineAlone) {
    GenericSerialiser::Routine routine = [](stop_token const&, auto&) {};
    std::size_t const before = allocations();
    GenericSerialiser const plain(std::move(routine));
    EXPECT_EQ(allocations(), before);
    static_assert(!std::is_copy_constructible_v<GenericSerialiser>);
}
