// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

using namespace tests;

TEST(Serialisers, FlushByDefaultEvenIfStopped) {
    Target target;
    GenericSerialiser flushing;
    flushing(target.stream);
    flushing.getStopSource().request_stop();
    flushing(target.stream);
    EXPECT_EQ(target.flushed, 2);
    EXPECT_NE(GenericSerialiser().getStopSource(), GenericSerialiser().getStopSource());
}

TEST(Serialisers, AllocateNoStopStateForARoutineAlone) {
    GenericSerialiser::Routine routine = [](stop_token const&, auto&) {};
    std::size_t const before = allocations();
    GenericSerialiser const plain(std::move(routine));
    EXPECT_EQ(allocations(), before);
    static_assert(!std::is_copy_constructible_v<GenericSerialiser>);
}

// The routine is assigned before any guard is locked, the handle under both. The destruction of the
// target's old routine tells when: from then on, other threads may use what the guards protect.
TEST(Serialisers, AreMovedAndCopiedWhileTheyAreBeingAssigned) {
    for (int round = 0; round < 100; ++round) {
        auto const handle = std::make_shared<int>(1);
        auto const old = std::make_shared<int>(2);
        std::atomic<bool> assigned = false;
        std::shared_ptr<void> end(nullptr, [&](auto) { assigned = true; });
        auto target = reading<int>([end = std::move(end)](auto&) { return 1; }, old);
        auto source = reading<int>([](auto&) { return 7; }, handle);
        auto moved = reading<void>([](auto&) {});
        std::thread other([&, movesFirst = round % 2 == 0] {
            while (!assigned) {
                std::this_thread::yield();
            }
            movesFirst ? void(moved = std::move(source)) : void();
            auto const copy = std::make_unique<GenericDeserialiser>(target);
            movesFirst ? void() : void(moved = std::move(source));
            EXPECT_EQ(valueRead(*copy), 7);
            EXPECT_EQ(valueRead(moved), 7);
        });
        target = source;
        other.join();
        EXPECT_EQ(moved.getHandle(), handle);
        bool const isShared = target.getHandle() != nullptr;
        EXPECT_EQ(handle.use_count(), isShared ? 3 : 2);
        EXPECT_EQ(old.use_count(), 1);
    }
}
