// SPDX-License-Identifier: Apache-2.0
// Whatever can fail fails, once at each point: memory, and what users hand in.
#include "Support.h"

#include <bedrock/core/diag/terminate.h>

#include <stdexcept>

namespace {

using namespace tests;

constexpr std::uint64_t elementID = getTypeID<Element>();
std::string const longText(100, 'x'); // always allocates

// A callable of a user's, in every role: being copied and being called are fault points.
struct Careless {
    Careless() = default;
    Careless(Careless const&) { point(); }
    Careless& operator=(Careless const&) = delete;
    ~Careless() = default;
    static void point() {
        if (isFault()) {
            throw std::domain_error("mine");
        }
    }
    GenericSerialiser operator()(GenericPayloadView&& view) const {
        point();
        return GenericSerialiser(
            [mine = *this, view = std::move(view)](auto, std::ostream& out) { mine(out); });
    }
    GenericSerialiser operator()(GenericPayloadView&& view, stop_source&& stop) const {
        return GenericSerialiser([made = std::make_shared<GenericSerialiser>(
                                      (*this)(std::move(view)))](auto, auto& out) { (*made)(out); },
                                 std::move(stop), longText);
    }
    GenericSerialiser operator()(GenericPayload&& payload) const {
        auto wrapper = std::make_unique<GenericPayloadWrapper>(std::move(payload));
        GenericPayloadWrapperPtr shared(wrapper.get());
        static_cast<void>(wrapper.release());
        return (*this)(GenericPayloadView(std::move(shared), 0));
    }
    void operator()(std::ostream& out) const { point(), out << "w"; }
    int operator()(std::istream&) const { return point(), 7; }
};

struct CarelessSource final : ByteStreamImpl {
    ByteStreamIterator begin() override { return ByteStreamIterator(*this); }
    explicit operator bool() const override { return true; }
    std::byte getByte() override { return Careless::point(), std::byte(position++); }
    int position = 0;
};

Serialiser carelessRecord(std::string const& format, std::uint64_t id) {
    return {format, id, {id}, Careless(), Careless(), Careless()};
}
GenericDeserialiser carelessReader() { return reading<int>(Careless()); }
GenericDeserialiser otherReader() {
    return reading<int>([](auto&) { return 1; });
}

// One object of each class, and what is handed to their operations.
struct World {
    World(decltype(&full) make, Blocks& blocks, std::atomic<int>& destroyed)
        : buffer(make(blocks, "abcdefgh")), argument(blocks.adopt("more")),
          payload(payloadOf(2, destroyed)), element(std::make_shared<Element>(2, destroyed)),
          shared(new GenericPayloadWrapper(payloadOf(1, destroyed))) {
        list.push_back(argument.clone());
        list.push_back(blocks.adopt("list"));
        sink.sputn("kept", 4);
        // As many as fill the catalogue's tables: one more enlarges each.
        for (std::uint64_t id = 0; id < 8; ++id) {
            catalogue.add(carelessRecord(formats.at(id), elementID + id));
            catalogue.add(Deserialiser(formats.at(id), id, carelessReader()));
        }
    }

    // All that can be seen of it.
    std::string state() const {
        std::ostringstream out;
        out << text(buffer) << text(argument) << text(list[0]) << text(list[1]) << vector.size();
        out << sink.size() << source.position << static_cast<int>(*byte) << *character;
        out << payload.values.size() << payload.typeIDs.size() << payload.elementCount;
        out << shared->get().values.size() << shared->getSentinel()->isReleased();
        out << written(serialiser) << valueRead(deserialiser) << record.getWireFormat();
        out << readRecord.getWireFormat() << readRecord.getTypeID();
        out << valueRead(readRecord.getDeserialiser());
        deferred(out);
        for (std::uint64_t id = 0; id < 10; ++id) {
            out << catalogue.getSupportedWireFormats(elementID + id).size();
            out << catalogue.getSupportedWireFormats(IDs{elementID + id}).size();
            out << catalogue.getSupportedDeserialisationWireFormats(id).size();
        }
        return out.str();
    }

    GenericPayloadView view() const { return {shared, 0}; }

