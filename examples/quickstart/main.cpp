// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Registration.h>
#include <iostream>
using namespace courier::hub::serialisation;

struct Price {
    int cents;
};
void writePrice(Price const& price, std::ostream& out) { out << price.cents << '\n'; }
Price readPrice(std::istream& in) {
    Price price{};
    return in >> price.cents && in.get() == '\n' ? price : throw std::runtime_error("not a price");
}

int main() {
    Catalogue catalogue; // a module registers how a type is written and read in a wire format
    addFormat<Price>(catalogue, "text", writePrice, readPrice);

    courier::hub::core::GenericPayload payload; // a sender gets one serialiser for each element
    payload.emplace<Price>(Price{1999});
    auto const serialisers = createSerialisersFor(std::move(payload), catalogue, "text").first;
    ByteBufferOStream out;
    serialisers.front()(out);

    ByteBufferIStream in(out.release()); // a receiver reads the bytes in place
    auto const read = catalogue.getDeserialiserFor("text", courier::hub::core::getTypeID<Price>());
    std::cout << read(in).get<Price>(0).cents << " cents\n";
}
