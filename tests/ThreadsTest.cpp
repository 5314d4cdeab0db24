// SPDX-License-Identifier: Apache-2.0
// Everything that threads may do concurrently. ThreadSanitizer finds most faults.
#include "Support.h"

using namespace tests;

struct Threads : testing::Test {
    template <class Run> void start(int count, Run run) {
        for (int n = 0; n < count; ++n) {
            running.emplace_back(run);
        }
    }
    static void join(std::vector<std::thread>& threads) {
        for (std::thread& thread : threads) {
            thread.join();
        }
        threads.clear();
    }
    void join() { join(running); } // before their data is destroyed
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
    std::atomic<int> found = 0, sent = 0, destroyed = 0;

    auto const read = [&] {
        for (int id = 0; id < rounds; ++id) {
            auto const typeID = static_cast<std::uint64_t>(id);
            while (!catalogue.hasDeserialiserFor(format(id), typeID) ||
                   catalogue.getSupportedWireFormats(typeID).empty()) {
                std::this_thread::yield();
            }
            // Every operation: ThreadSanitizer reports one that does not hold the lock.
            IDs const list{typeID};
            found += valueRead(catalogue.getDeserialiserFor(format(id), typeID)) == id;
            found += written(catalogue.getSerialiserFor("*", viewOf(list, 0))) == "r view";
            found += written(catalogue.getSerialiserFor("*", viewOf(list, 0), {})) == "r stop";
            found += written(catalogue.getSerialiserFor("*", payloadOf(list))) == "r payload";
            found += catalogue.getSerialiserFor("*", typeID).getTypeID() == typeID;
            found += catalogue.getSerialiserFor("*", list).getTypeID() == typeID;
            found += static_cast<int>(catalogue.getSupportedWireFormats(list).size());
            found +=
                static_cast<int>(catalogue.getSupportedDeserialisationWireFormats(typeID).size());
        }
    };
    auto const fanOut = [&] {
        std::atomic<int> mine = 0;
        for (int round = 1; round <= rounds; ++round) {
            auto payload = payloadOf(elements, mine);
            auto made = round % 2 == 0
                            ? createSerialisersFor(std::move(payload), catalogue, "a")
                            : createSerialisersFor(std::move(payload), catalogue,
                                                   Formats(elements, "a"), stop_source());
            std::vector<std::thread> writers;
            for (GenericSerialiser& each : made.first) {
                writers.emplace_back([&sent, serialiser = std::move(each)] {
                    sent += written(serialiser).size() == 1;
                });
            }
            made.second->wait(); // until the writers have destroyed the last of them
            destroyed += mine.exchange(0);
            join(writers);
        }
    };
    start(17, read); // more than the lock has stripes
    start(fanOuts, fanOut);
    std::atomic<int> next = 0;
    start(2, [&] {
        for (int id = next++; id < rounds; id = next++) {
            auto const typeID = static_cast<std::uint64_t>(id);
            catalogue.add(reader(format(id), typeID, id));
            catalogue.add(record(format(id), typeID, {typeID}, "r"));
        }
    });
    join();
    EXPECT_EQ(found, 8 * 17 * rounds);
    EXPECT_EQ(sent, destroyed);
    EXPECT_EQ(destroyed, fanOuts * rounds * elements);
}

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

TEST_F(Threads, MoveFromOneObject) {
    for (int round = 0; round < 200; ++round) {
        auto const handle = std::make_shared<int>(1);
        GenericSerialiser shared([](auto, auto&) {}, stop_source(), "text", handle);
        auto reader = reading<int>([](auto&) { return 7; }, handle);
        std::atomic<int> got = 0;
        start(2, [&] {
            GenericSerialiser const mine(std::move(shared));
            GenericDeserialiser const copy(reader);
            GenericDeserialiser const moved(std::move(reader));
            got += (mine.getHandle() ? 1 : 0) + (moved.getHandle() ? 1 : 0);
        });
        join();
        EXPECT_EQ(got, 2);
    }
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

TEST_F(Threads, OwnThePartsOfOneBlockOnTheirOwn) {
    Blocks blocks;
    constexpr std::size_t count = 32, size = 16;
    ByteBuffer whole = blocks.adopt(std::string(count * size, '-'));
    std::atomic<int> untouched = 0;
    for (std::size_t i = 0; i < count; i += 2) {
        running.emplace_back([&untouched, part = whole.splitFront(2 * size)]() mutable {
            ByteBuffer const front = part.splitFront(size);
            untouched += text(front) == std::string(size, '-');
            std::fill(part.begin(), part.end(), std::byte{'x'});
        });
    }
    whole.clear();
    join();
    EXPECT_EQ(untouched, count / 2);
    EXPECT_EQ(blocks.freed, 1);
}
