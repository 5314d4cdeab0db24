// SPDX-License-Identifier: Apache-2.0
// Turning one payload into a writer for each of its elements.
#include "Support.h"

#include <courier/hub/serialisation/FanOut.h>

#include <algorithm>
#include <cstdint>
#include <ostream>

namespace benchmarks {
namespace {

using courier::hub::core::GenericPayload;
using courier::hub::core::getTypeID;
using namespace courier::hub::serialisation;

} // namespace

struct FanOutElement {
    std::uint64_t id = 1;
    std::string label = "a label that is too long for the string";
    std::vector<double> values = std::vector<double>(16);
};

namespace {

using Routine = std::function<void(std::ostream&)>;

void write(FanOutElement const& element, std::ostream& out) { out << element.id << element.label; }

// All elements are one object, so that neither making nor freeing a million of them covers the
// cost of the writers.
GenericPayload payloadOf(std::size_t n, std::shared_ptr<FanOutElement> const& element) {
    GenericPayload payload;
    for (std::size_t i = 0; i < n; ++i) {
        payload.add(element);
    }
    return payload;
}

auto createOurs(GenericPayload&& payload) {
    static std::string const format = "plain";
    static auto const catalogue = [] {
        auto made = std::make_unique<Catalogue>();
        made->add(Serialiser(
            format, getTypeID<FanOutElement>(), {getTypeID<FanOutElement>()},
            [](GenericPayloadView&& view) {
                return GenericSerialiser([view = std::move(view)](stop_token, std::ostream& out) {
                    write(view.get<FanOutElement>(), out);
                });
            },
            nullptr, nullptr));
        return made;
    }();
    return createSerialisersFor(std::move(payload), *catalogue, format);
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

// The payloads must be there before the clock runs. Stopping the clock for each of the small ones
// would cost more than what is measured: a batch of them is made at once, and timed as a whole.
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

Family const fanOut([] {
    for (std::size_t const n : {1U, 100U, 10000U, 1000000U}) {
        addFanOut(n, "courier", createOurs);
        addFanOut(n, "shared_ptr", createSharing);
        addFanOut(n, "deep_copy", createCopying);
    }
});

} // namespace
} // namespace benchmarks
