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

TEST(Serialisers, ReleaseTheirRoutineAfterTheLastWriteEvenIfItThrows) {
    for (bool const throws : {false, true}) {
        auto const share = std::make_shared<int>(1);
        stop_token seen;
        stop_source const own;
        std::ostringstream out;
        auto const write = [&](auto&&... arguments) {
            GenericSerialiser serialise(
                [&seen, share, throws](auto token, auto&) {
                    seen = token;
                    throws ? throw std::invalid_argument("thrown") : 0;
                },
                own);
            EXPECT_EQ(share.use_count(), 2);
            try {
                std::move(serialise)(arguments...);
                EXPECT_FALSE(throws);
            } catch (std::invalid_argument const&) {
                EXPECT_TRUE(throws);
            }
            EXPECT_EQ(share.use_count(), 1);
            EXPECT_THROW(serialise(arguments...), std::bad_function_call);
        };
        write(out);
        EXPECT_EQ(seen, own.get_token());
        write(stop_token(), out);
        EXPECT_EQ(seen, stop_token());
    }
}
