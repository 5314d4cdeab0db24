// SPDX-License-Identifier: Apache-2.0
// Sends files as the elements of one payload, one message for each, to the workers of a stream, and
// prints the results.

#include "examples/nats/Session.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"
#include "examples/program/Sending.h"

#include <courier/hub/serialisation/FanOut.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <iostream>
#include <limits>
#include <map>
#include <mutex>
#include <optional>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;
using namespace courier::examples::nats;

constexpr std::size_t window = std::size_t{64} << 20; // the most bytes without a result

struct Options : Sending {
    Servers nats;
    std::size_t copies = 1;
    int giveUpAfter = std::numeric_limits<int>::max(); // seconds
};

struct Stopped {}; // thrown after Control-C

enum class State { waiting, sent, stored, reported };

struct Element {
    Label label = {};
    State state = State::waiting;
    std::uint64_t size = 0;
    ByteBuffer bytes = {};                            // until there is a result
    Clock::time_point due = Clock::time_point::max(); // when it is late
};

// What a worker has decoded.
struct Share {
    std::size_t elements = 0;
    std::size_t bytes = 0;
    Seconds time{};
};

// The sending of one payload.
class Run {
public:
    Run(Options const& options, SerialisationCatalogue const& catalogue, stop_source stop)
        : options_(options), stop_(std::move(stop)) {
        auto const files = loadAll(options.files, catalogue);
        auto const formats = resolveFormats(options.formats, files, catalogue);
        courier::hub::core::GenericPayload payload;
        std::vector<std::string> each;
        for (std::size_t i = 0; i < options.copies * files.size(); ++i) {
            auto const& file = files[i % files.size()];
            each.push_back(formats[i % files.size()]);
            file.addTo(payload);
            elements_.push_back({{file.type().id, 0, each.back()}});
        }
        for (auto const& file : files) {
            names_.push_back(file.name);
        }
        left_ = each.size();
        std::tie(serialisers_, sentinel_) =
            createSerialisersFor(std::move(payload), catalogue, each, stop_);
    }

    ~Run() { stop_.request_stop(); } // then waits for the threads

    /// Sends, waits until workers have reported on everything that was sent, and prints it all.
    /// Returns the exit status.
    int run() {
        try {
            session_.emplace(
                options_.nats, "sender", [this](auto const& why) { waitFor(why); }, acknowledged,
                this);
            start_ = Clock::now();
            auto const subject = options_.nats.stream + "-reports." + run_ + ".*";
            auto const reports = session_->subscribe(subject);
            look(); // before there is something to send: finds out how much may be sent
            for (std::size_t i = 0; i < std::min(options_.threads, elements_.size()); ++i) {
                threads_.emplace_back([this] { send(); });
            }
            for (auto looked = start_; left_ != 0;) {
                natsMsg* raw = nullptr;
                if (natsSubscription_NextMsg(&raw, reports.get(), 100) == NATS_OK) {
                    read(Message(raw));
                }
                if (Clock::now() - looked > 1s) {
                    looked = Clock::now();
                    look();
                }
            }
        } catch (Stopped const&) { // before there was a result for everything
        }
        return conclude();
    }

private:
    // Writes and publishes one element after the other, together with other threads.
    void send() {
        for (std::size_t i = next_++; i < elements_.size(); i = next_++) {
            try {
                publish(i, encode(std::move(serialisers_[i])));
            } catch (std::exception const& error) {
                if (!wasStopped(error)) {
                    print(names_[i % names_.size()] + ": cannot be sent: " + error.what());
                }
                --left_;
            }
        }
    }

    void publish(std::size_t i, ByteBuffer bytes) {
        session_->requireRoom(bytes.size());
        Element& element = elements_[i];
        element.size = bytes.size() + overhead;
        element.label.crc = crc32(bytes);
        element.bytes = std::move(bytes);
        Message message = makeMessage(i);
        std::unique_lock lock(mutex_);
        auto const isNext = [&] {
            return stop_.stop_requested() || unreported_ == 0 ||
                   unreported_ + element.size <= window_;
        };
        while (!changed_.wait_for(lock, 100ms, isNext)) {
        }
        if (stop_.stop_requested()) {
            throw std::system_error(std::make_error_code(std::errc::operation_canceled));
        }
        element.state = State::sent;
        ++sent_;
        element.due = Clock::now() + 10s;
        unreported_ += element.size;
        lock.unlock();
        store(std::move(message));
    }

