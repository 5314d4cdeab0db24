// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_FAN_OUT_H
#define COURIER_HUB_SERIALISATION_FAN_OUT_H

#include <courier/hub/serialisation/Catalogue.h>
#include <courier/hub/serialisation/Export.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace courier::hub::serialisation {

/// Turns one payload into one serialiser for each of its elements, in element order. The payload is
/// moved once, to the heap, and shared by the serialisers: nothing is copied, and nothing is
/// written before a serialiser is called.
///
/// The payload lives until the last serialiser that kept it is destroyed; then the Sentinel is
/// released. That says that the payload's memory is free, not that the serialisers have run. Where
/// none kept it, the Sentinel is released before the call returns.
///
/// Runs on the calling thread, with one look-up after the other; linear in the number of elements.
/// The serialisers may be called and destroyed on any threads. Several calls may share a catalogue.
///
/// Throws what a look-up throws (std::runtime_error "No serialiser found for " and the wire format,
/// std::out_of_range when the payload has fewer type identifiers than elements, what a factory
/// throws) and std::bad_alloc. No partial result is returned: the serialisers made so far and the
/// payload are destroyed, and the caller's payload is left moved-from. Only when the shared payload
/// itself cannot be allocated is the caller's payload intact.
///
/// This overload writes every element in the same wire format.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT
    std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
    createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                         std::string const& wireFormat);

/// Writes element i in wire format i. (Of two literals in braces the compiler could also make one
/// std::string: name the std::vector there.) Further wire formats are ignored; fewer than elements
/// throw std::out_of_range "Fewer wire formats than payload elements", and the caller keeps the
/// payload.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT
    std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
    createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                         std::vector<std::string> const& wireFormats);

/// The same, and hands every factory a source of the caller's stop state, so that one request stops
/// all the writes.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT
    std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
    createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                         std::vector<std::string> const& wireFormats, stop_source stopSource);

} // namespace courier::hub::serialisation

#endif
