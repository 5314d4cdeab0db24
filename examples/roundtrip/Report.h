// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_ROUNDTRIP_REPORT_H
#define COURIER_EXAMPLES_ROUNDTRIP_REPORT_H

#include "examples/program/Text.h"
#include "examples/roundtrip/Transfer.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace courier::examples {

/// One line for each element type: its identifier, and how it can be written and read.
void printTypes(std::ostream& out, hub::serialisation::SerialisationCatalogue const& catalogue);

/// One line for each element: what was written and read, how fast, and whether it is the same.
void printOutcomes(std::ostream& out, std::vector<Element> const& elements,
                   std::vector<std::string> const& wireFormats,
                   std::vector<Outcome> const& outcomes);

} // namespace courier::examples

#endif
