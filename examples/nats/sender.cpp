// SPDX-License-Identifier: Apache-2.0
// Sends files as the elements of one payload, one message for each, to the workers of a stream, and
// prints the results.

#include "examples/nats/Messages.h"
#include "examples/nats/Options.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"
#include "examples/program/Sending.h"
#include "examples/program/Text.h"

#include <courier/hub/serialisation/FanOut.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;
using namespace std::chrono_literals;
using nats::Clock;

struct Options : Sending {
    Place place;
    std::size_t copies = 1;
    std::optional<int> giveUpAfter; // seconds
    bool isVerbose = false;
};

std::string newRun() {
    std::random_device random;
    std::uint64_t const number = (std::uint64_t{random()} << 32) | random();
    return hexadecimal(number).substr(2);
}

// The sending of one payload.
class Run {
public:
    Run(Options const& options, std::vector<Element> elements, std::vector<std::string> formats,
        SerialisationCatalogue const& catalogue, stop_source stop)
        : options_(options), place_(options.place), elements_(std::move(elements)),
          formats_(std::move(formats)), stop_(std::move(stop)), states_(elements_.size()),
          session_(place_.access), reports_(join(place_.reportsOf(run_))),
          givenUp_(join(place_.givenUpDuring(run_))) {
        courier::hub::core::GenericPayload payload;
        for (auto& element : elements_) {
            element.addTo(payload);
            std::visit([](auto& held) { held.reset(); },
                       element.value); // only the payload holds it now
        }
        std::tie(serialisers_, sentinel_) =
            createSerialisersFor(std::move(payload), catalogue, formats_, stop_);
    }

    /// Sends, waits until a worker has reported on everything that was sent, and prints it all.
    /// Returns the exit status.
    int run() {
        start_ = looked_ = Clock::now();
        std::vector<std::future<void>> senders;
        for (std::size_t i = 0; i < std::min(options_.threads, elements_.size()); ++i) {
            senders.push_back(std::async(std::launch::async, [this] { send(); }));
        }
        try {
            while (isSending(senders) || stored_ < published_ || reported_ < stored_) {
                receive();
                makeRoom();
                session_.settle(0s); // throws the error of a message
            }
        } catch (std::exception const& error) {
            session_.giveUp(error.what()); // wakes threads that wait for room
            throw;
        }
        wallTime_ = Clock::now() - start_;
        for (auto& sender : senders) {
            sender.get();
        }
        int const status = conclude();
        session_.purge(place_.elements().name, place_.inElements(run_, ">"));
        session_.purge(place_.results().name, place_.inResults(run_, ">"));
        for (auto const& queue : {place_.reportsOf(run_), place_.givenUpDuring(run_)}) {
            session_.removeQueue(queue.stream, queue.name);
        }
        return status;
    }

private:
    // The result of an element.
    struct State {
        std::optional<Result> result;
        std::string worker;                  // the worker of this result
        std::uint64_t givenUpAfter = 0;      // deliveries
        std::vector<std::uint64_t> messages; // in the stream; guarded by mutex_
    };

    nats::Subscriber join(nats::Queue const& queue) {
        if (!isPrepared_) {
            prepare(session_, place_);
            isPrepared_ = true;
        }
        session_.make(queue);
        return session_.join(queue);
    }

    static bool isSending(std::vector<std::future<void>> const& senders) {
        return std::any_of(senders.begin(), senders.end(), [](auto const& sender) {
            return sender.wait_for(0s) != std::future_status::ready;
        });
    }

    // Writes and publishes one element after the other, together with other threads.
    void send() {
        for (std::size_t i = next_++; i < elements_.size(); i = next_++) {
            try {
                ByteBuffer const bytes = encode(std::move(serialisers_[i]));
                printWhenReleased();
                publish(i, ByteBufferView(bytes));
            } catch (nats::Error const&) {
                next_ = elements_.size(); // nothing more can be sent
                throw;
            } catch (std::exception const& error) {
                printWhenReleased();
                if (!wasStopped(error)) {
                    ++failed_;
                    print(elements_[i].name + ": cannot be sent: " + error.what());
                }
            }
        }
    }

    // Called once, by the thread that has written the last element.
    void printWhenReleased() {
        if (sentinel_->isReleased() && !isReleased_.exchange(true)) {
            print("the payload's memory was released after " +
                  fixed(Seconds(Clock::now() - start_).count(), 2) + " s, when " +
                  std::to_string(stored_) + " of " + counted(elements_.size(), "element") +
                  " had been sent");
        }
    }

