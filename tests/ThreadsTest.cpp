// SPDX-License-Identifier: Apache-2.0
// Threads in an order that the model in fuzz/ does not come to.
#include "Support.h"

using namespace tests;

struct Threads : testing::Test {
    template <class Run> void start(int count, Run run) {
        for (int n = 0; n < count; ++n) {
            running.emplace_back(run);
        }
    }
    void join() { // before their data is destroyed
        std::ranges::for_each(running, &std::thread::join);
        running.clear();
    }
    Catalogue catalogue;
    std::vector<std::thread> running;
};

TEST_F(Threads, RegisterHoweverManyOthersRead) {
    using std::chrono::milliseconds;
    constexpr int readers =
        40; // at least two for each stripe of the lock, so that one always holds it
    constexpr int most = 500; // look-ups of each, so that the test ends
    std::atomic<int> calls = 0, exhausted = 0;
    std::atomic<bool> registered = false;
    Sentinel begin; // no spinning: it could keep the last thread from starting
    auto const slow = [&](auto&&) {
        ++calls;
        std::this_thread::sleep_for(milliseconds(1));
        // A second look-up would wait for the writer, which waits for this one.
        discard(catalogue.getSupportedWireFormats(getTypeID<void>()));
        discard(catalogue.getSerialiserFor("any", getTypeID<void>()));
        return catalogue.getSerialiserFor("any", GenericPayload());
    };
    catalogue.add(Serialiser("slow", 1, {}, slow, nullptr, nullptr));
    start(readers, [&] {
        begin.wait();
        int n = 0;
        for (; n < most && !registered; ++n) {
            discard(catalogue.getSerialiserFor("slow", viewOf({1}, 0)));
        }
        exhausted += n == most;
    });
    begin.notify();
    while (calls < 2 * readers) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    catalogue.add(record("late", 1, {1}, "late"));
    registered = true;
    join();
    EXPECT_EQ(exhausted, 0);
}

// The routine is assigned before any guard is locked, the handle under both. The destruction of the
// target's old routine tells when: from then on, other threads may use what the guards protect.
TEST_F(Threads, MoveAndCopyWhatIsBeingAssigned) {
    for (int round = 0; round < 100; ++round) {
        auto const handle = std::make_shared<int>(1);
        std::atomic<bool> assigned = false;
        std::shared_ptr<void> end(nullptr, [&](auto) { assigned = true; });
        auto const old = std::make_shared<int>(2);
        auto target = reading<int>([end = std::move(end)](auto&) { return 1; }, old);
        auto source = reading<int>([](auto&) { return 7; }, handle);
        auto moved = reading<void>([](auto&) {});
        start(1, [&, round] {
            while (!assigned) {
                std::this_thread::yield();
            }
            if (round % 2 == 0) {
                moved = std::move(source);
            }
            auto const copy = std::make_unique<GenericDeserialiser>(target);
            if (round % 2 == 1) {
                moved = std::move(source);
            }
            EXPECT_EQ(valueRead(*copy), 7);
            EXPECT_EQ(valueRead(moved), 7);
        });
        target = source;
        join();
        EXPECT_EQ(moved.getHandle(), handle);
        bool const isShared = target.getHandle() != nullptr;
        EXPECT_EQ(handle.use_count(), isShared ? 3 : 2);
        EXPECT_EQ(old.use_count(), 1);
    }
}
