// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/Streams.h>
#include <iostream>
using namespace courier::hub::serialisation;

struct Price {
    int cents;
};

int main() {
    // A module registers how a type is written and read in a wire format.
    Catalogue catalogue;
    constexpr auto id = courier::hub::core::getTypeID<Price>();
    auto const write = [](GenericPayloadView&& view) { // the view keeps the payload alive
        return GenericSerialiser([view = std::move(view)](stop_token, std::ostream& out) {
            out << view.get<Price>().cents << '\n';
        });
    };
    std::function read = [](std::istream& in) { return Price{*std::istream_iterator<int>(in)}; };
    catalogue.add(Serialiser("text", id, {id}, write, nullptr, nullptr));
    catalogue.add(Deserialiser("text", id, GenericDeserialiser(read)));

    // A sender turns a payload into one serialiser for each element.
    courier::hub::core::GenericPayload payload;
    payload.add(std::make_shared<Price>(Price{1999}));
    auto [serialisers, sentinel] = createSerialisersFor(std::move(payload), catalogue, "text");
    ByteBufferOStreambuf sink;
    std::ostream out(&sink);
    serialisers.front()(out);
    serialisers.clear();
    sentinel->wait(); // the payload's memory is free

    // A receiver adopts the bytes and reads them in place.
    ByteBufferIStreambuf source(std::make_unique<ByteBuffer>(sink.release()));
    std::istream in(&source);
    auto const received = catalogue.getDeserialiserFor("text", id)(in);
    std::cout << received.get<Price>(0).cents << " cents\n";
}