    ByteBuffer buffer, argument;
    std::vector<ByteBuffer> list;
    std::vector<std::byte> vector = bytes("vector");
    ByteBufferOStreambuf sink;
    CarelessSource source;
    ByteStreamIterator byte{source};
    ByteStreamCharIterator character{ByteStreamIterator(source)};
    GenericPayload payload;
    std::shared_ptr<Element> element;
    GenericPayloadWrapperPtr shared;
    Careless careless;
    std::function<int(std::istream&)> read = Careless();
    GenericSerialiser::Routine write = [mine = Careless()](auto, auto& to) { mine(to); };
    GenericSerialiser serialiser{write};
    GenericDeserialiser deserialiser = otherReader();
    GenericDeserialiser source2 = carelessReader();
    DeferredSerialiser deferred;
    Serialiser record = carelessRecord("old", 1);
    Serialiser newRecord = carelessRecord(longText, elementID + 8);
    Deserialiser readRecord{"old", 1, otherReader()};
    Deserialiser newReadRecord{longText, 8, carelessReader()};
    Formats formats{"0", "1", "2", "3", "4", "5", "6", "7"};
    Catalogue catalogue;
    std::ostringstream sent;
    std::istringstream received;
};

// What remains of the strong guarantee when the operation fails.
enum Left { all, allButPayload, allButRecord };

using Operation = std::tuple<char const*, Left, void (*)(World&)>;
#define OPERATION_BUT(left, ...)                                                                   \
    Operation(#__VA_ARGS__, left, []([[maybe_unused]] World& w) { __VA_ARGS__; })
#define OPERATION(...) OPERATION_BUT(all, __VA_ARGS__)

constexpr Operation operations[] = {
    OPERATION(ByteBuffer made(100)),
    OPERATION(ByteBuffer made(w.buffer.makeView(0, 0))),
    OPERATION(discard(w.buffer.makeView(0, 0).operator ByteBuffer())),
    OPERATION(discard(w.buffer.clone())),
    OPERATION(w.buffer.append(w.argument)),
    OPERATION(w.buffer.append(std::move(w.argument))),
    OPERATION(w.buffer.append(w.buffer)),
    OPERATION(w.buffer.append(w.list)),
    OPERATION(w.buffer.append(std::move(w.list))),
    OPERATION(w.buffer.append(std::move(w.vector))),
    OPERATION(w.buffer.append(w.buffer.makeView(2, 3))),
    OPERATION(w.buffer.push_back(w.buffer[1])),
    OPERATION(w.buffer.resize(4)),
    OPERATION(w.buffer.resize(2000)),
    OPERATION(discard(w.buffer.makeView(0, 0).append(w.argument))),
    OPERATION(discard(w.buffer.makeView(0, 0).append(std::move(w.argument)))),
    OPERATION(discard(w.buffer.makeView(0, 0).append(w.list))),
    OPERATION(discard(w.buffer.makeView(0, 0).append(std::move(w.list)))),
    OPERATION(discard(w.buffer.makeView(0, 0).append(std::move(w.vector)))),
    OPERATION(discard(w.buffer.makeView(0, 0).append(w.argument.makeView(0, 0)))),
    OPERATION(ByteBufferIStreambuf made(std::make_unique<ByteBuffer>(w.buffer.clone()))),
    OPERATION(ByteStream made(std::make_unique<ByteBufferByteStreamImpl>(w.buffer.clone()))),
    OPERATION(++w.byte),
    OPERATION(w.byte++),
    OPERATION(++w.character),
    OPERATION(w.character++),
    OPERATION(discard(w.source.begin())),
    OPERATION(w.payload.add(w.element)),
    OPERATION(GenericPayloadWrapperPtr made(new GenericPayloadWrapper(std::move(w.payload)))),
    OPERATION(GenericSerialiser made),
    OPERATION(GenericSerialiser made(w.write)),
    OPERATION(GenericSerialiser made(w.write, stop_source(), longText, w.element)),
    OPERATION(w.serialiser(w.sent)),
    OPERATION(w.serialiser(stop_token(), w.sent)),
    OPERATION(w.serialiser = GenericSerialiser(w.write)),
    OPERATION(GenericDeserialiser made(w.read)),
    OPERATION(GenericDeserialiser made(w.source2)),
    OPERATION(w.deserialiser = w.source2),
    OPERATION(discard(w.source2(w.received))),
    OPERATION(DeferredSerialiser made(w.careless)),
    OPERATION(w.deferred = DeferredSerialiser(w.careless)),
    OPERATION(DeferredSerialiser made(w.careless); w.deferred = made),
    OPERATION(DeferredSerialiser(w.careless)(w.sent)),
    OPERATION(Serialiser made(w.newRecord)),
    OPERATION_BUT(allButRecord, w.record = w.newRecord),
    OPERATION(w.record = Serialiser(w.newRecord)),
    OPERATION(discard(w.newRecord.getWireFormat())),
    OPERATION(discard(w.record.getTypeIDs())),
    OPERATION(discard(w.record.getSerialiser(w.view()))),
    OPERATION(discard(w.record.getSerialiser(w.view(), stop_source()))),
    OPERATION_BUT(allButPayload, discard(w.record.getSerialiser(std::move(w.payload)))),
    OPERATION(Deserialiser made(w.newReadRecord)),
    OPERATION(w.readRecord = w.newReadRecord),
    OPERATION(discard(w.newReadRecord.getDeserialiser())),
    OPERATION(Catalogue made),
    OPERATION(w.catalogue.add(Serialiser(w.newRecord))),
    OPERATION(w.catalogue.add(Deserialiser(w.newReadRecord))),
    OPERATION(w.catalogue.add(carelessRecord("0", elementID))),
    OPERATION(w.catalogue.add(Deserialiser("0", 0, carelessReader()))),
    OPERATION(discard(w.catalogue.getSerialiserFor("*", elementID))),
    OPERATION(discard(w.catalogue.getSerialiserFor("0", IDs{elementID}))),
    OPERATION(discard(w.catalogue.getSerialiserFor(longText, getTypeID<void>()))),
    OPERATION_BUT(allButPayload, discard(w.catalogue.getSerialiserFor("0", std::move(w.payload)))),
    OPERATION(discard(w.catalogue.getSerialiserFor("0", GenericPayload()))),
    OPERATION(discard(w.catalogue.getSerialiserFor("0", w.view()))),
    OPERATION(discard(w.catalogue.getSerialiserFor("0", w.view(), stop_source()))),
    OPERATION(discard(w.catalogue.getDeserialiserFor("0", 0))),
    OPERATION(discard(w.catalogue.getDeserialiserFor("0", getTypeID<void>()))),
    OPERATION(discard(w.catalogue.getSupportedWireFormats(elementID))),
    OPERATION(discard(w.catalogue.getSupportedWireFormats(IDs{elementID}))),
    OPERATION(discard(w.catalogue.getSupportedWireFormats(getTypeID<void>()))),
    OPERATION(discard(w.catalogue.getSupportedDeserialisationWireFormats(0))),
    OPERATION(discard(w.catalogue.getSupportedDeserialisationWireFormats(getTypeID<void>()))),
    OPERATION_BUT(allButPayload,
                  discard(createSerialisersFor(std::move(w.payload), w.catalogue, "*"))),
    OPERATION_BUT(allButPayload, discard(createSerialisersFor(std::move(w.payload), w.catalogue,
                                                              Formats{"0", "*"}))),
    OPERATION_BUT(allButPayload, discard(createSerialisersFor(std::move(w.payload), w.catalogue,
                                                              Formats{"*", "0"}, stop_source()))),
};

// Acts on a fresh world with fault point n failing. Returns whether there was one.
bool failsAt(std::size_t n, Operation const& operation, decltype(&full) make) {
    auto const [name, left, act] = operation;
    SCOPED_TRACE(name);
    std::size_t const before = unfreed();
    Blocks blocks;
    std::atomic<int> destroyed = 0;
    bool failed = false;
    {
        World world(make, blocks, destroyed);
        std::string const state = world.state();
        failAfter(n);
        try {
            act(world);
        } catch (std::bad_alloc const&) {
            failed = true;
        } catch (std::domain_error const& error) {
            failed = true;
            EXPECT_STREQ(error.what(), "mine");
        }
        EXPECT_EQ(stopFailing(), failed) << "swallowed";
        if (failed) {
            if (left == allButRecord) {
                world.record = carelessRecord("old", 1);
            } else if (left == allButPayload && world.payload.values.empty()) {
                EXPECT_EQ(destroyed, 2) << "gone, but not destroyed";
                world.payload = payloadOf(2, destroyed);
                destroyed -= 2; // in place of these
            }
            EXPECT_EQ(world.state(), state);
        }
        world.catalogue.add(carelessRecord("after", 1)); // would hang, were a lock held
        world.catalogue.add(Deserialiser("after", 99, carelessReader()));
        discard(world.catalogue.getSerialiserFor("after", 1));
        EXPECT_EQ(valueRead(world.catalogue.getDeserialiserFor("after", 99)), 7);
    }
    EXPECT_EQ(blocks.freed, blocks.made);
    EXPECT_EQ(destroyed, 4);
    EXPECT_EQ(unfreed(), before);
    return failed;
}

TEST(Faults, LeaveEverythingAsItWas) {
    bedrock_diag_set_terminate(false);
    for (Operation const& operation : operations) {
        std::size_t points = 0;
        for (auto const make : kinds) {
            for (std::size_t n = 0; failsAt(n, operation, make) && !HasFailure(); ++n) {
                ++points;
            }
            ASSERT_FALSE(HasFailure()) << "at point " << points;
        }
        EXPECT_GT(points, 0U) << std::get<0>(operation);
    }
    bedrock_diag_set_terminate(true);
}

} // namespace
