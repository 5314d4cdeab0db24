// SPDX-License-Identifier: Apache-2.0
// Sends files as the elements of one payload, one message for each, to whichever workers there are,
// and says what became of them.

#include "Messages.h"
#include "Options.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"
#include "examples/program/Sending.h"
#include "examples/program/Text.h"

#include <courier/hub/serialisation/FanOut.h>

#include <unistd.h>

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
using Clock = std::chrono::steady_clock;

struct Options : Sending {
    Options() { threads = 4; } // most of the time they wait for the servers
    Place place;
    std::size_t copies = 1;
    bool isVerbose = false;
};

std::string newRun() {
    std::random_device random;
    std::uint64_t const number = (std::uint64_t{random()} << 32) | random();
    return hexadecimal(number).substr(2);
}

// One payload on its way.
class Run {
public:
    Run(Options const& options, std::vector<Element> elements, std::vector<std::string> formats,
        SerialisationCatalogue const& catalogue, stop_source stop)
        : options_(options), elements_(std::move(elements)), formats_(std::move(formats)),
          stop_(std::move(stop)), session_(options.place.servers), queue_(joinResults()),
          results_(elements_.size()) {
        courier::hub::core::GenericPayload payload;
        for (auto& element : elements_) {
            element.addTo(payload);
            std::visit([](auto& held) { held.reset(); }, element.value); // the payload's alone now
        }
        std::tie(serialisers_, sentinel_) =
            createSerialisersFor(std::move(payload), catalogue, formats_, stop_);
    }

    /// Sends, waits until a worker has reported on everything that was sent, and prints it all.
    /// Returns the exit status.
    int run() {
        start_ = Clock::now();
        std::vector<std::future<void>> senders;
        for (std::size_t i = 0; i < std::min(options_.threads, elements_.size()); ++i) {
            senders.push_back(std::async(std::launch::async, [this] { send(); }));
        }
        auto const isSending = [&] {
            return std::any_of(senders.begin(), senders.end(), [](auto const& sender) {
                return sender.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
            });
        };
        for (bool goesOn = true; goesOn;) {
            goesOn = isSending(); // asked first, as what is sent last must be waited for
            receive();
            goesOn = goesOn || reported_ < sent_;
        }
        wallTime_ = Clock::now() - start_;
        for (auto& sender : senders) {
            sender.get();
        }
        session_.purge(options_.place.stream, options_.place.all(run_));
        session_.removeQueue(options_.place.stream, queueName());
        return conclude();
    }

private:
    // Makes the queue of this run's results.
    [[nodiscard]] nats::Queue joinResults() const {
        prepare(session_, options_.place);
        session_.makeQueue(options_.place.stream, queueName(), options_.place.results(run_),
                           std::chrono::seconds(30), std::chrono::hours(1));
        return session_.join(options_.place.stream, queueName());
    }

    // Writes and publishes one element after the other, together with other threads.
    void send() {
        for (std::size_t i = next_++; i < elements_.size() && !hasFailed_; i = next_++) {
            try {
                ByteBuffer const bytes = encode(std::move(serialisers_[i]));
                sayWhenReleased();
                if (publish(i, ByteBufferView(bytes))) {
                    ++sent_;
                }
            } catch (nats::Error const&) {
                hasFailed_ = true; // nothing more will get through
                throw;
            } catch (std::exception const& error) {
                sayWhenReleased();
                if (wasStopped(error)) {
                    continue;
                }
                ++failed_;
                say(elements_[i].name + ": cannot be sent: " + error.what());
            }
        }
    }

    // Once: whoever writes the last element comes here right after it.
    void sayWhenReleased() {
        if (sentinel_->isReleased() && !isReleased_.exchange(true)) {
            say("the payload's memory was given back after " +
                fixed(Seconds(Clock::now() - start_).count(), 2) + " s, when " +
                std::to_string(sent_) + " of " + counted(elements_.size(), "element") +
                " had been sent");
        }
    }

