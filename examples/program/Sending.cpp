// SPDX-License-Identifier: Apache-2.0
#include "examples/program/Sending.h"

#include "examples/program/Run.h"
#include "examples/program/Text.h"

#include <courier/hub/serialisation/IOStreams.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <filesystem>
#include <stdexcept>
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

// Reads a .json file as a Document, and maps any other as a Blob.
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

// The names, sizes and times of the files in a directory.
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

// How often each byte value occurs in a file.
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

} // namespace

void Sending::addTo(CLI::App& app, std::string const& whatThreadsDo) {
    app.add_option("files", files, "The files to send")->type_name("FILE");
    app.add_option("-f,--format", formats,
                   "Wire format: once for all files, or once for each of them; * takes the one "
                   "registered first")
        ->allow_extra_args(false)
        ->type_name("FORMAT")
        ->capture_default_str();
    app.add_option("-t,--threads", threads, "Threads that " + whatThreadsDo)
        ->check(CLI::Range(1, 256))
        ->type_name("N")
        ->capture_default_str();
}

std::vector<Element> loadAll(std::vector<std::string> const& files,
                             SerialisationCatalogue const& catalogue) {
    std::vector<Element> elements;
    elements.reserve(files.size());
    for (auto const& file : files) {
        elements.push_back(load(file, file, catalogue));
    }
    if (files.empty()) {
        auto const program = programFile();
        auto const root = program.parent_path() / PROJECT_ROOT_FROM_PROGRAM;
        for (auto const& file : {root / "LICENSE", root / "CMakePresets.json", program}) {
            if (exists(file)) { // CMakePresets.json is not installed
                elements.push_back(load(file, file.filename(), catalogue));
            }
        }
        elements.push_back(list(root / "examples" / "modules", "modules/"));
        elements.push_back(countBytes(program, "bytes of " + std::string(program.filename())));
    }
    return elements;
}

std::vector<std::string> resolveFormats(std::vector<std::string> wanted,
                                        std::vector<Element> const& elements,
                                        SerialisationCatalogue const& catalogue) {
    if (wanted.size() == 1) {
        wanted.assign(elements.size(), std::string(wanted.front()));
    }
    if (wanted.size() != elements.size()) {
        throw std::runtime_error(
            std::string(wanted.size() < elements.size() ? "too few" : "too many") +
            " wire formats: " + counted(wanted.size(), "wire format") + " for " +
            counted(elements.size(), "element"));
    }
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        NamedType const& type = elements[i].type();
        auto const formats = catalogue.getSupportedWireFormats(type.id);
        if (formats.empty()) {
            throw std::runtime_error("no module writes " + std::string(type.name) + " (" +
                                     elements[i].name + ")");
        }
        if (wanted[i] == "*") {
            wanted[i] = catalogue.getSerialiserFor("*", type.id).getWireFormat();
        } else if (std::find(formats.begin(), formats.end(), wanted[i]) == formats.end()) {
            throw std::runtime_error("no module writes " + std::string(type.name) + " as \"" +
                                     wanted[i] + "\" (" + elements[i].name + "); there is " +
                                     join(formats, ", "));
        }
    }
    return wanted;
}

} // namespace courier::examples
