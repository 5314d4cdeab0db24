// SPDX-License-Identifier: Apache-2.0
// Two to four threads that do at random whatever the headers allow side by side, for
// ThreadSanitizer: on one catalogue, one deserialiser, one serialiser to move from, one shared
// payload and its sentinel, one stop state and the parts of one block.
#include "Input.h"

#include <bedrock/core/diag/terminate.h>

namespace {

using namespace tests;
using fuzz::Input;

constexpr std::uint64_t elementID = getTypeID<Element>();
constexpr std::size_t formatCount = 4;
std::string formatOf(std::size_t n) { return "format " + std::to_string(n % formatCount); }

// What the threads share.
struct Shared {
    Shared() {
        auto const write = [this](GenericPayloadView&& view, auto const&... given) {
            callBack(view.index);
            return GenericSerialiser(
                [view = std::move(view)](auto, auto& out) { out << view.get<Element>().value; },
                given...);
        };
        catalogue.add(Serialiser("write", elementID, {elementID}, write, write, nullptr));
    }
    // What a factory may do: look up here, and register records of the other kind.
    void callBack(std::size_t n) {
        SAME(catalogue.getSupportedWireFormats(elementID), Formats{"write"});
        SAME(catalogue.getSerialiserFor("*", IDs{elementID}).getWireFormat(), "write");
        SAME(messageOf<LookUpError>([&] { discard(catalogue.getDeserialiserFor("none", n)); }),
             "No deserialiser found for none");
        catalogue.add(reader(formatOf(n), n % 3, static_cast<int>(n % 3)));
        SAME(messageOf<std::logic_error>([&] { catalogue.add(record("never", 9, {9}, "")); }),
             "A factory cannot register in the catalogue that has called it");
    }

    Catalogue catalogue;
    std::atomic<int> destroyed = 0;
    GenericPayloadWrapperPtr payload = GenericPayloadWrapperPtr::make(payloadOf(2, destroyed));
    std::shared_ptr<Sentinel> sentinel = payload->getSentinel();
    std::shared_ptr<int> handle = std::make_shared<int>(1);
    GenericDeserialiser deserialiser = reading<int>([](auto&) { return 7; }, handle);
    GenericSerialiser serialiser{[](auto, auto& out) { out << "x"; }, stop_source(), "text",
                                 handle};
    std::atomic<int> taken = 0; // out of that serialiser, which only one may get
    stop_source source;
    std::atomic<bool> isStopping = false;
    int writtenBeforeStop = 0;
};

// What one thread does. The objects that it may change are its own.
struct Thread {
    Shared& shared;
    Input input;
    ByteBuffer part; // of the block that all share
    GenericPayloadWrapperPtr payload = shared.payload;
    std::vector<GenericPayloadView> views{};
    std::vector<GenericSerialiser> serialisers{};

