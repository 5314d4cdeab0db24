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
    stoppable(stop_token(), out);
    EXPECT_EQ(seen, stop_token());
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
    GenericSerialiser object([](auto, auto& out) { out << "x"; }, source, longText, handle);
    GenericSerialiser other = writing("old");
    auto const show = [&](GenericSerialiser const& held) {
        return outcome([&] { return written(held); }) + ' ' + held.getText() +
               (held.getStopSource() == source ? " source" : "") +
               (held.getHandle() == handle ? " handle" : "");
    };
    EXPECT_EQ(show(object), "x " + longText + " source handle");
    EXPECT_EQ(passOn(object, other, show), "empty ");
    EXPECT_FALSE(object.getStopSource().stop_possible());
    EXPECT_EQ(handle.use_count(), 2);
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

TEST(Deserialisers, WrapWhateverTheirRoutineReturns) {
    std::istringstream in("abcdef");
    EXPECT_EQ(reading<void>([](auto& stream) { stream.ignore(3); })(in).elementCount, 0U);
    EXPECT_EQ(in.tellg(), 3);
    GenericPayload const one = reading<int>([](auto& stream) { return stream.get(); })(in);
    EXPECT_EQ(one.elementCount, 1U);
    EXPECT_EQ(one.get<int>(0), 'd');
    auto const whole = reading<GenericPayload>([](auto&) { return payloadOf({7, 8}); });
    EXPECT_EQ(whole(in).typeIDs, (IDs{7, 8}));
    GenericDeserialiser const empty{std::function<void(std::istream&)>()};
    EXPECT_THROW(discard(empty(in)), std::bad_function_call);
    GenericDeserialiser const null(static_cast<void (*)(std::istream&)>(nullptr));
    EXPECT_THROW(discard(null(in)), std::bad_function_call);
}

TEST(Deserialisers, ShareTheirHandleWithCopiesAndHandItOverInMoves) {
    auto const handle = std::make_shared<int>(1);
    auto const old = std::make_shared<int>(2);
    auto counting = reading<int>([n = 0](auto&) mutable { return ++n; }, old);
    EXPECT_EQ(valueRead(GenericDeserialiser(counting)), 1);
    EXPECT_EQ(valueRead(counting), 1); // the copy has a count of its own
    auto object = reading<int>([](auto&) { return 7; }, handle);
    EXPECT_EQ(passOn(object, counting,
                     [&](GenericDeserialiser const& held) {
                         return outcome([&] { return std::to_string(valueRead(held)); }) +
                                (held.getHandle() ? " handle" : "");
                     }),
              "empty");
    EXPECT_EQ(handle.use_count(), 2);
}

TEST(DeferredSerialiser, CopiesAndMovesAsItsRoutine) {
    DeferredSerialiser object([](std::ostream& stream) { stream << "x"; });
    DeferredSerialiser other{std::function<void(std::ostream&)>()};
    std::ostringstream out;
    EXPECT_THROW(other(out), std::bad_function_call);
    passOn(object, other, [](DeferredSerialiser const& held) {
        std::ostringstream said;
        return outcome([&] { return held(said), said.str(); });
    }); // the state of a moved-from std::function is unspecified
}

TEST(Records, CallTheFactoryForTheArgumentsAndNoOther) {
    auto const show = [](Serialiser const& held) {
        return held.getWireFormat() + ':' + std::to_string(held.getTypeIDs().size()) + ' ' +
               outcome([&] { return written(held.getSerialiser(viewOf({1}, 0))); }) + ' ' +
               outcome([&] { return written(held.getSerialiser(viewOf({1}, 0), stop_source())); }) +
               ' ' + outcome([&] { return written(held.getSerialiser(GenericPayload())); });
    };
    Serialiser object = record("Format", 7, {7, 3, 7}, "made by");
    Serialiser other("", 0, {}, nullptr, nullptr, nullptr);
    EXPECT_EQ(show(object), "Format:3 made by view made by stop made by payload");
    EXPECT_EQ(passOn(object, other, show), ":0 empty empty empty");
    GenericPayloadView view = viewOf({1}, 0);
    EXPECT_THROW(discard(object.getSerialiser(std::move(view), {})), std::bad_function_call);
    EXPECT_THROW(discard(object.getSerialiser(std::move(view))), std::bad_function_call);
    EXPECT_TRUE(view.wrapper); // not moved from
    GenericPayload payload = payloadOf({1});
    EXPECT_THROW(discard(object.getSerialiser(std::move(payload))), std::bad_function_call);
    EXPECT_EQ(payload.typeIDs, IDs{1});
    auto const make = [](auto&&...) { return GenericSerialiser(); }; // and there is no fallback
    Serialiser const viewed("", 0, {}, make, nullptr, make);
    Serialiser const stoppable("", 0, {}, nullptr, make, make);
    EXPECT_THROW(discard(viewed.getSerialiser(std::move(view), {})), std::bad_function_call);
    EXPECT_THROW(discard(stoppable.getSerialiser(std::move(view))), std::bad_function_call);
    EXPECT_EQ(other.getTypeID(), 7U);
    EXPECT_EQ(other.getTypeIDs(), (IDs{7, 3, 7}));

    Deserialiser reads = reader("Format", 7, 9);
    Deserialiser readsOther = reader("old", 1, 2);
    EXPECT_EQ(passOn(reads, readsOther,
                     [](Deserialiser const& held) {
                         return outcome([&] {
                             return held.getWireFormat() + std::to_string(held.getTypeID()) +
                                    std::to_string(valueRead(held.getDeserialiser()));
                         });
                     }),
              "empty");
}
