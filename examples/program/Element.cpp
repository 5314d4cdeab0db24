// SPDX-License-Identifier: Apache-2.0
#include "examples/program/Element.h"

#include <courier/hub/serialisation/IOStreams.h>

#include <chrono>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace courier::examples {

using namespace hub::serialisation;
using hub::core::GenericPayload;

namespace {

std::shared_ptr<Document> parse(Blob const& file, std::string const& name,
                                SerialisationCatalogue const& catalogue) {
    auto const deserialise = catalogue.getDeserialiserFor("json", hub::core::getTypeID<Document>());
    ByteBufferIStream in(file.bytes());
    try {
        GenericPayload const payload = deserialise(in);
        return std::static_pointer_cast<Document>(payload.values.at(0));
    } catch (std::exception const& error) {
        throw std::runtime_error(name + ": " + error.what());
    }
}

} // namespace

void Element::addTo(GenericPayload& payload) const {
    std::visit([&](auto const& held) { payload.add(held); }, value);
}

bool Element::isAllOf(GenericPayload const& payload) const {
    return payload.elementCount == 1 &&
           std::visit(
               [&](auto const& held) {
                   using T = typename std::remove_cvref_t<decltype(held)>::element_type;
                   return payload.get<T>(0) == *held;
               },
               value);
}

Element load(std::filesystem::path const& file, std::string name,
             SerialisationCatalogue const& catalogue) {
    Blob blob = Blob::map(file);
    auto const size = blob.bytes().size();
    if (file.extension() == ".json") {
        auto document = parse(blob, name, catalogue);
        return {std::move(name), size, std::move(document)};
    }
    return {std::move(name), size, std::make_shared<Blob>(std::move(blob))};
}

Element list(std::filesystem::path const& directory, std::string name) {
    auto listing = std::make_shared<Listing>();
    listing->set_directory(directory.string());
    std::size_t size = sizeof(Listing) + listing->directory().size();
    for (auto const& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.is_regular_file()) {
            Listing::File& file = *listing->add_files();
            file.set_name(entry.path().filename().string());
            file.set_size(entry.file_size());
            auto const modified = entry.last_write_time().time_since_epoch();
            file.set_modified(std::chrono::nanoseconds(modified).count());
            size += sizeof(Listing::File) + file.name().size();
        }
    }
    return {std::move(name), size, std::move(listing)};
}

Element countBytes(std::filesystem::path const& file, std::string name) {
    auto histogram = std::make_shared<Histogram>(Histogram{name, {}});
    histogram->counts.resize(256);
    Blob const blob = Blob::map(file);
    for (std::byte const byte : blob.bytes()) {
        ++histogram->counts[std::to_integer<std::size_t>(byte)];
    }
    std::size_t const size = sizeof(Histogram) + name.size() +
                             histogram->counts.size() * sizeof(histogram->counts.front());
    return {std::move(name), size, std::move(histogram)};
}

} // namespace courier::examples