    void add() {
        std::size_t const n = input.byte(), id = 10 + n % 7;
        shared.catalogue.add(reader(formatOf(n), id, static_cast<int>(id)));
        shared.catalogue.add(record(formatOf(n), id, {id, id}, "made by"));
    }
    // What is found is whole, and what was there once stays.
    void lookUp() {
        std::size_t const n = input.byte(), id = 10 + n % 7;
        std::string const format = formatOf(n);
        Catalogue const& catalogue = shared.catalogue;
        bool const had = catalogue.hasDeserialiserFor(format, id);
        auto const formats = catalogue.getSupportedDeserialisationWireFormats(id);
        SAME(had && std::ranges::count(formats, format) != 1, false);
        auto const found = [&](auto expected, auto look) {
            try {
                SAME(look(), expected);
            } catch (LookUpError const& error) {
                SAME(error.typeID(), id);
            }
        };
        if (had) {
            SAME(valueRead(catalogue.getDeserialiserFor(format, id)), static_cast<int>(id));
        }
        IDs const list{id, id};
        found(id, [&] { return catalogue.getSerialiserFor(format, id).getTypeID(); });
        found(list, [&] { return catalogue.getSerialiserFor("*", list).getTypeIDs(); });
        found("made by view",
              [&] { return written(catalogue.getSerialiserFor(format, viewOf(list, 1))); });
        found("made by stop", [&] {
            return written(catalogue.getSerialiserFor("*", viewOf(list, 0), stop_source()));
        });
        found("made by payload",
              [&] { return written(catalogue.getSerialiserFor(format, payloadOf(list))); });
        SAME(catalogue.getSupportedWireFormats(id).size() <= formatCount, true);
        SAME(catalogue.getSupportedWireFormats(list).size() <= formatCount, true);
    }
    void fanOut() {
        std::atomic<int> destroyed = 0;
        auto made = createSerialisersFor(payloadOf(3, destroyed), shared.catalogue, "write");
        bool const isSame = input.flag();
        std::thread other([serialisers = std::move(made.first)] {
            for (GenericSerialiser const& each : serialisers) {
                SAME(written(each).size(), 1U);
            }
        });
        isSame ? made.second->wait() : void(made.second->waitFor(std::chrono::hours(1)));
        SAME(destroyed, 3); // although the thread need not have ended
        other.join();
    }
    void deserialise() const {
        GenericDeserialiser copy(shared.deserialiser), assigned = reading<void>([](auto&) {});
        assigned = shared.deserialiser;
        assigned = std::move(copy);
        SAME(valueRead(assigned), 7);
        SAME(valueRead(shared.deserialiser), 7);
        SAME(shared.deserialiser.getHandle() == shared.handle, true);
    }
    void takeSerialiser() {
        GenericSerialiser mine(input.flag() ? GenericSerialiser(std::move(shared.serialiser))
                                            : GenericSerialiser());
        if (input.flag()) {
            mine = std::move(shared.serialiser);
        }
        shared.taken += mine.getText() == "text" ? 1 : 0;
    }
    void share() {
        views.emplace_back(payload, 1);
        views.push_back(views.front());
        SAME(views.back().get<Element>().value, 1);
        SAME(shared.sentinel->isReleased(), false);
        SAME(shared.sentinel->waitFor(std::chrono::microseconds(1)), false);
        serialisers.push_back(
            shared.catalogue.getSerialiserFor("write", GenericPayloadView(views[0])));
        SAME(written(serialisers.back()), "1");
    }
    void drop() {
        views.clear();
        serialisers.clear();
    }
    void stop() {
        if (input.oneIn(8) && !shared.isStopping.exchange(true)) {
            shared.writtenBeforeStop = 1;
            SAME(stop_source(shared.source).request_stop(), true);
        } else if (shared.source.get_token().stop_requested()) {
            SAME(shared.writtenBeforeStop, 1);
            SAME(shared.source.request_stop(), false);
        }
    }
    void split() {
        std::size_t const n = part.size() / 2;
        ByteBuffer front = part.splitFront(n);
        std::ranges::fill(front, std::byte{1});
        SAME(std::ranges::count(part, std::byte{0}), static_cast<std::ptrdiff_t>(part.size()));
        part = input.flag() ? ByteBuffer(part.size()) : std::move(part);
    }
    void step() {
        while (input && input.oneIn(8)) {
            std::this_thread::yield();
        }
        input.oneOf(DO(add()), DO(lookUp()), DO(fanOut()), DO(deserialise()), DO(takeSerialiser()),
                    DO(share()), DO(drop()), DO(stop()), DO(split()));
    }
};

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    bedrock_diag_set_terminate(false);
    Blocks blocks;
    ByteBuffer whole = blocks.adopt(std::string(64, '\0'));
    Shared shared;
    Input input(data, size);
    std::size_t const count = 2 + input.below(3), each = size / count;
    std::vector<std::thread> threads;
    Sentinel begin;
    for (std::size_t i = 0; i < count; ++i) {
        Thread thread{shared, Input(data + i * each, each), whole.splitFront(16)};
        threads.emplace_back(
            [&begin, name = fuzz::place.input, mine = std::move(thread)]() mutable {
                fuzz::place.input = name;
                Thread running(std::move(mine)); // destroyed at the thread's end
                begin.wait();
                while (running.input) {
                    running.step();
                }
            });
    }
    whole.clear();
    std::shared_ptr<Sentinel> const sentinel = shared.sentinel;
    shared.payload = {};
    begin.notify();
    sentinel->wait(); // until the last thread has dropped its references
    SAME(shared.destroyed, 2);
    std::ranges::for_each(threads, &std::thread::join);
    SAME(blocks.freed, 1);
    SAME(shared.taken <= 1, true);
    return 0;
}