    void store(Message message) {
        jsPubOptions options;
        jsPubOptions_Init(&options);
        // Far longer than a write can take: then the client gives up a message even if another
        // thread is still writing it.
        options.MaxWait = 120s / 1ms;
        natsMsg* raw = message.release();
        jsPubAckErr error{};
        error.Err = js_PublishMsgAsync(session_->jetStream(), &raw, &options);
        if (error.Err != NATS_OK) {
            acknowledged(nullptr, raw, nullptr, &error, this);
        }
    }

    static void acknowledged(jsCtx*, natsMsg* raw, jsPubAck* ack, jsPubAckErr* error, void* self) {
        auto& run = *static_cast<Run*>(self);
        Message const message(raw);
        Element& element = run.elements_[number(subjectOf(raw).second)];
        std::lock_guard const lock(run.mutex_);
        if (ack == nullptr) {
            run.trouble_ = "cannot store an element: " + explain(error->Err, error->ErrText);
        }
        if (element.state == State::sent) {
            element.due = Clock::now() + (ack != nullptr ? 10s : 1s);
            element.state = ack != nullptr ? State::stored : State::sent;
            run.progress_ = ack != nullptr ? Clock::now() : run.progress_.load();
        }
    }

    // Counts what a report says. What is not well-formed or cannot be true is named, and ends
    // nothing.
    void read(Message const& report) {
        try {
            auto const worker = subjectOf(report.get()).second;
            if (textOf(report.get()).size() > std::size_t{1} << 20) {
                throw std::runtime_error("it is too long for a report");
            }
            auto const lines = split(textOf(report.get()), '\n');
            std::lock_guard const lock(mutex_);
            for (auto const& line : lines) {
                count(worker, line);
            }
            changed_.notify_all();
        } catch (std::exception const& error) {
            print(ignored(++ignored_, report.get(), error));
        }
    }

    void count(std::string const& worker, std::string const& line) {
        auto const parts = split(line, '\t', 6);
        std::array<std::uint64_t, 5> numbers{};
        std::transform(parts.begin(), parts.end() - 1, numbers.begin(), number);
        auto const [i, size, crc, delivery, time] = numbers;
        auto const& why = parts.back();
        if (!requireWord(worker).empty() || i >= elements_.size() ||
            elements_[i].state < State::sent) {
            throw std::runtime_error("it is not on an element that was sent");
        }
        Element& element = elements_[i];
        bool const isWhole = size + overhead == element.size || !why.empty();
        if (crc != element.label.crc || !isWhole || delivery == 0 ||
            std::cmp_greater(time, (Clock::now() - start_) / 1ns)) {
            throw std::runtime_error("it cannot be true");
        }
        if (element.state == State::reported) {
            return;
        }
        element.state = State::reported;
        element.due = Clock::time_point::max();
        element.bytes = {};
        unreported_ -= element.size;
        ++reported_;
        --left_;
        progress_ = Clock::now();
        if (!why.empty()) {
            return print(names_[i % names_.size()] + ": cannot be read by " + worker + ": " +
                         printable(why));
        }
        repeated_ += delivery > 1 ? 1 : 0;
        Share& share = shares_[worker];
        ++share.elements;
        share.bytes += size;
        share.time += std::chrono::nanoseconds(time);
    }

    // Once a second: says how far it is and why it waits, and publishes again what is late: what
    // the servers have refused, and, if there are no elements in the queue or with workers, what
    // they had acknowledged. After an outage they may also keep what they never deliver: if nothing
    // has happened for a minute, then two, then four, publishes that again as well.
    void look() {
        print(sent());
        if (sentinel_->isReleased() && !std::exchange(isReleased_, true)) {
            print("the payload's memory was released after " +
                  fixed(Seconds(Clock::now() - start_).count(), 2) + " s");
        }
        auto const info = session_->look();
        if (!info) {
            return;
        }
        auto const now = Clock::now();
        auto const quiet = now - progress_.load();
        // Senders that do not know of each other must not fill the stream beyond its limit.
        bool const isFull = std::cmp_greater_equal(info->State.Bytes, session_->limit());
        std::unique_lock lock(mutex_);
        window_ = isFull ? 0 : std::min(window, static_cast<std::size_t>(session_->limit() / 8));
        changed_.notify_all();
        auto why = std::exchange(trouble_, {});
        bool const isLost = info->State.Msgs == 0 || quiet > 60s;
        std::vector<Message> again;
        for (std::size_t i = 0; i < elements_.size(); ++i) {
            Element& element = elements_[i];
            if (element.due < now && (element.state == State::sent || isLost)) {
                element.due =
                    now +
                    (element.state == State::sent ? 10s : std::max<Clock::duration>(quiet, 10s));
                again.push_back(makeMessage(i));
            }
        }
        lock.unlock();
        std::for_each(again.begin(), again.end(), [this](auto& each) { store(std::move(each)); });
        if (isFull) {
            why = "the stream has reached its limit (--max-bytes)";
        } else if (why.empty() && quiet > 10s) {
            why = "no worker has reported for 10 s";
        }
        waitFor(why);
    }

