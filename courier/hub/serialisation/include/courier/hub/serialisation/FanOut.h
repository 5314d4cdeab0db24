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

/// Makes one serialiser for each element of a payload, in element order. The payload is moved to
/// the heap once, and the serialisers share it. Nothing is copied, and nothing is written until a
/// serialiser is called. To write a payload as a whole, use the catalogue.
///
/// Ownership: the payload lives until the last serialiser that kept its view is destroyed. The
/// Sentinel is then released: it tells that the payload has been destroyed, not that the
/// serialisers have run. If no serialiser keeps its view, the Sentinel is released before the call
/// returns.
///
/// Throws what a look-up throws (LookUpError with its element(), std::out_of_range if the payload
/// has fewer type identifiers than elements, whatever a factory throws) and std::bad_alloc. There
/// is no partial result: the payload and the serialisers made so far are destroyed, and the
/// caller's payload is moved-from. Only if the shared payload itself cannot be allocated is the
/// caller's payload unchanged.
///
/// Thread-safe if the catalogue is. The serialisers may be called and destroyed on any threads. One
/// look-up for each element, on the calling thread.
///
/// This overload writes every element in the same wire format.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT
    std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>
    createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                         std::string const& wireFormat);

/// Writes element i in wire format i. Further wire formats are ignored. If there are fewer than
/// elements, throws std::out_of_range "Fewer wire formats than payload elements"; the caller's
/// payload is then unchanged.
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

/// The same with a stop source. Each factory gets a copy, so that one request stops all writes.
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
