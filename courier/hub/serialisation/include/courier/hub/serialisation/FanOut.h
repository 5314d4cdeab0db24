// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_FAN_OUT_H
#define COURIER_HUB_SERIALISATION_FAN_OUT_H

#include <courier/hub/serialisation/Catalogue.h>
#include <courier/hub/serialisation/Export.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace courier::hub::serialisation {

/// Turns one payload into one serialiser for each of its elements, in element order. The payload is
/// moved to the heap once and shared by the serialisers. Nothing is copied, and nothing is written
/// until a serialiser is called.
///
/// Ownership: the payload lives until the last serialiser that kept its view is destroyed; then the
/// Sentinel is released. A released Sentinel says that the payload's memory is free, not that the
/// serialisers have run. If no serialiser kept its view, the Sentinel is released before the call
/// returns.
///
/// Runs on the calling thread, one look-up after the other; linear in the number of elements. The
/// serialisers may be called and destroyed on any threads. Several threads may use one catalogue.
///
/// Throws what a look-up throws (a LookUpError, std::out_of_range if the payload has fewer type
/// identifiers than elements, whatever a factory throws) and std::bad_alloc. No partial result is
/// returned: the serialisers made so far and the payload are destroyed, and the caller's payload is
/// moved-from. Only if the shared payload itself cannot be allocated is the caller's payload
/// unchanged.
///
/// This overload writes every element in the same wire format.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT
    std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
    createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                         std::string const& wireFormat);

/// Writes element i in wire format i. Further wire formats are ignored. Fewer than elements throw
/// std::out_of_range "Fewer wire formats than payload elements"; the caller's payload is then
/// unchanged.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT
    std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
    createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                         std::vector<std::string> const& wireFormats);

/// The same for wire formats in braces: `createSerialisersFor(std::move(payload), catalogue,
/// {"json", "bin"})`.
[[nodiscard]] inline std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                     std::initializer_list<std::string> wireFormats) {
    return createSerialisersFor(std::move(payload), catalogue,
                                std::vector<std::string>(wireFormats));
}

/// The same with a stop source: every factory gets a source of its stop state, so that one request
/// stops all the writes.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT
    std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
    createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                         std::string const& wireFormat, stop_source stopSource);
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT
    std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
    createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                         std::vector<std::string> const& wireFormats, stop_source stopSource);
[[nodiscard]] inline std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                     std::initializer_list<std::string> wireFormats, stop_source stopSource) {
    return createSerialisersFor(std::move(payload), catalogue,
                                std::vector<std::string>(wireFormats), std::move(stopSource));
}

} // namespace courier::hub::serialisation

#endif
