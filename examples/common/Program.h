// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_COMMON_PROGRAM_H
#define COURIER_EXAMPLES_COMMON_PROGRAM_H

#include "Elements.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace CLI {
class App;
}

// What the example programs share: they load modules, stop on Control-C and send files.

namespace courier::examples {

/// What a program does once it has read its command line. Returns the exit status.
using Program = std::function<int(hub::serialisation::SerialisationCatalogue const& catalogue,
                                  hub::serialisation::stop_source stop)>;

/// Reads the command line, loads the modules that were built with this program, which get the
/// read limit, and runs it.
/// Requests a stop at the first Control-C, or the first request to terminate; from a second later
/// on, another one ends the program at once. Call this before any other thread starts: those
/// started later must not take the signals themselves. What `program` throws goes to standard
/// error, behind the name, which may be one that the command line sets. Returns the exit status.
[[nodiscard]] int run(CLI::App& app, int argc, char** argv, std::string const& name,
                      std::uint64_t const& readLimit, Program const& program);

/// What to send and how, as the command line says.
struct Sending {
    std::vector<std::string> files;
    std::vector<std::string> formats{"*"};
    std::size_t threads = std::max(1U, std::thread::hardware_concurrency());

    /// Adds its options.
    void addTo(CLI::App& app, std::string const& whatThreadsDo);
};

/// The option that sets how much memory the reading of one element may take.
void addReadLimit(CLI::App& app, std::uint64_t& bytes);
inline constexpr std::uint64_t defaultReadLimit = std::uint64_t{4} << 30;

/// Loads the files or, where there are none, a text, a JSON document and a binary of this project,
/// the listing of a directory and the histogram of the binary.
[[nodiscard]] std::vector<Element>
loadAll(std::vector<std::string> const& files,
        hub::serialisation::SerialisationCatalogue const& catalogue);

/// The wire format of each element, by its real name, as a receiver cannot ask for "*". `wanted`
/// has one for all elements, or one for each. Throws std::runtime_error, which says what there is,
/// when an element cannot be written so.
[[nodiscard]] std::vector<std::string>
resolveFormats(std::vector<std::string> wanted, std::vector<Element> const& elements,
               hub::serialisation::SerialisationCatalogue const& catalogue);

} // namespace courier::examples

#endif
