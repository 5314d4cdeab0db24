// SPDX-License-Identifier: Apache-2.0
// What threads may do at once, all of it at once. ThreadSanitizer sees most of what can go wrong.
#include "Support.h"

#include <chrono>
#include <thread>

namespace {

using namespace tests;

struct Threads : testing::Test {
    template <class Run> void start(int count, Run run) {
        for (int n = 0; n < count; ++n) {
            running.emplace_back(run);
        }
    }
    void join() { // before what they use goes
        for (std::thread& thread : running) {
            thread.join();
        }
    }
    Catalogue catalogue;
    std::vector<std::thread> running;
};

TEST_F(Threads, UseEverythingThatTheyMayAtOnce) {
    constexpr int rounds = 150;
    constexpr int elements = 4;
    constexpr int fanOuts = 2;
    auto const format = [](int round) { return "w" + std::to_string(round / 2); };
    auto const factory = [](GenericPayloadView&& view, auto&&...) {
        return GenericSerialiser([view = std::move(view)](auto, std::ostream& out) {
            out << GenericPayloadView(view).get<Element>().value;
        });
    };
    catalogue.add(Serialiser("a", getTypeID<Element>(), {}, factory, factory, nullptr));
    auto const handle = std::make_shared<int>(1);
    auto const shared = reading<int>([](auto&) { return 7; }, handle);
    std::atomic<int> found = 0, copied = 0, sent = 0, destroyed = 0;
    std::mutex guard;
    std::vector<GenericSerialiser> made;

    auto const read = [&] {
        for (int id = 0; id < rounds; ++id) {
            auto const typeID = static_cast<std::uint64_t>(id);
            while (!catalogue.hasDeserialiserFor(format(id), typeID) ||
                   catalogue.getSupportedWireFormats(typeID).empty()) {
                std::this_thread::yield();
            }
            found += valueRead(catalogue.getDeserialiserFor(format(id), typeID)) == id &&
                     written(catalogue.getSerialiserFor("*", viewOf({typeID}, 0))) == "r view";
        }
    };
    auto const copy = [&] {
        for (int round = 0; round < rounds; ++round) {
            GenericDeserialiser mine(shared);
            auto assigned = reading<void>([](auto&) {});
            assigned = shared;
            assigned = std::move(mine);
            copied += valueRead(assigned) == 7;
        }
    };
    auto const fanOut = [&] {
        std::atomic<int> mine = 0;
        for (int round = 1; round <= rounds; ++round) {
            auto payload = payloadOf(elements, mine);
            auto [serialisers, sentinel] =
                round % 2 == 0 ? createSerialisersFor(std::move(payload), catalogue, "a")
                               : createSerialisersFor(std::move(payload), catalogue,
                                                      Formats(elements, "a"), stop_source());
            {
                std::lock_guard const lock(guard);
                std::move(serialisers.begin(), serialisers.end(), std::back_inserter(made));
            }
            sentinel->wait(); // until the writers have dropped the last of them
            destroyed += mine.exchange(0);
        }
    };
    auto const write = [&] {
        while (sent < fanOuts * rounds * elements) {
            std::unique_lock lock(guard);
            if (made.empty()) {
                lock.unlock();
                std::this_thread::yield();
                continue;
            }
            GenericSerialiser const mine(std::move(made.back()));
            made.pop_back();
            lock.unlock();
            sent += written(mine).size() == 1;
        }
    };
    start(17, read); // more than the lock has stripes
    start(2, copy);
    start(fanOuts, fanOut);
    start(2, write);
    for (int id = 0; id < rounds; ++id) {
        auto const typeID = static_cast<std::uint64_t>(id);
        catalogue.add(reader(format(id), typeID, id));
        catalogue.add(record(format(id), typeID, {typeID}, "r"));
    }
    join();
    EXPECT_EQ(found, 17 * rounds);
    EXPECT_EQ(copied, 2 * rounds);
    EXPECT_EQ(sent, destroyed);
    EXPECT_EQ(destroyed, fanOuts * rounds * elements);
    EXPECT_EQ(handle.use_count(), 2);
}

TEST_F(Threads, RegisterHoweverManyOthersRead) {
    using std::chrono::milliseconds;
    constexpr int readers = 40; // at least two for each stripe of the lock: one is always in
    constexpr int most = 500;   // look-ups, so that none waits for ever
    std::atomic<int> calls = 0, exhausted = 0;
    std::atomic<bool> registered = false;
    Sentinel begin; // no spinning: it could keep the last thread from starting
    auto const slow = [&](auto&&) {
        ++calls;
        std::this_thread::sleep_for(milliseconds(1));
        return GenericSerialiser();
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

// The routine is assigned before any guard is taken, the handle under both. The end of the target's
// old routine tells when: from then on, others may use both objects as far as the guards reach.
TEST_F(Threads, MoveAndCopyWhatIsBeingAssigned) {
    for (int round = 0; round < 100; ++round) {
        auto const handle = std::make_shared<int>(1);
        std::atomic<bool> assigned = false;
        auto const tell = [&](auto) { assigned = true; };
        std::shared_ptr<void> end(nullptr, tell);
        auto const old = std::make_shared<int>(2);
        auto target = reading<int>([end = std::move(end)](auto&) { return 1; }, old);
        auto source = reading<int>([](auto&) { return 7; }, handle);
        auto moved = reading<void>([](auto&) {});
        std::thread other([&, round] {
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
            EXPECT_EQ(valueRead(*copy) + valueRead(moved), 14);
        });
        target = source;
        other.join();
        EXPECT_EQ(moved.getHandle(), handle);
        bool const isShared = target.getHandle() != nullptr;
        EXPECT_EQ(handle.use_count(), isShared ? 3 : 2);
        EXPECT_EQ(old.use_count(), 1);
    }
}

} // namespace
