// SPDX-License-Identifier: Apache-2.0
#include "examples/program/Element.h"

#include <courier/hub/serialisation/Streams.h>

#include <algorithm>
#include <chrono>
#include <istream>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace courier::examples {

using namespace hub::serialisation;
using hub::core::GenericPayload;

namespace {

std::string lineAndColumn(std::string_view textBefore) {
    auto const line = std::count(textBefore.begin(), textBefore.end(), '\n') + 1;
    auto const lineBefore = textBefore.substr(textBefore.rfind('\n') + 1);
    // Characters, not bytes: those that continue a UTF-8 sequence do not count.
    auto const column = std::count_if(lineBefore.begin(), lineBefore.end(),
                                      [](unsigned char c) { return (c & 0xC0U) != 0x80U; }) +
                        1;
    return std::to_string(line) + ':' + std::to_string(column);
}

std::shared_ptr<Document> parse(Blob const& file, std::string const& name,
                                SerialisationCatalogue const& catalogue) {
    auto const deserialise = catalogue.getDeserialiserFor("json", hub::core::getTypeID<Document>());
    NonOwningByteBufferViewIStreambuf source(file.bytes());
    std::istream in(&source);
    try {
        GenericPayload const payload = deserialise(in);
        return std::static_pointer_cast<Document>(payload.values.at(0));
    } catch (std::exception const& error) {
        // The last byte that was read is the wrong one, unless it is the end that came too early.
        auto const left = static_cast<std::size_t>(std::max<std::streamsize>(source.in_avail(), 0));
        auto const right = file.bytes().size() - left - (in.eof() ? 0 : 1);
        std::string_view const text(reinterpret_cast<char const*>(file.bytes().data()), right);
        throw std::runtime_error(name + ':' + lineAndColumn(text) + ": " + error.what());
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
