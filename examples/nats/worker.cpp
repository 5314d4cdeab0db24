// SPDX-License-Identifier: Apache-2.0
// Takes elements from a queue that it shares with other workers, and decodes each in place. Prints
// a line for each: run, element, wire format, bytes, CRC-32, how often it was delivered.

#include "examples/nats/Messages.h"
#include "examples/nats/Options.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"
#include "examples/program/Text.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;
using namespace std::chrono_literals;
using nats::Clock;

struct Options {
    Place place;
    std::string name;
    std::uint64_t readLimit = defaultReadLimit;
    int patience = 600; // seconds that decoding one element may take
};

// This worker cannot decode the element now; it, or another one, may succeed later.
struct Again : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The elements that a worker has taken and not yet answered. Thread-safe.
class InHand {
public:
    void take(std::vector<nats::Message> const& messages) {
        std::lock_guard const lock(mutex_);
        for (auto const& message : messages) {
            replies_.insert(nats::replySubject(message.get()));
        }
        since_ = Clock::now();
    }

    /// Starts the time of the next element.
    void next() {
        std::lock_guard const lock(mutex_);
        since_ = Clock::now();
    }

    void release(std::string const& reply) {
        std::lock_guard const lock(mutex_);
        replies_.erase(reply);
    }

    /// Tells the servers repeatedly that this worker is at work on them. When one element takes
    /// longer than the worker's patience it stops, and they are delivered to others.
    void sayAtWork(nats::Session const& session, Clock::duration interval, Clock::duration patience,
                   std::stop_token const& stop) {
        std::unique_lock lock(mutex_);
        while (!stop.stop_requested()) {
            changed_.wait_for(lock, stop, interval, [] { return false; });
            if (Clock::now() - since_ < patience) {
                for (auto const& reply : replies_) {
                    session.answer(reply, "+WPI");
                }
            }
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::set<std::string> replies_; // their subjects
    Clock::time_point since_;       // the start of the element that is being decoded
};

class Worker {
public:
    Worker(Options const& options, SerialisationCatalogue const& catalogue)
        : options_(options), catalogue_(catalogue), session_(options.place.access),
          queue_(joinWorkers(session_, options.place)),
          sayingAtWork_([this](std::stop_token const& stop) {
              inHand_.sayAtWork(session_, Clock::duration(options_.place.redeliverAfter) / 3,
                                std::chrono::seconds(options_.patience), stop);
          }) {}

    void run(stop_token const& stop) {
        std::cerr << options_.name << ": ready\n";
        int ahead = 1; // elements to take at once
        while (!stop.stop_requested()) {
            auto messages = queue_.take(ahead);
            inHand_.take(messages);
            record(messages);
            auto const start = Clock::now();
            for (auto& message : messages) {
                if (stop.stop_requested()) {
                    answer(nats::replySubject(message.get()), "-NAK");
                } else {
                    handle(std::move(message));
                }
                inHand_.next();
                if (Clock::now() - reported_ > share) {
                    report();
                }
            }
            report();
            if (!messages.empty()) {
                auto const each = (Clock::now() - start) / messages.size();
                auto const affordable = share / std::max<Clock::duration>(each, 1us);
                ahead = static_cast<int>(
                    std::clamp<std::int64_t>(affordable, 1, std::min(2 * ahead, most)));
            }
        }
        session_.settle(1min);
        session_.flush();
    }

private:
    // A worker takes as many elements as it decodes in this time, so that none waits here for long
    // while another worker is idle, and reports as often.
    static constexpr auto share = 200ms;
    static constexpr int most = 256;

    static nats::Subscriber joinWorkers(nats::Session const& session, Place const& place) {
        prepare(session, place);
        return session.join(place.workers());
    }

    // Records what this worker is about to decode, before anything can crash it.
    void record(std::vector<nats::Message> const& messages) {
        std::map<std::string, Taken> byRun;
        for (auto const& message : messages) {
            try {
                Envelope const envelope = Envelope::of(message.get());
                Taken& taken = byRun[envelope.run];
                taken.run = envelope.run;
                taken.elements.push_back(envelope.element);
            } catch (std::runtime_error const&) { // handle() reports it
            }
        }
        for (auto& [run, taken] : byRun) {
            taken.worker = options_.name;
            session_.publish(taken.toMessage(options_.place, newID()), [](auto) {});
        }
        if (!byRun.empty()) {
            session_.flush();
        }
    }

    void handle(nats::Message message) {
        std::string const reply = nats::replySubject(message.get());
        std::optional<Envelope> envelope;
        try {
            envelope = Envelope::of(message.get());
        } catch (std::runtime_error const& error) {
            std::cerr << options_.name << ": not an element: " << error.what() << '\n';
            answer(reply, "+TERM"); // nobody else can read it either
            return;
        }
        Result result{.element = envelope->element, .delivery = nats::deliveries(message.get())};
        auto const start = Clock::now();
        try {
            auto const source = open(*envelope, std::move(message), result);
            if (result.delivery > 1) {
                readInChild(*envelope, *source, result);
            } else {
                read(*envelope, *source, result);
            }
        } catch (nats::Error const&) {
            throw;
        } catch (Again const& error) {
            std::cerr << options_.name << ": element " << result.element << ": " << error.what()
                      << '\n';
            answer(reply, R"(-NAK {"delay": 1000000000})");
            return;
        } catch (std::exception const& error) {
            result.error = error.what(); // it would fail on any worker
        }
        result.time = Clock::now() - start;
        std::cout << (result.error.empty() ? "decoded " : "failed ") << envelope->run << ' '
                  << result.element << ' ' << envelope->wireFormat << ' ' << result.size << ' '
                  << result.crc32 << ' ' << result.delivery << std::endl;
        auto& [replies, done] = done_[envelope->run];
        replies.push_back(reply);
        done.run = envelope->run;
        done.worker = options_.name;
        done.results.push_back(std::move(result));
    }

    // Acknowledged last, when the results are stored. Until then another worker gets the elements
    // if this one fails.
    void report() {
        for (auto& [run, each] : done_) {
            session_.publish(each.second.toMessage(options_.place, newID()),
                             [this, replies = std::move(each.first)](auto) {
                                 for (auto const& reply : replies) {
                                     answer(reply, "+ACK");
                                 }
                             });
        }
        done_.clear();
        reported_ = Clock::now();
    }

    void answer(std::string const& reply, char const* word) {
        session_.answer(reply, word);
        inHand_.release(reply);
    }

    [[nodiscard]] std::string newID() { return id_ + '.' + std::to_string(++messages_); }

    // An element that is delivered again may have crashed a worker. A child process decodes it, so
    // that it crashes no other worker, and the elements taken with it are not delivered again.
    void readInChild(Envelope const& envelope, std::streambuf& source, Result const& result) {
        std::array<int, 2> ends{};
        ::pid_t const child = ::pipe(ends.data()) == 0 ? ::fork() : -1;
        if (child < 0) {
            throw Again("cannot start a process");
        }
        if (child == 0) {
            ::alarm(static_cast<unsigned>(options_.patience));
            std::string error;
            try {
                read(envelope, source, result);
            } catch (std::exception const& thrown) {
                error = thrown.what();
            }
            bool const isWritten = ::write(ends[1], error.data(), error.size()) >= 0;
            ::_exit(isWritten ? 0 : 1);
        }
        ::close(ends[1]);
        std::string error;
        std::array<char, 256> piece{};
        for (::ssize_t n = 0; (n = ::read(ends[0], piece.data(), piece.size())) > 0;) {
            error.append(piece.data(), static_cast<std::size_t>(n));
        }
        ::close(ends[0]);
        int status = 0;
        ::waitpid(child, &status, 0);
        if (status != 0) {
            throw Again("decoding it ended a process with status " + std::to_string(status));
        }
        if (!error.empty()) {
            throw std::runtime_error(error);
        }
    }

    // The bytes of the element, in the client library's memory.
    std::unique_ptr<std::streambuf> open(Envelope const& envelope, nats::Message message,
                                         Result& result) {
        auto const count = [&result](ByteBuffer buffer) {
            ByteBufferView const bytes(buffer);
            result.size += bytes.size();
            result.crc32 = crc32(result.crc32, bytes);
            return buffer;
        };
        if (envelope.parts == 0) {
            return std::make_unique<ByteBufferIStreambuf>(
                std::make_unique<ByteBuffer>(count(adopt(std::move(message)))));
        }
        auto const get = [this, envelope, count](std::size_t part) {
            Envelope expected = envelope;
            expected.part = part;
            auto const subject = options_.place.inElements(envelope.run, expected.what());
            auto found = session_.find(options_.place.stream, subject);
            if (!found) {
                throw Again("there is no " + subject);
            }
            if (Envelope::of(found.get()) != expected) {
                throw std::runtime_error(subject + " is of another element");
            }
            return count(adopt(std::move(found)));
        };
        if (result.delivery == 1) {
            return std::make_unique<PartsIStreambuf>(envelope.parts, get);
        }
        // A child process has no connection: it needs all parts beforehand.
        auto const parts = std::make_shared<std::vector<ByteBuffer>>();
        for (std::size_t part = 1; part <= envelope.parts; ++part) {
            parts->push_back(get(part));
        }
        return std::make_unique<PartsIStreambuf>(
            envelope.parts, [parts](std::size_t part) { return std::move(parts->at(part - 1)); });
    }

    void read(Envelope const& envelope, std::streambuf& source, Result const& result) const {
        if (!catalogue_.hasDeserialiserFor(envelope.wireFormat, envelope.typeID)) {
            auto const formats = catalogue_.getSupportedDeserialisationWireFormats(envelope.typeID);
            throw std::runtime_error("no module reads type " + hexadecimal(envelope.typeID) +
                                     " from \"" + envelope.wireFormat + "\"; there is " +
                                     (formats.empty() ? "none for it" : join(formats, ", ")));
        }
        auto const deserialise =
            catalogue_.getDeserialiserFor(envelope.wireFormat, envelope.typeID);
        auto const payload = decode(deserialise, source);
        if (result.size != envelope.size || result.crc32 != envelope.crc32) {
            throw std::runtime_error("the bytes are not those that were sent");
        }
        // Here a real worker would do its work with the payload.
    }

    Options const& options_;
    SerialisationCatalogue const& catalogue_;
    std::string const id_ = std::to_string(std::random_device()());
    std::size_t messages_ = 0; // that this worker has published
    std::map<std::string, std::pair<std::vector<std::string>, Report>> done_; // by run
    Clock::time_point reported_ = Clock::now();
    InHand inHand_;
    nats::Session session_; // its callbacks use what is above
    nats::Subscriber queue_;
    std::jthread sayingAtWork_;
};

std::string hostAndProcess() {
    std::array<char, 256> host{};
    ::gethostname(host.data(), host.size() - 1);
    return std::string(host.data()) + ':' + std::to_string(::getpid());
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    options.name = hostAndProcess();
    CLI::App app("Decodes the elements that senders put into a stream, together with all other "
                 "workers of it, until Control-C.",
                 "worker");
    addOptions(app, options.place);
    app.add_option("-n,--name", options.name, "What the sender's table calls it")
        ->type_name("NAME")
        ->capture_default_str();
    app.add_option("--patience", options.patience,
                   "Seconds that decoding one element may take before another worker gets it")
        ->check(CLI::PositiveNumber)
        ->type_name("SECONDS")
        ->capture_default_str();
    addReadLimit(app, options.readLimit);
    return run(app, argc, argv, options.name, options.readLimit,
               [&](auto const& catalogue, stop_source const& stop) {
                   Worker(options, catalogue).run(stop.get_token());
                   return 0;
               });
}
