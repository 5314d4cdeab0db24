// SPDX-License-Identifier: Apache-2.0
// The whole path of a document: encoded to CBOR, adopted, decoded.
#include "Support.h"

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Registration.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <istream>
#include <ostream>
#include <sstream>

namespace benchmarks {

using Json = nlohmann::json;

struct RoadDocument {
    Json value;
};

namespace {

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;
using courier::hub::core::getTypeID;

using Octets = std::vector<std::uint8_t>;

std::string const format = "cbor";

// A document whose encoding has at least `size` bytes, and at most one reading more.
std::shared_ptr<RoadDocument> documentOf(std::size_t size) {
    auto document = std::make_shared<RoadDocument>();
    document->value = Json::array();
    std::size_t encoded = 0;
    for (std::uint32_t i = 1; encoded < size; ++i) {
        std::uint32_t const random = i * 2654435761U;
        Json reading = {{"id", random},
                        {"station", "station number " + std::to_string(random % 1000)},
                        {"values", {random / 1024.0, random / 4096.0, random % 100}},
                        {"valid", random % 2 == 0}};
        encoded += Json::to_cbor(reading).size();
        document->value.push_back(std::move(reading));
    }
    return document;
}

Catalogue const& catalogue() {
    static auto const filled = [] {
        auto made = std::make_unique<Catalogue>();
        addFormat<RoadDocument>(
            *made, format,
            [](RoadDocument const& document, std::ostream& out) {
                Json::to_cbor(document.value, out);
            },
            [](std::istream& in) { return RoadDocument{Json::from_cbor(in)}; });
        return made;
    }();
    return *filled;
}

// Courier: everything through the catalogue.
ByteBuffer encode(std::shared_ptr<RoadDocument> const& document) {
    GenericPayload payload;
    payload.add(document);
    auto const serialiser = catalogue().getSerialiserFor(format, std::move(payload));
    ByteBufferOStream out;
    serialiser(out);
    return out.release();
}

GenericPayload decode(ByteBuffer bytes) {
    auto const deserialiser = catalogue().getDeserialiserFor(format, getTypeID<RoadDocument>());
    ByteBufferIStream in(std::move(bytes));
    return deserialiser(in);
}

Octets encodeDirectly(std::shared_ptr<RoadDocument> const& document) {
    Octets bytes;
    Json::to_cbor(document->value, bytes);
    return bytes;
}

std::string encodeByStringStream(std::shared_ptr<RoadDocument> const& document) {
    std::ostringstream out;
    Json::to_cbor(document->value, out);
    return std::move(out).str();
}

constexpr std::size_t shortest = 1024;

// Adds an operation on a document whose encoding has this size.
template <class Operation>
void addOf(char const* work, std::size_t size, char const* who, Operation operation) {
    auto const make = [=] {
        return [=, document = documentOf(size)] {
            auto const result = operation(document);
            escape(&result);
        };
    };
    addCounted(name(work, size, who), make, 1, size == shortest);
}

void addWriting(std::size_t size) {
    addOf("write_cbor", size, "courier", [](auto const& document) {
        ByteBufferOStreambuf sink;
        std::ostream out(&sink);
        Json::to_cbor(document->value, out);
        return sink.release();
    });
    addOf("write_cbor", size, "ostringstream", encodeByStringStream);
    addOf("write_cbor", size, "ostringstream_copy", [](auto const& document) {
        std::ostringstream out;
        Json::to_cbor(document->value, out);
        return out.str();
    });
    addOf("write_cbor", size, "vector", encodeDirectly);
}

void addDecoding(std::size_t size) {
    auto const decodeOurs = [=] {
        return [bytes = encodeDirectly(documentOf(size))] {
            // The block is borrowed here. A receiver would pass the routine that frees it.
            auto* const block = const_cast<std::uint8_t*>(bytes.data());
            GenericPayload const read =
                decode({ByteBuffer::Block(block, [](void*) { /* kept here */ }), bytes.size()});
            escape(&read);
        };
    };
    auto const decodeDirectly = [=] {
        return [bytes = encodeDirectly(documentOf(size))] {
            auto const read = std::make_shared<RoadDocument>(RoadDocument{Json::from_cbor(bytes)});
            escape(&read);
        };
    };
    addCounted(name("road_decode", size, "courier"), decodeOurs, 1, size == shortest);
    addCounted(name("road_decode", size, "vector"), decodeDirectly, 1, size == shortest);
}

Family const road([] {
    for (std::size_t const size : {shortest, std::size_t{65536}, std::size_t{4194304}}) {
        addWriting(size);
        addOf("road_encode", size, "courier", encode);
        addOf("road_encode", size, "ostringstream", encodeByStringStream);
        addOf("road_encode", size, "vector", encodeDirectly);
        addDecoding(size);
        addOf("road", size, "courier",
              [](auto const& document) { return decode(encode(document)); });
        addOf("road", size, "vector", [](auto const& document) {
            return std::make_shared<RoadDocument>(
                RoadDocument{Json::from_cbor(encodeDirectly(document))});
        });
    }
});

} // namespace
} // namespace benchmarks
