// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/FanOut.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>

namespace courier::hub::serialisation {

// A new shared payload, and a reference for each element that it has. All are counted at once,
// before another thread can see the count: no lock. Those that no view took are dropped at the end.
class FanOutReferences {
public:
    explicit FanOutReferences(core::GenericPayload&& payload)
        : shared_(GenericPayloadWrapperPtr::make(std::move(payload))) {
        constexpr std::size_t most = std::numeric_limits<std::uint32_t>::max() / 2;
        core::GenericPayload const& elements = shared_->get();
        left_ = static_cast<std::uint32_t>(
            std::min({elements.elementCount, elements.typeIDs.size(), most}));
        shared_->count_ += left_;
    }
    FanOutReferences(FanOutReferences const&) = delete;
    FanOutReferences& operator=(FanOutReferences const&) = delete;
    ~FanOutReferences() {
        if (left_ != 0) { // an exception, or elements without identifiers
            shared_->release(left_);
        }
    }

    [[nodiscard]] GenericPayloadWrapper& operator*() const noexcept { return *shared_; }

    [[nodiscard]] GenericPayloadView view(std::size_t element) {
        if (left_ == 0) {
            return {shared_, element};
        }
        --left_;
        return {GenericPayloadWrapperPtr(shared_.get(), false), element};
    }

private:
    GenericPayloadWrapperPtr shared_;
    std::uint32_t left_;
};

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
    FanOutReferences shared(std::move(payload));
    core::GenericPayload const& elements = (*shared).get();
    std::size_t const count = elements.elementCount;
    std::vector<GenericSerialiser> serialisers;
    // The count may be too large: then the look-up must fail, not this allocation.
    serialisers.reserve(std::min(count, elements.typeIDs.size()));
    for (std::size_t i = 0; i < count; ++i) {
        try {
            serialisers.emplace_back(Made{[&] { return lookUp(i, shared.view(i)); }});
        } catch (LookUpError& error) {
            error.setElement(i);
            throw;
        }
    }
    return {std::move(serialisers), (*shared).getSentinel()};
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
