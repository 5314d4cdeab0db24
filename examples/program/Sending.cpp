// SPDX-License-Identifier: Apache-2.0
#include "examples/program/Sending.h"

#include "examples/program/Run.h"
#include "examples/program/Text.h"

#include <CLI/CLI.hpp>

#include <stdexcept>

namespace courier::examples {

using hub::serialisation::SerialisationCatalogue;

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
