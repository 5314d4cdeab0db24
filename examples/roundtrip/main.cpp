// SPDX-License-Identifier: Apache-2.0
// Sends files as one payload, receives them again and compares: an example of a program whose
// serialisers come from modules.

#include "examples/program/Coding.h"
#include "examples/program/Element.h"
#include "examples/program/Run.h"
#include "examples/program/Sending.h"
#include "examples/program/Text.h"

#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/Streams.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;
using Clock = std::chrono::steady_clock;

struct Options : Sending {
    std::uint64_t readLimit = defaultReadLimit;
    bool list = false;
};

// The result of one element.
struct Outcome {
    bool isWritten = false;
    bool isRead = false;
    bool isIdentical = false;
    std::size_t bytesOut = 0;
    Seconds writing{};
    Seconds reading{};
    std::string error; // empty if nothing failed
};

// Throws what writing or reading throws; the outcome then has what was done before.
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

// Sends the elements as one payload, element i in wire format i, on a number of threads. Each
// thread reads an element back as soon as it has written it, so that only as many encoded and
// decoded elements are in memory at once as there are threads. Prints when the payload was
// released.
std::vector<Outcome> transfer(std::vector<Element> const& elements,
                              std::vector<std::string> const& wireFormats,
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

    std::vector<Outcome> outcomes(elements.size());
    auto const start = Clock::now();
    auto [serialisers, sentinel] =
        createSerialisersFor(std::move(payload), catalogue, wireFormats, stop);

    std::atomic<std::size_t> next{0};
    auto const work = [&, &made = serialisers] {
        for (std::size_t i = next++; i < elements.size(); i = next++) {
            try {
                roundTrip(elements[i], std::move(made[i]), deserialisers[i], stop.get_token(),
                          outcomes[i]);
            } catch (std::exception const& error) {
                if (!wasStopped(error)) {
                    outcomes[i].error = error.what();
                }
            }
        }
    };
    std::vector<std::future<void>> workers;
    for (std::size_t i = 0; i < std::min(threads, elements.size()); ++i) {
        workers.push_back(std::async(std::launch::async, work));
    }

    sentinel->wait();
    Seconds const untilReleased = Clock::now() - start;
    for (auto& worker : workers) {
        worker.get();
    }
    std::cout << "The payload was released after " << fixed(untilReleased.count(), 3) << " s.\n\n";
    return outcomes;
}

void printTypes(SerialisationCatalogue const& catalogue) {
    std::vector<Row> rows{{"type", "identifier", "written in", "read from"}};
    for (NamedType const& type : elementTypes) {
        rows.push_back({std::string(type.name), hexadecimal(type.id),
                        join(catalogue.getSupportedWireFormats(type.id), " "),
                        join(catalogue.getSupportedDeserialisationWireFormats(type.id), " ")});
    }
    printTable(std::cout, rows, "<<<<");
}

std::string resultOf(Outcome const& outcome) {
    if (!outcome.error.empty()) {
        return "FAILED";
    }
    if (!outcome.isRead) {
        return outcome.isWritten ? "written, not read back" : "not written";
    }
    return outcome.isIdentical ? "identical" : "DIFFERENT";
}

// Prints the outcomes and returns the exit status.
int conclude(std::vector<Element> const& elements, std::vector<std::string> const& wireFormats,
             std::vector<Outcome> const& outcomes, bool isStopped) {
    std::vector<Row> rows{{"element", "type", "wire format", "bytes in", "bytes out", "write MB/s",
                           "read MB/s", "result"}};
    std::size_t written = 0;
    std::size_t identical = 0;
    for (std::size_t i = 0; i < elements.size(); ++i) {
        Element const& element = elements[i];
        Outcome const& outcome = outcomes[i];
        written += outcome.isWritten ? 1 : 0;
        identical += outcome.isIdentical ? 1 : 0;
        rows.push_back({element.name, std::string(element.type().name), wireFormats[i],
                        grouped(element.size), outcome.isWritten ? grouped(outcome.bytesOut) : "-",
                        outcome.isWritten ? speed(element.size, outcome.writing) : "-",
                        outcome.isRead ? speed(element.size, outcome.reading) : "-",
                        resultOf(outcome)});
    }
    printTable(std::cout, rows, "<<<>>>><");
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (!outcomes[i].error.empty()) {
            std::cerr << "roundtrip: " << elements[i].name << ": cannot be "
                      << (outcomes[i].isWritten ? "read back: " : "written: ") << outcomes[i].error
                      << '\n';
        }
    }
    std::string const all = " of " + counted(elements.size(), "element");
    std::cout << '\n' << identical << all << " came back identical.\n";
    if (identical == elements.size()) {
        return 0;
    }
    if (isStopped) {
        std::cerr << "roundtrip: cancelled when " << written << all << " had been written\n";
        return 130;
    }
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app(
        "Sends files as one payload, receives them again and compares. A .json file is sent "
        "as a Document, any other as a Blob. Without files, takes some of this project.",
        "roundtrip");
    options.addTo(app, "write and read");
    addReadLimit(app, options.readLimit);
    app.add_flag("--list", options.list, "Print the types, and the wire formats of each");
    return run(app, argc, argv, "roundtrip", options.readLimit,
               [&](SerialisationCatalogue const& catalogue, stop_source const& stop) {
                   if (options.list) {
                       printTypes(catalogue);
                       return 0;
                   }
                   auto const elements = loadAll(options.files, catalogue);
                   auto const formats = resolveFormats(options.formats, elements, catalogue);
                   auto const outcomes =
                       transfer(elements, formats, catalogue, stop, options.threads);
                   return conclude(elements, formats, outcomes, stop.stop_requested());
               });
}
