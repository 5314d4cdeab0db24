// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_COMMON_PROGRAM_H
#define COURIER_EXAMPLES_COMMON_PROGRAM_H

#include "Elements.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

// What the example programs share: they load modules, stop on Control-C and send files.

namespace courier::examples {

/// The file that this process runs.
[[nodiscard]] std::filesystem::path programFile();

/// The directory of the modules that were built with this program.
[[nodiscard]] std::filesystem::path moduleDirectory();

/// Requests a stop at the first Control-C, or the first request to terminate; from a second later
/// on, another one ends the program at once. Call this before any other thread starts: those
/// started later must not take the signals themselves.
void stopOnInterrupt(hub::serialisation::stop_source stop);

/// Sets how much memory the reading of one element may take, for all the modules.
void limitReads(hub::serialisation::SerialisationCatalogue const& catalogue, std::uint64_t bytes);

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
