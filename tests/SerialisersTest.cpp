// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <thread>
#include <type_traits>

namespace {

using namespace tests;

// Counts how often it is flushed.
struct FlushCounter : std::stringbuf {
    int flushes = 0;
    int sync() override { return ++flushes, 0; }
};

TEST(Serialisers, DefaultsFlushOrDoNothing) {
    FlushCounter buffer;
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

TEST(Serialisers, HandTheRoutineTheirOwnTokenOrTheGivenOne) {
    stop_token seen;
    GenericSerialiser::Routine routine = [&seen](stop_token token, auto&) { seen = token; };
    stop_source const own;
    stop_source const other;
    std::ostringstream out;
    GenericSerialiser const stoppable(routine, own);
    stoppable(out);
    EXPECT_EQ(seen, own.get_token());
    stoppable(other.get_token(), out);
    EXPECT_EQ(seen, other.get_token());
    std::size_t const before = allocations();
    GenericSerialiser const plain(std::move(routine));
    EXPECT_EQ(allocations(), before); // no stop state of its own
    plain(out);
    EXPECT_EQ(seen, stop_token());
}

TEST(Serialisers, AreEmptyOnceMovedFrom) {
    static_assert(!std::is_copy_constructible_v<GenericSerialiser>);
    auto const handle = std::make_shared<int>(1);
    stop_source const source;
    std::string const longText(100, 't');
    GenericSerialiser first([](auto, auto& out) { out << "x"; }, source, longText, handle);
    GenericSerialiser second(std::move(first));
    GenericSerialiser third = writing("old");
    GenericSerialiser& alias = third;
    third = std::move(second);
    third = std::move(alias);
    EXPECT_EQ(written(third) + third.getText(), "x" + longText);
    EXPECT_EQ(third.getStopSource(), source);
    EXPECT_EQ(handle.use_count(), 2);
    for (GenericSerialiser const* const emptied : {&first, &second}) {
        EXPECT_THROW(written(*emptied), std::bad_function_call);
        EXPECT_FALSE(emptied->getStopSource().stop_possible());
        EXPECT_TRUE(emptied->getText().empty() && !emptied->getHandle());
    }
}

TEST(Deserialisers, WrapWhateverTheirRoutineReturns) {
    std::istringstream in("abcdef");
    EXPECT_EQ(reading<void>([](auto& stream) { stream.ignore(3); })(in).elementCount, 0U);
    EXPECT_EQ(in.tellg(), 3);
    EXPECT_EQ(reading<int>([](auto& stream) { return stream.get(); })(in).get<int>(0), 'd');
    auto const whole = reading<GenericPayload>([](auto&) { return payloadOf({7, 8}); });
    EXPECT_EQ(whole(in).typeIDs, (IDs{7, 8}));
    GenericDeserialiser const empty{std::function<void(std::istream&)>()};
    EXPECT_THROW(discard(empty(in)), std::bad_function_call);
}

TEST(Deserialisers, ShareTheirHandleWithCopiesAndHandItOverInMoves) {
    auto const handle = std::make_shared<int>(1);
    auto first = reading<int>([n = 0](auto&) mutable { return ++n; }, handle);
    EXPECT_EQ(valueRead(first), 1);
    EXPECT_EQ(valueRead(GenericDeserialiser(first)), 2); // its own copy of the routine
    EXPECT_EQ(valueRead(first), 2);
    EXPECT_EQ(handle.use_count(), 2);

    auto target = reading<int>([](auto&) { return -1; }, std::make_shared<int>(2));
    GenericDeserialiser& alias = target;
    target = first;
    target = std::as_const(alias);
    target = std::move(alias);
    EXPECT_EQ(handle.use_count(), 3);
    EXPECT_EQ(valueRead(target), 3);
    GenericDeserialiser constructed(std::move(target));
    first = std::move(constructed);
    EXPECT_EQ(handle.use_count(), 2);
    for (GenericDeserialiser const* const emptied : {&target, &constructed}) {
        EXPECT_THROW(valueRead(*emptied), std::bad_function_call);
        EXPECT_EQ(emptied->getHandle(), nullptr);
    }
}

TEST(Serialisers, HandTheirRoutineToOneOfTheThreadsThatMoveFromThem) {
    for (int round = 0; round < 200; ++round) {
        auto const handle = std::make_shared<int>(1);
        GenericSerialiser shared([](auto, auto& out) { out << "x"; }, stop_source(), "text",
                                 handle);
        auto reader = reading<int>([](auto&) { return 7; }, handle);
        std::atomic<int> got = 0;
        auto const take = [&] {
            GenericSerialiser const mine(std::move(shared));
            GenericDeserialiser const copy(reader);
            GenericDeserialiser const moved(std::move(reader));
            got += (mine.getHandle() ? 1 : 0) + (moved.getHandle() ? 1 : 0);
        };
        std::thread other(take);
        take();
        other.join();
        EXPECT_EQ(got, 2);
    }
}

TEST(DeferredSerialiser, CopiesAndMovesAsItsRoutine) {
    std::ostringstream out;
    DeferredSerialiser counting([n = 0](std::ostream& stream) mutable { stream << ++n; });
    counting(out);
    DeferredSerialiser copy(counting);
    copy(out);
    counting(out);
    DeferredSerialiser& alias = counting;
    counting = std::move(alias);
    counting(out);
    copy = counting;
    DeferredSerialiser moved(std::move(copy));
    copy = DeferredSerialiser(moved);
    copy(out);
    EXPECT_EQ(out.str(), "12234");
    EXPECT_THROW(DeferredSerialiser{nullptr}(out), std::bad_function_call);
}

TEST(Records, CallTheFactoryForTheArgumentsAndNoOther) {
    Serialiser copied = record("Format", 7, {7, 3, 7}, "made by");
    Serialiser& alias = copied;
    copied = std::as_const(alias);
    Serialiser moved(std::move(copied));
    Serialiser assigned("", 0, {}, nullptr, nullptr, nullptr);
    assigned = std::move(moved);
    EXPECT_EQ(written(assigned.getSerialiser(viewOf({1}, 0))), "made by view");
    EXPECT_EQ(written(assigned.getSerialiser(viewOf({1}, 0), stop_source())), "made by stop");
    EXPECT_EQ(written(assigned.getSerialiser(GenericPayload())), "made by payload");
    EXPECT_EQ(assigned.getWireFormat(), "Format");
    EXPECT_EQ(assigned.getTypeIDs(), (IDs{7, 3, 7}));
    for (Serialiser const* const emptied : {&copied, &moved}) {
        EXPECT_TRUE(emptied->getWireFormat().empty() && emptied->getTypeIDs().empty());
        GenericPayloadView view = viewOf({1}, 0);
        EXPECT_THROW(discard(emptied->getSerialiser(std::move(view), stop_source())),
                     std::bad_function_call);
        EXPECT_THROW(discard(emptied->getSerialiser(std::move(view))), std::bad_function_call);
        EXPECT_TRUE(view.wrapper);
        EXPECT_THROW(discard(emptied->getSerialiser(GenericPayload())), std::bad_function_call);
    }

    auto const handle = std::make_shared<int>(1);
    Deserialiser copy("Format", 7, reading<int>([](auto&) { return 9; }, handle));
    Deserialiser& same = copy;
    copy = std::as_const(same);
    Deserialiser second("", 0, reading<void>([](auto&) {}));
    copy = std::move(same);
    second = std::move(copy);
    EXPECT_EQ(valueRead(second.getDeserialiser()), 9);
    EXPECT_EQ(second.getWireFormat(), "Format");
    EXPECT_EQ(handle.use_count(), 2);
}

} // namespace