    // Called with the reason while servers or workers are away, or servers full. After Control-C,
    // waits ten seconds for the results of what was sent.
    void waitFor(std::string const& why) {
        auto const now = Clock::now();
        if (!why.empty() && now - complained_ > 10s) {
            complained_ = now;
            print(why + ": waiting");
        }
        if (stop_.stop_requested() && !std::exchange(isStopped_, true)) {
            progress_ = now;
        }
        auto const quiet = now - progress_.load();
        if (isStopped_ && quiet > 10s) {
            throw Stopped();
        }
        if (quiet > std::chrono::seconds(options_.giveUpAfter)) {
            throw std::runtime_error("gave up: nothing was stored or reported for " +
                                     std::to_string(options_.giveUpAfter) + " s; " + sent());
        }
    }

    // Prints the table of the workers. Returns the exit status.
    [[nodiscard]] int conclude() {
        Seconds const time = Clock::now() - start_;
        Share all;
        std::vector<Row> rows{{"worker", "elements", "bytes", "seconds", "MB/s"}};
        for (auto const& [worker, share] : shares_) {
            rows.push_back({worker, grouped(share.elements), grouped(share.bytes),
                            fixed(share.time.count(), 2), speed(share.bytes, share.time)});
            all.elements += share.elements;
            all.bytes += share.bytes;
        }
        std::cout << '\n';
        printTable(std::cout, rows, "<>>>>");
        auto const rate = static_cast<double>(all.elements) / time.count();
        std::cout << '\n'
                  << all.elements << " of " << counted(elements_.size(), "element") << " decoded, "
                  << repeated_ << " of them delivered more than once, "
                  << grouped(static_cast<std::size_t>(rate)) << " a second, "
                  << speed(all.bytes, time) << " MB/s\n";
        if (all.elements == elements_.size()) {
            return 0;
        }
        print((stop_.stop_requested() ? "stopped when " : "") + sent());
        return stop_.stop_requested() ? 130 : 1;
    }

    [[nodiscard]] std::string sent() {
        std::lock_guard const lock(mutex_);
        return std::to_string(sent_) + " of " + counted(elements_.size(), "element") + " sent, " +
               std::to_string(reported_) + " reported";
    }

    [[nodiscard]] Message makeMessage(std::size_t i) const {
        return makeElement(subjects_ + std::to_string(i), elements_[i].label, elements_[i].bytes);
    }

    static void print(std::string const& text) { std::cerr << "sender: " + text + '\n'; }

    Options const& options_;
    std::string const run_ = randomName();
    std::string const subjects_ = options_.nats.stream + '.' + run_ + '.'; // of the elements
    stop_source stop_;
    Clock::time_point start_ = Clock::now(); // of sending
    std::vector<std::string> names_;         // of the files, which the elements repeat
    std::vector<GenericSerialiser> serialisers_;
    std::shared_ptr<Sentinel> sentinel_;
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> left_{0};                // elements whose outcome is not known
    std::atomic<Clock::time_point> progress_{start_}; // when something was stored or reported

    std::mutex mutex_; // guards what follows
    std::condition_variable changed_;
    std::vector<Element> elements_;
    std::size_t sent_ = 0;
    std::size_t reported_ = 0;
    std::size_t unreported_ = 0; // bytes that were published
    std::size_t window_ = 0;     // the most of them
    std::string trouble_;        // why something could not be stored

    // Used by the main thread only.
    std::map<std::string, Share> shares_; // by worker
    std::size_t repeated_ = 0;
    std::size_t ignored_ = 0;
    bool isReleased_ = false;
    bool isStopped_ = false;
    Clock::time_point complained_{};

    std::optional<Session> session_; // its callbacks use what is above
    std::vector<std::jthread> threads_;
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
    constexpr auto readLimit = std::numeric_limits<std::uint64_t>::max(); // its own files
    return run(app, argc, argv, "sender", readLimit,
               [&](auto const& catalogue, stop_source const& stop) {
                   return Run(options, catalogue, stop).run();
               });
}
