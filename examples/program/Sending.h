// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_PROGRAM_SENDING_H
#define COURIER_EXAMPLES_PROGRAM_SENDING_H

#include "examples/program/Element.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

namespace CLI {
class App;
}

namespace courier::examples {

/// What to send and how: the options of a command line.
struct Sending {
    std::vector<std::string> files;
    std::vector<std::string> formats{"*"};
    std::size_t threads = std::max(1U, std::thread::hardware_concurrency());

    /// Adds its options.
    void addTo(CLI::App& app, std::string const& whatThreadsDo);
};

/// Loads the files. If there are none, loads a text, a JSON document and a binary of this project,
/// the listing of a directory and the histogram of the binary.
[[nodiscard]] std::vector<Element>
loadAll(std::vector<std::string> const& files,
        hub::serialisation::SerialisationCatalogue const& catalogue);

/// The wire format of each element, by its real name, as a receiver cannot look up "*". `wanted`
/// has one for all elements, or one for each. Throws std::runtime_error, which lists the available
/// formats, if an element cannot be written in its format.
[[nodiscard]] std::vector<std::string>
resolveFormats(std::vector<std::string> wanted, std::vector<Element> const& elements,
               hub::serialisation::SerialisationCatalogue const& catalogue);

} // namespace courier::examples

#endif
