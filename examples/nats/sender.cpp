// SPDX-License-Identifier: Apache-2.0
// Sends files as the elements of one payload, one message for each, to the workers of a stream, and
// prints the results.

#include "examples/nats/Messages.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"
#include "examples/program/Sending.h"
#include "examples/program/Text.h"

#include <courier/hub/serialisation/FanOut.h>

#include <atomic>
#include <future>
#include <iostream>
#include <limits>
#include <map>
#include <optional>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;
using namespace std::chrono_literals;
using nats::Clock;

struct Options : Sending {
    nats::Options nats;
    std::size_t copies = 1;
    int giveUpAfter = std::numeric_limits<int>::max(); // seconds
    bool isVerbose = false;
};

struct Stopped {}; // thrown after Control-C

std::uint64_t nanoseconds(std::chrono::nanoseconds time) {
    return static_cast<std::uint64_t>(time.count());
}

// The sending of one payload.
class Run {
public:
    Run(Options const& options, SerialisationCatalogue const& catalogue, stop_source stop)
        : options_(options), stop_(std::move(stop)) {
        auto const files = loadAll(options.files, catalogue);
        auto const formats = resolveFormats(options.formats, files, catalogue);
        courier::hub::core::GenericPayload payload;
        for (std::size_t i = 0; i < options.copies * files.size(); ++i) {
            auto const& file = files[i % files.size()];
            file.addTo(payload);
            states_.push_back({file.name, file.type().id, formats[i % files.size()]});
            formats_.push_back(states_.back().format);
        }
        std::tie(serialisers_, sentinel_) =
            createSerialisersFor(std::move(payload), catalogue, formats_, stop_);
    }

    /// Sends, waits until workers have reported on everything that was sent, and prints it all.
    /// Returns the exit status.
    int run() {
        std::vector<std::future<void>> senders;
        try {
            session_.emplace(
                options_.nats, "sender", [this](auto const& why) { waitFor(why); },
                [this](auto const& subject) { countStored(subject); });
            session_->join({.stream = options_.nats.reports(),
                            .name = "reports-" + run_,
                            .subject = options_.nats.reports() + '.' + run_ + ".*",
                            .lifeTime = 24h});
            start_ = Clock::now();
            for (std::size_t i = 0; i < std::min(options_.threads, states_.size()); ++i) {
                senders.push_back(std::async(std::launch::async, [this] { send(); }));
            }
            auto const isSending = [](auto const& sender) {
                return sender.wait_for(0s) != std::future_status::ready;
            };
            while (std::any_of(senders.begin(), senders.end(), isSending) || stored_ < published_ ||
                   reported_ < published_) {
                if (stop_.stop_requested()) {
                    session_->stop();
                }
                session_->resend();
                receive();
            }
        } catch (Stopped const&) { // before there was a result for everything
            stopSending();
        } catch (...) {
            stopSending();
            throw;
        }
        senders.clear(); // waits for them
        session_->leave();
        session_.reset(); // no callback prints any more
        return conclude();
    }

private:
    struct State {
        std::string name;
        std::uint64_t typeID;
        std::string format;
        std::uint64_t size = 0;
        std::uint64_t crc32 = 0;
        bool isPublished = false;
        std::optional<Result> result = {};
        std::string worker = {}; // whose result it is
    };

    void stopSending() {
        stop_.request_stop();
        if (session_) {
            session_->stop();
        }
    }

    // Writes and publishes one element after the other, together with other threads.
    void send() {
        for (std::size_t i = next_++; i < states_.size(); i = next_++) {
            try {
                ByteBuffer const bytes = encode(std::move(serialisers_[i]));
                printWhenReleased();
                publish(i, ByteBufferView(bytes));
            } catch (std::exception const& error) {
                printWhenReleased();
                if (!wasStopped(error)) {
                    ++failed_;
                    print("sender: " + states_[i].name + ": cannot be sent: " + error.what());
                }
            }
        }
    }

