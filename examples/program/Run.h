// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_PROGRAM_RUN_H
#define COURIER_EXAMPLES_PROGRAM_RUN_H

#include "examples/modules/formats/ReadLimit.h"

#include <courier/hub/serialisation/Catalogue.h>
#include <courier/hub/serialisation/Module.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace courier::examples {

/// The option that sets how much memory reading one element may take.
void addReadLimit(CLI::App& app, std::uint64_t& bytes);

/// What a program does once it has read its command line. Returns the exit status.
using Program = std::function<int(hub::serialisation::SerialisationCatalogue const& catalogue,
                                  hub::serialisation::stop_source stop)>;

/// Loads every module of a directory, in order of name, as "*" finds the format that was registered
/// first. Throws std::runtime_error if there is none.
[[nodiscard]] std::vector<hub::serialisation::Module>
loadModules(std::filesystem::path const& directory);

/// Reads the command line, loads the modules that were built with this program, and calls
/// `program`.
///
/// Requests a stop at the first Control-C, or the first request to terminate. A second one, a
/// second later or more, ends the program at once. Call this before any other thread starts: those
/// started later must not take the signals themselves. What `program` throws is printed to standard
/// error after the name, which an option may set. Returns the exit status.
[[nodiscard]] int run(CLI::App& app, int argc, char** argv, std::string const& name,
                      std::uint64_t const& readLimit, Program const& program);

/// The file of the running program.
[[nodiscard]] std::filesystem::path programFile();

} // namespace courier::examples

#endif
