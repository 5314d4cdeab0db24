// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_ROUNDTRIP_TRANSFER_H
#define COURIER_EXAMPLES_ROUNDTRIP_TRANSFER_H

#include "Elements.h"
#include "Text.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
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
    std::string error; // empty where nothing failed
};

/// How far a transfer is; any thread may look at it at any time.
struct Progress {
    std::atomic<std::uint64_t> bytesOut{0};
    std::atomic<std::size_t> written{0};
    std::atomic<std::size_t> done{0};
};

struct Transfer {
    std::vector<Outcome> outcomes; // one for each element
    Seconds untilReleased{};       // from the start until the payload was gone
};

/// Sends the elements as one payload, element i in wire format i, on a number of threads; receives
/// what was sent and compares. `watch` is called some fifty times a second on the calling thread.
///
/// Each thread reads an element back as soon as it has written it, so that no more encoded and
/// decoded elements are in memory at once than there are threads. An element whose write was
/// stopped is not written; one that fails says so in its outcome, and the others go on. Throws what
/// createSerialisersFor() and the look-ups of deserialisers throw, before anything is written.
[[nodiscard]] Transfer transfer(std::vector<Element> const& elements,
                                std::vector<std::string> const& wireFormats,
                                hub::serialisation::SerialisationCatalogue const& catalogue,
                                hub::serialisation::stop_source const& stop, std::size_t threads,
                                std::function<void(Progress const&)> const& watch);

} // namespace courier::examples

#endif