    // Called by every thread; one of them has written the last element.
    void printWhenReleased() {
        if (sentinel_->isReleased() && !isReleased_.exchange(true)) {
            print("the payload's memory was released after " +
                  fixed(Seconds(Clock::now() - start_).count(), 2) + " s, when " + sent());
        }
    }

    void publish(std::size_t i, ByteBufferView bytes) {
        session_->requireRoom(bytes.size());
        State& state = states_[i];
        auto const sum = crc32(bytes);
        auto message = makeElement(options_.nats.stream + '.' + run_ + '.' + std::to_string(i),
                                   {state.format, state.typeID, sum}, bytes);
        {
            std::lock_guard const lock(mutex_);
            state.size = bytes.size();
            state.crc32 = sum;
            state.isPublished = true;
        }
        ++published_;
        if (!session_->publish(std::move(message))) {
            --published_;
        }
    }

    void countStored(std::string const& subject) {
        std::size_t const i = std::stoul(split(subject, '.').back());
        std::lock_guard const lock(mutex_);
        auto const& [name, type, format, size, crc32, isPublished, result, worker] = states_[i];
        if (options_.isVerbose) {
            std::cout << "sent " + run_ + ' ' << i << ' ' << format << ' ' << size << ' ' << crc32
                      << std::endl;
        }
        bytes_ += size;
        ++stored_;
        progress_ = Clock::now();
    }

    void receive() {
        for (auto const& message : session_->fetch(256, 100ms)) {
            std::string const subject = natsMsg_GetSubject(message.get());
            try {
                count(subjectOf(message.get())[2], resultsOf(message.get()));
            } catch (std::exception const& error) {
                print("ignored, message " + std::to_string(++ignored_) + ": " +
                      printable({subject, error.what()}));
            }
            session_->answer(natsMsg_GetReply(message.get()), "+ACK");
        }
        auto const now = Clock::now();
        if (now - printed_ > 1s) {
            printed_ = now;
            print(sent() + ", " + grouped(bytes_ / 1'000'000) + " MB; " +
                  std::to_string(reported_) + " reported");
        }
        endIfIdle();
    }

    // Counts what a report says of elements that have no result yet. Throws std::runtime_error if
    // it cannot be true.
    void count(std::string const& worker, std::vector<Result> const& results) {
        std::lock_guard const lock(mutex_);
        auto const now = Clock::now();
        for (Result const& result : results) {
            if (result.element >= states_.size() || !states_[result.element].isPublished ||
                !isWorkerName(worker)) {
                throw std::runtime_error("it is not on an element that was sent");
            }
            State& state = states_[result.element];
            bool const isWhole = result.size == state.size || !result.error.empty();
            if (result.crc32 != state.crc32 || !isWhole || result.delivery == 0 ||
                result.time > nanoseconds(now - start_)) {
                throw std::runtime_error("it cannot be true");
            }
            if (!state.result) {
                state.result = result;
                state.worker = worker;
                ++reported_;
                progress_ = now;
            }
        }
    }

    // Called while servers are away or full.
    void waitFor(std::string const& why) {
        auto const now = Clock::now();
        if (!why.empty() && now - complained_ > 10s) {
            complained_ = now;
            print("sender: " + why + ": waiting");
        }
        endIfIdle();
    }

    // After Control-C, waits ten seconds for the results of what was sent.
    void endIfIdle() {
        auto const now = Clock::now();
        if (stop_.stop_requested()) {
            stopped_ = std::max(stopped_.value_or(now), progress_.load());
            if ((stored_ == published_ && reported_ == published_) || now - *stopped_ > 10s) {
                throw Stopped();
            }
        } else if (now - progress_.load() > std::chrono::seconds(options_.giveUpAfter)) {
            throw std::runtime_error("gave up: nothing was stored or reported for " +
                                     std::to_string(options_.giveUpAfter) + " s; " + sent() + ", " +
                                     std::to_string(reported_) + " reported");
        }
    }