    // Not sent if a stop was requested between two of its parts.
    void publish(std::size_t i, ByteBufferView bytes) {
        Envelope envelope{.run = run_,
                          .element = i,
                          .wireFormat = formats_[i],
                          .typeID = elements_[i].type().id,
                          .size = bytes.size(),
                          .crc32 = crc32(0, bytes)};
        std::size_t const longest = room(session_.maxPayload(), envelope);
        if (bytes.size() > longest) {
            envelope.parts = (bytes.size() + longest - 1) / longest;
        }
        for (std::size_t part = 1; part <= envelope.parts; ++part) {
            if (stop_.stop_requested()) {
                return;
            }
            envelope.part = part;
            auto const piece = bytes.first(std::min(longest, bytes.size()));
            session_.publish(envelope.toMessage(place_, piece),
                             [this, i](auto number) { keep(i, number); });
            bytes.trimFront(piece.size());
        }
        if (envelope.parts != 0) {
            // The notice promises that all parts are stored.
            session_.settle(24h, place_.inElements(run_, "part." + std::to_string(i) + '.'));
        }
        envelope.part = 0;
        auto message = envelope.toMessage(place_, bytes); // no bytes are left after parts
        ++published_;
        session_.publish(std::move(message), [this, envelope](auto number) {
            keep(envelope.element, number);
            if (options_.isVerbose) {
                std::ostringstream line;
                line << "sent " << run_ << ' ' << envelope.element << ' ' << envelope.wireFormat
                     << ' ' << envelope.size << ' ' << envelope.crc32 << ' ' << envelope.parts;
                std::lock_guard const lock(mutex_);
                std::cout << line.str() << std::endl;
            }
            bytes_ += envelope.size;
            ++stored_;
        });
    }

    void keep(std::size_t i, std::uint64_t number) {
        std::lock_guard const lock(mutex_);
        states_[i].messages.push_back(number);
    }

    void receive() {
        auto const messages = reports_.take(std::exchange(ahead_, 1), 100ms);
        for (auto const& message : messages) {
            Report report = Report::of(message.get());
            for (Result& result : report.results) {
                State& state = states_.at(result.element);
                if (!isReported(state)) {
                    state.result = std::move(result);
                    state.worker = report.worker;
                    ++reported_;
                }
            }
            session_.answer(nats::replySubject(message.get()), "+ACK");
            ahead_ = 256;
        }
        auto const now = Clock::now();
        if (now - looked_ > 1s) {
            looked_ = now;
            for (auto const& message : givenUp_.take(64, 10ms)) {
                receiveNotice(message.get());
            }
            print(std::to_string(stored_) + " of " + counted(elements_.size(), "element") +
                  " sent, " + grouped(bytes_ / 1'000'000) + " MB; " + std::to_string(reported_) +
                  " reported");
        }
    }

    // The servers' notice that a message, perhaps of another run, was delivered too often.
    void receiveNotice(natsMsg* message) {
        auto const notice = nlohmann::json::parse(contentOf(message));
        auto const found =
            session_.find(place_.elements().name, notice.at("stream_seq").get<std::uint64_t>());
        if (found) {
            Envelope const envelope = Envelope::of(found.get());
            if (envelope.run == run_ && !isReported(states_.at(envelope.element))) {
                notice.at("deliveries").get_to(states_[envelope.element].givenUpAfter);
                ++reported_;
            }
        }
        session_.answer(nats::replySubject(message), "+ACK");
    }

    static bool isReported(State const& state) {
        return state.result.has_value() || state.givenUpAfter != 0;
    }

    // While the servers are full, removes the elements that workers have reported on.
    void makeRoom() {
        auto const full = session_.fullSince();
        if (!full) {
            return;
        }
        auto const now = Clock::now();
        if (now - complained_ > 10s) {
            complained_ = now;
            print("the servers have no room: waiting");
        }
        if (options_.giveUpAfter && now - *full > std::chrono::seconds(*options_.giveUpAfter)) {
            std::string const why =
                "gave up: the servers have had no room for " +
                counted(static_cast<std::size_t>(*options_.giveUpAfter), "second");
            session_.giveUp(why);
            session_.flush();
            session_.purge(place_.elements().name, place_.inElements(run_, ">"));
            throw std::runtime_error(why);
        }
        std::size_t removed = 0;
        for (std::size_t i = 0; i < states_.size() && removed < 100; ++i) {
            if (isReported(states_[i])) {
                std::unique_lock lock(mutex_);
                auto const messages = std::exchange(states_[i].messages, {});
                lock.unlock();
                for (std::uint64_t const number : messages) {
                    session_.remove(place_.elements().name, number);
                    ++removed;
                }
            }
        }
    }

    // The workers that an element was delivered to.
    [[nodiscard]] std::string triedBy(std::size_t element) {
        std::string names;
        for (Taken const& taken : taken_) {
            if (std::count(taken.elements.begin(), taken.elements.end(), element) != 0) {
                names += (names.empty() ? "" : ", ") + taken.worker;
            }
        }
        return names.empty() ? "unknown workers" : names;
    }

    void readTaken() {
        nats::Queue const queue = place_.takenOf(run_);
        auto records = join(queue);
        for (auto messages = records.take(256, 1s); !messages.empty();
             messages = records.take(256, 1s)) {
            for (auto const& message : messages) {
                taken_.push_back(Taken::of(message.get()));
            }
        }
        session_.removeQueue(queue.stream, queue.name);
    }

