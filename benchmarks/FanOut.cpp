// SPDX-License-Identifier: Apache-2.0
// Turning one payload into a writer for each of its elements.
#include "Support.h"

#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/Registration.h>

#include <algorithm>
#include <cstdint>
#include <ostream>

namespace benchmarks {
namespace {

using courier::hub::core::GenericPayload;
using courier::hub::core::getTypeID;
using namespace courier::hub::serialisation;

struct FanOutElement {
    std::uint64_t id = 1;
    std::string label = "a label that is too long for the string";
    std::vector<double> values = std::vector<double>(16);
};

using Routine = std::function<void(std::ostream&)>;

void write(FanOutElement const& element, std::ostream& out) { out << element.id << element.label; }

// All elements are one object, so that the figure has no cost of making and freeing a million.
GenericPayload payloadOf(std::size_t n, std::shared_ptr<FanOutElement> const& element) {
    GenericPayload payload;
    for (std::size_t i = 0; i < n; ++i) {
        payload.add(element);
    }
    return payload;
}

std::string const format = "plain";

void addByLayer(Catalogue& catalogue) { addWriter<FanOutElement>(catalogue, format, write); }

// What addWriter() does, written out.
void addByHand(Catalogue& catalogue) {
    catalogue.add(Serialiser(
        format, getTypeID<FanOutElement>(), {getTypeID<FanOutElement>()},
        [](GenericPayloadView&& view) {
            return GenericSerialiser(
                [view = std::move(view)](stop_token const& token, std::ostream& out) {
                    throwIfStopped(token);
                    write(view.get<FanOutElement>(), out);
                });
        },
        nullptr, nullptr));
}

template <void (*addTo)(Catalogue&)> Catalogue const& catalogue() {
    static auto const filled = [] {
        auto made = std::make_unique<Catalogue>();
        addTo(*made);
        return made;
    }();
    return *filled;
}

auto createOurs(GenericPayload&& payload) {
    return createSerialisersFor(std::move(payload), catalogue<addByLayer>(), format);
}

auto createSharing(GenericPayload&& payload) {
    auto const shared = std::make_shared<GenericPayload>(std::move(payload));
    std::vector<Routine> routines;
    routines.reserve(shared->elementCount);
    for (std::size_t i = 0; i < shared->elementCount; ++i) {
        routines.emplace_back(
            [shared, i](std::ostream& out) { write(shared->get<FanOutElement>(i), out); });
    }
    return routines;
}

auto createCopying(GenericPayload&& payload) {
    GenericPayload const taken = std::move(payload);
    std::vector<Routine> routines;
    routines.reserve(taken.elementCount);
    for (std::size_t i = 0; i < taken.elementCount; ++i) {
        routines.emplace_back(
            [element = taken.get<FanOutElement>(i)](std::ostream& out) { write(element, out); });
    }
    return routines;
}

// The payloads are made before the clock starts. Pausing the clock for each small one would cost
// more than the operation, so a batch of them is made at once and timed as a whole.
template <class Create> void addFanOut(std::size_t n, char const* who, Create create) {
    auto const body = [=](benchmark::State& state) {
        std::size_t const batch = std::max<std::size_t>(1, 4096 / n);
        auto const element = std::make_shared<FanOutElement>();
        std::size_t allocated = 0;
        std::vector<GenericPayload> payloads(batch);
        auto const refill = [&] {
            std::generate(payloads.begin(), payloads.end(), [&] { return payloadOf(n, element); });
        };
        for (auto _ : state) {
            refill();
            std::size_t const before = allocations();
            double const start = processorSeconds();
            for (GenericPayload& payload : payloads) {
                auto const created = create(std::move(payload));
                escape(&created);
            }
            state.SetIterationTime(processorSeconds() - start);
            allocated += allocations() - before;
        }
        report(state, static_cast<double>(batch * n), allocated);

        GenericPayload payload = payloadOf(n, element);
        std::size_t const before = allocatedBytes();
        auto const created = create(std::move(payload));
        escape(&created);
        state.counters["bytes"] =
            static_cast<double>(allocatedBytes() - before) / static_cast<double>(n);
    };
    benchmark::RegisterBenchmark(name("fan_out", n, who).c_str(), body)->UseManualTime();
}

// Makes a payload, looks up, fans out and writes. It is long, so callgrind
// counts one run for every hundred that are requested.
template <void (*addTo)(Catalogue&)> void addLayer(char const* who) {
    constexpr std::size_t elements = 10000;
    auto const once = [](std::shared_ptr<FanOutElement> const& element) {
        struct Discard : std::streambuf {
            int_type overflow(int_type c) override { return traits_type::not_eof(c); }
            std::streamsize xsputn(char const*, std::streamsize n) override { return n; }
        } sink;
        std::ostream out(&sink);
        auto const created =
            createSerialisersFor(payloadOf(elements, element), catalogue<addTo>(), format);
        for (GenericSerialiser const& serialiser : created.first) {
            serialiser(out);
        }
    };
    auto const make = [=] {
        return [=, element = std::make_shared<FanOutElement>()] { once(element); };
    };
    std::string const fullName = name("layer", elements, who);
    add(fullName, make, elements);
    constexpr std::size_t share = 100;
    countedOperations().push_back({fullName, double{elements} / share, [=](std::size_t times) {
                                       auto const operation = make();
                                       for (std::size_t i = 0; i < times / share; ++i) {
                                           operation();
                                       }
                                   }});
}

Family const layer([] {
    addLayer<addByLayer>("courier");
    addLayer<addByHand>("hand");
});

Family const fanOut([] {
    for (std::size_t const n : {1U, 100U, 10000U, 1000000U}) {
        addFanOut(n, "courier", createOurs);
        addFanOut(n, "shared_ptr", createSharing);
        addFanOut(n, "deep_copy", createCopying);
    }
});

} // namespace
} // namespace benchmarks