    // The table of the workers, and the exit status.
    [[nodiscard]] int conclude() const {
        struct Share {
            std::size_t elements = 0;
            std::size_t bytes = 0;
            Seconds time{};
        };
        std::map<std::string, Share> shares;
        Share all{.time = Clock::now() - start_};
        std::size_t repeated = 0;
        for (State const& state : states_) {
            if (state.result && state.result->error.empty()) {
                Share& share = shares[state.worker];
                ++share.elements, ++all.elements;
                share.bytes += state.size, all.bytes += state.size;
                share.time += std::chrono::nanoseconds(state.result->time);
                repeated += state.result->delivery > 1 ? 1 : 0;
            } else if (state.result) {
                print("sender: " + state.name + ": cannot be read by " + state.worker + ": " +
                      printable(state.result->error));
            }
        }
        std::vector<Row> rows{{"worker", "elements", "bytes", "seconds", "MB/s"}};
        auto const add = [&](std::string const& name, Share const& share) {
            rows.push_back({name, grouped(share.elements), grouped(share.bytes),
                            fixed(share.time.count(), 2), speed(share.bytes, share.time)});
        };
        for (auto const& [name, share] : shares) {
            add(name, share);
        }
        add("all, from start to end", all);
        std::cout << '\n';
        printTable(std::cout, rows, "<>>>>");
        double const rate = static_cast<double>(all.elements) / all.time.count();
        std::cout << '\n'
                  << all.elements << " of " << counted(states_.size(), "element") << " decoded, "
                  << repeated << " of them delivered more than once, "
                  << grouped(static_cast<std::size_t>(rate)) << " a second\n";
        if (all.elements == states_.size()) {
            return 0;
        }
        if (!stop_.stop_requested() || failed_ != 0 || all.elements != reported_) {
            return 1;
        }
        print("sender: stopped when " + sent() + ", of which " + std::to_string(reported_) +
              " were decoded");
        return 130;
    }

    [[nodiscard]] std::string sent() const {
        return std::to_string(stored_) + " of " + counted(states_.size(), "element") + " sent";
    }

    static void print(std::string const& text) { std::cerr << text + '\n'; }

    Options const& options_;
    std::string const run_ = nats::randomName();
    stop_source stop_;
    Clock::time_point start_ = Clock::now(); // of sending
    std::vector<std::string> formats_;
    std::vector<GenericSerialiser> serialisers_;
    std::shared_ptr<Sentinel> sentinel_;

    std::mutex mutex_; // guards the states while elements are sent, and standard output
    std::vector<State> states_;
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> published_{0};
    std::atomic<std::size_t> stored_{0};
    std::atomic<std::size_t> failed_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<bool> isReleased_{false};
    std::atomic<Clock::time_point> progress_{start_}; // when something was stored or reported

    // Used by the main thread only.
    std::size_t reported_ = 0;
    std::size_t ignored_ = 0;
    Clock::time_point printed_ = start_;
    Clock::time_point complained_{};
    std::optional<Clock::time_point> stopped_;

    std::optional<nats::Session> session_; // its callbacks use what is above
};

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Sends files as the elements of one payload to the workers of a stream. A .json "
                 "file is sent as a Document, any other as a Blob. Without files, takes some of "
                 "this project.",
                 "sender");
    options.nats.addTo(app);
    options.addTo(app, "write and send");
    app.add_option("--copies", options.copies, "How often to send the files")
        ->check(CLI::Range(1, 1'000'000))
        ->capture_default_str();
    app.add_option("--give-up-after", options.giveUpAfter,
                   "Seconds to wait since something was stored or reported; without it, for ever")
        ->check(CLI::NonNegativeNumber);
    app.add_flag("-v,--verbose", options.isVerbose,
                 "Print a line for each element: run, number, wire format, bytes, CRC-32");
    constexpr auto readLimit = std::numeric_limits<std::uint64_t>::max(); // its own files
    return run(app, argc, argv, "sender", readLimit,
               [&](auto const& catalogue, stop_source const& stop) {
                   return Run(options, catalogue, stop).run();
               });
}
