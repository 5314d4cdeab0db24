// SPDX-License-Identifier: Apache-2.0
// Encoding and decoding, and what the codec alone takes.
#include "Support.h"

#include "Listing.pb.h"

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Registration.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <istream>
#include <mutex>
#include <ostream>
#include <sstream>
#include <vector>

namespace benchmarks {

using courier::examples::Listing;
using Json = nlohmann::json;
using Octets = std::vector<std::uint8_t>;

struct CodecsDocument {
    Json value;
};

struct CodecsImage {
    courier::hub::serialisation::ByteBuffer pixels;
};

namespace {

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;
using courier::hub::core::getTypeID;

// Adds items until their encodings have so many bytes: add() returns the size of one.
void fill(std::size_t size, auto add) {
    std::uint32_t i = 1;
    for (std::size_t encoded = 0; encoded < size; ++i) {
        encoded += add(i * 2654435761U);
    }
}

std::shared_ptr<CodecsDocument> documentOf(std::size_t size) {
    auto document = std::make_shared<CodecsDocument>();
    fill(size, [&](std::uint32_t random) {
        Json const reading = {{"id", random},
                              {"station", "station number " + std::to_string(random % 1000)},
                              {"values", {random / 1024.0, random / 4096.0, random % 100}},
                              {"valid", random % 2 == 0}};
        document->value.push_back(reading);
        return Json::to_cbor(reading).size();
    });
    return document;
}

std::shared_ptr<Listing> listingOf(std::size_t size) {
    auto listing = std::make_shared<Listing>();
    fill(size, [&](std::uint32_t random) {
        Listing::File& file = *listing->add_files();
        file.set_name("a file with the number " + std::to_string(random));
        file.set_size(random);
        file.set_modified(std::int64_t{random} << 30U);
        return file.ByteSizeLong() + 2; // its own bytes, tag and length
    });
    return listing;
}

Octets toVector(CodecsDocument const& document) {
    Octets bytes;
    Json::to_cbor(document.value, bytes);
    return bytes;
}

Catalogue const& catalogue() {
    static Catalogue filled;
    static std::once_flag once;
    std::call_once(once, [] {
        // A codec of small pieces writes into a block of its own, and that at once.
        auto const write = [](CodecsDocument const& document, std::ostream& out) {
            Octets const bytes = toVector(document);
            out.write(reinterpret_cast<char const*>(bytes.data()),
                      static_cast<std::streamsize>(bytes.size()));
        };
        auto const writePieces = [](CodecsDocument const& document, std::ostream& out) {
            Json::to_cbor(document.value, out);
        };
        addFormat<CodecsDocument>(filled, "cbor", write, [](std::istream& in) {
            return CodecsDocument{Json::from_cbor(in)};
        });
        addWriter<CodecsDocument>(filled, "cbor by pieces", writePieces);
        addReader<CodecsImage>(filled, "raw", [](std::istream& in) {
            return CodecsImage{take(in, unread(in).value().size())};
        });
    });
    return filled;
}

// A sender keeps its stream.
ByteBuffer encode(std::shared_ptr<CodecsDocument> const& document, char const* format) {
    static ByteBufferOStream out;
    GenericPayload payload;
    payload.add(document);
    catalogue().getSerialiserFor(format, std::move(payload))(out);
    return out.release();
}

ByteBuffer encode(Listing const& listing) {
    static ByteBufferOStream out;
    std::size_t const size = listing.ByteSizeLong();
    require(listing.SerializeToArray(out.prepare(size).data(), static_cast<int>(size)), "encoded");
    out.commit(size);
    return out.release();
}

template <class Element> GenericPayload decode(std::span<std::byte> bytes, char const* format) {
    // A receiver would pass the routine that frees the block.
    ByteBuffer::Block block(bytes.data(), [](void*) { /* kept by the caller */ });
    ByteBufferIStream in(ByteBuffer(std::move(block), bytes.size()));
    return catalogue().getDeserialiserFor(format, getTypeID<Element>())(in);
}

// Adds one whose operation is `use(input)`, with a result.
void addUse(Row const& row, char const* who, auto input, auto use) {
    row.add(who, [=] {
        return [use, input = input()] {
            auto const result = use(input);
            escape(&result);
        };
    });
}

Kind kindFor(std::size_t size) { return size > 65536 ? Kind::timed : Kind::counted; }

void addDocuments(std::size_t size, std::string const& amount) {
    Row const row("encode a document of " + amount + " as CBOR by a catalogue", 1, kindFor(size));
    auto const input = [size] { return documentOf(size); };
    addUse(row, "courier", input, [](auto& document) { return encode(document, "cbor"); });
    addUse(row, "courier by pieces", input,
           [](auto& document) { return encode(document, "cbor by pieces"); });
    addUse(row, "to_cbor vector", input, [](auto& document) { return toVector(*document); });
    addUse(row, "to_cbor ostringstream", input, [](auto& document) {
        std::ostringstream out;
        Json::to_cbor(document->value, out);
        return std::move(out).str();
    });
}

void addListings(std::size_t size, std::string const& amount) {
    Row const row("encode a message of " + amount + " as Protocol Buffers", 1, kindFor(size));
    auto const input = [size] { return listingOf(size); };
    addUse(row, "courier", input, [](auto& listing) { return encode(*listing); });
    addUse(row, "SerializeToArray", input, [](auto& listing) {
        std::size_t const bytes = listing->ByteSizeLong();
        auto buffer = std::make_unique_for_overwrite<std::byte[]>(bytes);
        require(listing->SerializeToArray(buffer.get(), static_cast<int>(bytes)), "encoded");
        return buffer;
    });
    addUse(row, "SerializeToOstream", input, [](auto& listing) {
        std::ostringstream out;
        require(listing->SerializeToOstream(&out), "encoded");
        return std::move(out).str();
    });
}

void addDecoding() {
    Row const document("adopt and decode a CBOR document of 64 KiB by a catalogue");
    auto const encoded = [] { return toVector(*documentOf(65536)); };
    addUse(document, "courier", encoded, [](auto& bytes) {
        auto* const data = reinterpret_cast<std::byte*>(const_cast<std::uint8_t*>(bytes.data()));
        return decode<CodecsDocument>({data, bytes.size()}, "cbor");
    });
    addUse(document, "from_cbor", encoded,
           [](auto& bytes) { return std::make_shared<Json>(Json::from_cbor(bytes)); });

    Row const raw("decode a raw element of 64 MiB by a catalogue", 1, Kind::timed);
    auto const pixels = [] { return bytesAt(source, std::size_t{64} << 20U); };
    addUse(raw, "courier", pixels, [](auto& bytes) {
        GenericPayload read = decode<CodecsImage>(bytes, "raw");
        require(read.get<CodecsImage>(0).pixels.data() == bytes.data(), "the bytes stay");
        return read;
    });
    addUse(raw, "copy", pixels,
           [](auto& bytes) { return std::vector<std::byte>(bytes.begin(), bytes.end()); });
    addUse(raw, "alias", pixels, [](auto& bytes) {
        std::shared_ptr<std::byte> const block(bytes.data(), [](void*) {});
        return std::make_shared<std::shared_ptr<std::byte>>(block); // the element has its share
    });
}

} // namespace

void addCodecs() {
    addDocuments(1024, "1 KiB");
    addDocuments(65536, "64 KiB");
    addDocuments(4194304, "4 MiB");
    addListings(100, "100 B");
    addListings(1024, "1 KiB");
    addListings(65536, "64 KiB");
    addListings(4194304, "4 MiB");
    addDecoding();
}

} // namespace benchmarks