    // Whether the element is on its way: not when a stop came between two of its parts.
    bool publish(std::size_t i, ByteBufferView bytes) {
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
        auto const put = [&](ByteBufferView part) {
            session_.publish(envelope.toMessage(options_.place, part).get(),
                             run_ + '.' + envelope.what());
        };
        for (std::size_t part = 1; part <= envelope.parts; ++part) {
            if (stop_.stop_requested()) {
                return false;
            }
            envelope.part = part;
            put(bytes.makeView(0, std::min(longest, bytes.size())));
            bytes.trimFront(std::min(longest, bytes.size()));
        }
        envelope.part = 0;
        put(bytes); // where there are parts, nothing is left
        bytes_ += envelope.size;
        if (options_.isVerbose) {
            std::ostringstream line;
            line << "sent " << run_ << ' ' << i << ' ' << envelope.wireFormat << ' '
                 << envelope.size << ' ' << envelope.crc32 << ' ' << envelope.parts;
            std::lock_guard const lock(output_);
            std::cout << line.str() << std::endl;
        }
        return true;
    }

    void receive() {
        for (auto const& message : queue_.take(64)) {
            Result result = Result::of(message.get());
            natsMsg_Ack(message.get(), nullptr); // one that gets lost only brings it again
            if (result.run == run_ && result.element < results_.size() &&
                !results_[result.element]) {
                results_[result.element] = std::move(result);
                ++reported_;
            }
        }
        if (auto const now = Clock::now(); now - shown_ > std::chrono::seconds(1)) {
            shown_ = now;
            say(std::to_string(sent_) + " of " + counted(elements_.size(), "element") + " sent, " +
                grouped(bytes_ / 1'000'000) + " MB; " + std::to_string(reported_) + " decoded");
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
        Share all;
        std::size_t unreadable = 0;
        std::size_t repeated = 0;
        for (auto const& result : results_) {
            if (result && result->error.empty()) {
                for (Share* share : {&shares[result->worker], &all}) {
                    ++share->elements;
                    share->bytes += result->size;
                    share->time += result->time;
                }
                repeated += result->delivery > 1 ? 1 : 0;
            } else if (result) {
                ++unreadable;
                std::cerr << "sender: " << elements_[result->element].name << ": cannot be read by "
                          << result->worker << ": " << result->error << '\n';
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
                  << repeated << " of them delivered more than once\n";
        if (all.elements == elements_.size()) {
            return 0;
        }
        if (stop_.stop_requested() && unreadable == 0 && failed_ == 0) {
            std::cerr << "sender: stopped when " << sent_ << " of "
                      << counted(elements_.size(), "element")
                      << " had been sent; all of these were decoded\n";
            return 130;
        }
        return 1;
    }

    [[nodiscard]] std::string queueName() const { return "results-" + run_; }

    void say(std::string const& text) {
        std::lock_guard const lock(output_);
        std::cerr << text + '\n';
    }

    Options const& options_;
    std::string const run_ = newRun();
    std::vector<Element> elements_;
    std::vector<std::string> const formats_;
    stop_source stop_;
    nats::Session session_;
    nats::Queue queue_;
    std::vector<GenericSerialiser> serialisers_;
    std::shared_ptr<Sentinel> sentinel_;

    Clock::time_point start_;
    Clock::time_point shown_;
    Seconds wallTime_{};
    std::vector<std::optional<Result>> results_;
    std::size_t reported_ = 0;
    std::mutex output_; // one line at a time

    // Of the sending threads together.
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> sent_{0};
    std::atomic<std::size_t> failed_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<bool> isReleased_{false};
    std::atomic<bool> hasFailed_{false};
};

// The files, so many times, and the wire format of each. Nothing else holds them.
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
    app.add_option("--copies", options.copies, "Send the files so many times")
        ->check(CLI::Range(1, 1'000'000))
        ->type_name("N")
        ->capture_default_str();
    app.add_flag("-v,--verbose", options.isVerbose,
                 "Print a line for each element: run, number, wire format, bytes, CRC-32, parts");
    return run(
        app, argc, argv, "sender", defaultReadLimit, [&](auto const& catalogue, stop_source stop) {
            auto [elements, formats] = load(options, catalogue);
            return Run(options, std::move(elements), std::move(formats), catalogue, stop).run();
        });
}
