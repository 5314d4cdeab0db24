// SPDX-License-Identifier: Apache-2.0
// Turning one payload into a writer for each of its elements.
#include "Support.h"

#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/Registration.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <vector>

namespace benchmarks {

struct FanOutElement {
    std::uint64_t id = 1;
    std::string label = "a label that is too long for the string";
    std::vector<double> values = std::vector<double>(16);
};

namespace {

using courier::hub::core::GenericPayload;
using namespace courier::hub::serialisation;

void write(FanOutElement const& element, std::ostream& out) { out << element.id << element.label; }

auto createOurs(GenericPayload&& payload) {
    static Catalogue catalogue;
    static bool const filled = (addWriter<FanOutElement>(catalogue, "plain", write), true);
    require(filled, "there is a writer");
    return createSerialisersFor(std::move(payload), catalogue, "plain");
}

// `make` returns the writer of an element.
auto createWriters(std::size_t n, auto make) {
    std::vector<std::function<void(std::ostream&)>> writers;
    writers.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        writers.emplace_back(make(i));
    }
    return writers;
}

auto createClosures(GenericPayload&& payload) {
    auto const shared = std::make_shared<GenericPayload>(std::move(payload));
    return createWriters(shared->elementCount, [&](std::size_t i) {
        return [shared, i](std::ostream& out) { write(shared->get<FanOutElement>(i), out); };
    });
}

auto createCopies(GenericPayload&& payload) {
    GenericPayload const taken = std::move(payload);
    return createWriters(taken.elementCount, [&](std::size_t i) {
        return [element = taken.get<FanOutElement>(i)](std::ostream& out) { write(element, out); };
    });
}

// All elements are one object, so that no figure has the cost of a million of them.
GenericPayload payloadOf(std::size_t n, std::shared_ptr<FanOutElement> const& element) {
    GenericPayload payload;
    for (std::size_t i = 0; i < n; ++i) {
        payload.add(element);
    }
    return payload;
}

// A batch of payloads, so that the time is long enough to measure, made before the clock starts.
template <auto create> struct FanOut {
    std::size_t elements;
    std::vector<GenericPayload> payloads = {};

    static std::size_t batch(std::size_t n) { return std::max<std::size_t>(1, 4096 / n); }

    void prepare() {
        auto const element = std::make_shared<FanOutElement>();
        payloads.resize(batch(elements));
        std::ranges::generate(payloads, [&] { return payloadOf(elements, element); });
    }
    void operator()() {
        for (GenericPayload& payload : payloads) {
            auto const created = create(std::move(payload));
            escape(&created);
        }
    }
};

template <auto create> void addCreation(char const* who) {
    for (std::size_t const n : {1U, 100U, 10000U}) {
        auto const writers = static_cast<double>(n * FanOut<create>::batch(n));
        Row("fan out " + std::to_string(n) + (n == 1 ? " element" : " elements, for each"), writers)
            .add(who, [n] { return FanOut<create>{n}; });
    }
    constexpr std::size_t many = 10000;
    Row("memory of a serialiser in a fan-out", many, Kind::memory).addMade(who, [] {
        return create(payloadOf(many, std::make_shared<FanOutElement>()));
    });
}

} // namespace

void addFanOut() {
    addCreation<createOurs>("courier");
    addCreation<createClosures>("closures");
    addCreation<createCopies>("deep copies");
}

} // namespace benchmarks
