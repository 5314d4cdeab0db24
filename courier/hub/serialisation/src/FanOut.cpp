// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/FanOut.h>

#include <algorithm>
#include <stdexcept>

namespace courier::hub::serialisation {

namespace {

using FanOut = std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>>;

// Converts to the result of a look-up, so that emplace_back() constructs that in the vector. Moving
// it there would lock its guard.
template <class LookUp> struct Made {
    LookUp lookUp;
    operator GenericSerialiser() const { return lookUp(); }
};
template <class LookUp> Made(LookUp) -> Made<LookUp>; // clang 14 needs it spelt out

template <class LookUp> FanOut fanOut(core::GenericPayload&& payload, LookUp lookUp) {
    auto const shared = GenericPayloadWrapperPtr::make(std::move(payload));
    std::size_t const count = shared->get().elementCount;
    std::vector<GenericSerialiser> serialisers;
    // The count may be too large: then the look-up must fail, not this allocation.
    serialisers.reserve(std::min(count, shared->get().typeIDs.size()));
    for (std::size_t i = 0; i < count; ++i) {
        serialisers.emplace_back(Made{[&] { return lookUp(i, GenericPayloadView(shared, i)); }});
    }
    return {std::move(serialisers), shared->getSentinel()};
}

void requireFormats(core::GenericPayload const& payload,
                    std::vector<std::string> const& wireFormats) {
    if (wireFormats.size() < payload.elementCount) {
        throw std::out_of_range("Fewer wire formats than payload elements");
    }
}

} // namespace

FanOut createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                            std::string const& wireFormat) {
    return fanOut(std::move(payload), [&](std::size_t, GenericPayloadView&& view) {
        return catalogue.getSerialiserFor(wireFormat, std::move(view));
    });
}

FanOut createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                            std::string const& wireFormat, stop_source stopSource) {
    return fanOut(std::move(payload), [&](std::size_t, GenericPayloadView&& view) {
        return catalogue.getSerialiserFor(wireFormat, std::move(view), stopSource);
    });
}

FanOut createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                            std::vector<std::string> const& wireFormats) {
    requireFormats(payload, wireFormats);
    return fanOut(std::move(payload), [&](std::size_t i, GenericPayloadView&& view) {
        return catalogue.getSerialiserFor(wireFormats[i], std::move(view));
    });
}

FanOut createSerialisersFor(core::GenericPayload&& payload, SerialisationCatalogue const& catalogue,
                            std::vector<std::string> const& wireFormats, stop_source stopSource) {
    requireFormats(payload, wireFormats);
    return fanOut(std::move(payload), [&](std::size_t i, GenericPayloadView&& view) {
        return catalogue.getSerialiserFor(wireFormats[i], std::move(view), stopSource);
    });
}

} // namespace courier::hub::serialisation
