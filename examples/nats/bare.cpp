// SPDX-License-Identifier: Apache-2.0
// The baseline for the sender and its workers: moves messages of one size through a stream of the
// same kind with the client library alone, which publishes without waiting, fetches in batches and
// acknowledges. Prints messages a second.

#include "examples/nats/Options.h"

#include <atomic>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace courier::examples;

int main(int argc, char** argv) {
    Place place;
    place.stream = "bare";
    std::size_t count = 5000;
    std::size_t size = 1000;
    CLI::App app("Measures what the client library can do.", "bare");
    addOptions(app, place);
    app.add_option("--count", count, "Messages")->capture_default_str();
    app.add_option("--size", size, "Bytes of each")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        nats::Session session(place.access);
        prepare(session, place);
        std::string const run = std::to_string(std::random_device()());
        auto const start = nats::Clock::now();
        std::atomic<std::size_t> done = 0;
        auto const take = [&] {
            auto queue = session.join(place.workers());
            while (done < count) {
                for (auto const& message : queue.take(256, std::chrono::milliseconds(20))) {
                    session.answer(nats::replySubject(message.get()), "+ACK");
                    ++done;
                }
            }
        };
        std::vector<std::jthread> takers;
        takers.reserve(2);
        for (int i = 0; i < 2; ++i) {
            takers.emplace_back(take);
        }
        std::vector<std::byte> const bytes(size);
        for (std::size_t i = 0; i < count; ++i) {
            session.publish(Envelope{.run = run, .element = i, .wireFormat = "raw"}.toMessage(
                                place, courier::hub::serialisation::ByteBufferView(bytes)),
                            [](auto) {});
        }
        takers.clear();
        std::chrono::duration<double> const time = nats::Clock::now() - start;
        std::cout << static_cast<std::size_t>(static_cast<double>(count) / time.count())
                  << " a second\n";
        session.purge(place.elements().name, place.inElements(run, ">"));
    } catch (std::exception const& error) {
        std::cerr << "bare: " << error.what() << '\n';
        return 1;
    }
}
