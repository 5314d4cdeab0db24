// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_ROUNDTRIP_TRANSFER_H
#define COURIER_EXAMPLES_ROUNDTRIP_TRANSFER_H

#include "examples/program/Element.h"
#include "examples/program/Text.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <cstddef>
#include <string>
#include <vector>

namespace courier::examples {

/// What became of one element.
struct Outcome {
    bool isWritten = false;
    bool isRead = false;
    bool isIdentical = false;
    std::size_t bytesOut = 0;
    Seconds writing{};
    Seconds reading{};
    std::string error; // empty if nothing failed
};

struct Transfer {
    std::vector<Outcome> outcomes; // one for each element
    Seconds untilReleased{};       // from the start until the payload was destroyed
};

/// Sends the elements as one payload, element i in wire format i, on a number of threads; receives
/// what was sent and compares.
///
/// Each thread reads an element back as soon as it has written it, so that no more encoded and
/// decoded elements are in memory at once than there are threads. An element whose write was
/// stopped is not written; one that fails has the error in its outcome and does not affect the
/// others. Throws what createSerialisersFor() and the look-ups of deserialisers throw, before
/// anything is written.
[[nodiscard]] Transfer transfer(std::vector<Element> const& elements,
                                std::vector<std::string> const& wireFormats,
                                hub::serialisation::SerialisationCatalogue const& catalogue,
                                hub::serialisation::stop_source const& stop, std::size_t threads);

} // namespace courier::examples

#endif