    // The table of the workers, and the exit status.
    [[nodiscard]] int conclude() {
        struct Share {
            std::size_t elements = 0;
            std::size_t bytes = 0;
            Seconds time{};
        };
        std::map<std::string, Share> shares;
        Share all;
        std::size_t lost = 0;
        std::size_t repeated = 0;
        for (std::size_t i = 0; i < states_.size(); ++i) {
            auto const& [result, worker, givenUpAfter, messages] = states_[i];
            if (result && result->error.empty()) {
                for (Share* share : {&shares[worker], &all}) {
                    ++share->elements;
                    share->bytes += result->size;
                    share->time += result->time;
                }
                repeated += result->delivery > 1 ? 1 : 0;
            } else if (result) {
                ++lost;
                std::cerr << "sender: " << elements_[i].name << ": cannot be read by " << worker
                          << ": " << result->error << '\n';
            } else if (givenUpAfter != 0) {
                if (lost++ == 0 || taken_.empty()) {
                    readTaken();
                }
                std::cerr << "sender: " << elements_[i].name << ": given up after " << givenUpAfter
                          << " deliveries, to " << triedBy(i) << '\n';
            }
        }
        std::vector<Row> rows{{"worker", "elements", "bytes", "seconds", "MB/s"}};
        auto const add = [&](std::string const& name, Share const& share, Seconds time) {
            rows.push_back({name, grouped(share.elements), grouped(share.bytes),
                            fixed(time.count(), 2), speed(share.bytes, time)});
        };
        for (auto const& [name, share] : shares) {
            add(name, share, share.time);
        }
        add("all, from start to end", all, wallTime_);
        std::cout << '\n';
        printTable(std::cout, rows, "<>>>>");
        std::cout << '\n'
                  << all.elements << " of " << counted(elements_.size(), "element") << " decoded, "
                  << repeated << " of them delivered more than once, "
                  << grouped(static_cast<std::size_t>(static_cast<double>(all.elements) /
                                                      wallTime_.count()))
                  << " a second\n";
        if (all.elements == elements_.size()) {
            return 0;
        }
        if (stop_.stop_requested() && lost == 0 && failed_ == 0) {
            std::cerr << "sender: stopped when " << stored_ << " of "
                      << counted(elements_.size(), "element")
                      << " had been sent; all of these were decoded\n";
            return 130;
        }
        return 1;
    }

    void print(std::string const& text) {
        std::lock_guard const lock(mutex_);
        std::cerr << text + '\n';
    }

    Options const& options_;
    Place const& place_;
    std::string const run_ = newRun();
    std::vector<Element> elements_;
    std::vector<std::string> const formats_;
    stop_source stop_;
    Clock::time_point start_;

    std::mutex mutex_; // guards the output, line by line, and the members that say so
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> published_{0};
    std::atomic<std::size_t> stored_{0};
    std::atomic<std::size_t> failed_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<bool> isReleased_{false};

    // Used by the main thread only.
    bool isPrepared_ = false;
    std::vector<State> states_;
    int ahead_ = 1;
    std::size_t reported_ = 0;
    Clock::time_point looked_;
    Clock::time_point complained_{};
    Seconds wallTime_{};
    std::vector<Taken> taken_;

    nats::Session session_; // its callbacks use what is above
    nats::Subscriber reports_;
    nats::Subscriber givenUp_;
    std::vector<GenericSerialiser> serialisers_;
    std::shared_ptr<Sentinel> sentinel_;
};

// The files, `copies` times, and the wire format of each. Nothing else owns them.
std::pair<std::vector<Element>, std::vector<std::string>>
load(Options const& options, SerialisationCatalogue const& catalogue) {
    auto const files = loadAll(options.files, catalogue);
    auto const formats = resolveFormats(options.formats, files, catalogue);
    std::pair<std::vector<Element>, std::vector<std::string>> all;
    for (std::size_t i = 0; i < options.copies; ++i) {
        all.first.insert(all.first.end(), files.begin(), files.end());
        all.second.insert(all.second.end(), formats.begin(), formats.end());
    }
    return all;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Sends files as the elements of one payload to the workers of a stream. A .json "
                 "file is sent as a Document, any other as a Blob. Without files, takes some of "
                 "this project.",
                 "sender");
    addOptions(app, options.place);
    options.addTo(app, "write and send");
    app.add_option("--copies", options.copies, "How often to send the files")
        ->check(CLI::Range(1, 1'000'000))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--give-up-after", options.giveUpAfter,
                   "Seconds to wait for servers that have no room; without it, for ever")
        ->check(CLI::NonNegativeNumber)
        ->type_name("SECONDS");
    app.add_flag("-v,--verbose", options.isVerbose,
                 "Print a line for each element: run, number, wire format, bytes, CRC-32, parts");
    return run(
        app, argc, argv, "sender", defaultReadLimit, [&](auto const& catalogue, stop_source stop) {
            auto [elements, formats] = load(options, catalogue);
            return Run(options, std::move(elements), std::move(formats), catalogue, stop).run();
        });
}
