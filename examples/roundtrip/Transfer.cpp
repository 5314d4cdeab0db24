// SPDX-License-Identifier: Apache-2.0
#include "examples/roundtrip/Transfer.h"

#include "examples/program/Coding.h"

#include <courier/hub/serialisation/FanOut.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <utility>

namespace courier::examples {

using namespace hub::serialisation;
using hub::core::GenericPayload;
using Clock = std::chrono::steady_clock;

namespace {

// Throws what writing or reading throws; what was done until then is in the outcome.
void roundTrip(Element const& element, GenericSerialiser&& serialise,
               GenericDeserialiser const& deserialise, stop_token const& stop, Outcome& outcome) {
    auto start = Clock::now();
    ByteBuffer block = encode(std::move(serialise));
    outcome.writing = Clock::now() - start;
    outcome.bytesOut = block.size();
    outcome.isWritten = true;
    if (stop.stop_requested()) {
        return;
    }
    start = Clock::now();
    ByteBufferIStreambuf source(std::make_unique<ByteBuffer>(std::move(block)));
    GenericPayload const received = decode(deserialise, source);
    outcome.reading = Clock::now() - start;
    outcome.isRead = true;
    outcome.isIdentical = element.isAllOf(received);
}

} // namespace

Transfer transfer(std::vector<Element> const& elements, std::vector<std::string> const& wireFormats,
                  SerialisationCatalogue const& catalogue, stop_source const& stop,
                  std::size_t threads) {
    // Looked up once and kept: the workers then share no lock.
    std::vector<GenericDeserialiser> deserialisers;
    GenericPayload payload;
    for (std::size_t i = 0; i < elements.size(); ++i) {
        deserialisers.push_back(
            catalogue.getDeserialiserFor(wireFormats.at(i), elements[i].type().id));
        elements[i].addTo(payload);
    }

    Transfer result;
    result.outcomes.resize(elements.size());
    auto const start = Clock::now();
    auto [serialisers, sentinel] =
        createSerialisersFor(std::move(payload), catalogue, wireFormats, stop);

    std::atomic<std::size_t> next{0};
    auto const work = [&, &made = serialisers] {
        for (std::size_t i = next++; i < elements.size(); i = next++) {
            try {
                roundTrip(elements[i], std::move(made[i]), deserialisers[i], stop.get_token(),
                          result.outcomes[i]);
            } catch (std::exception const& error) {
                if (!wasStopped(error)) {
                    result.outcomes[i].error = error.what();
                }
            }
        }
    };
    std::vector<std::future<void>> workers;
    for (std::size_t i = 0; i < std::min(threads, elements.size()); ++i) {
        workers.push_back(std::async(std::launch::async, work));
    }

    sentinel->wait();
    result.untilReleased = Clock::now() - start;
    for (auto& worker : workers) {
        worker.get();
    }
    return result;
}

} // namespace courier::examples
