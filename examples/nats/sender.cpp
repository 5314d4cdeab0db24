// SPDX-License-Identifier: Apache-2.0
// Sends files as the elements of one payload, one message for each, to the workers of a stream, and
// prints the results.

#include "examples/nats/Session.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"
#include "examples/program/Sending.h"

#include <courier/hub/serialisation/FanOut.h>

#include <atomic>
#include <condition_variable>
#include <iostream>
#include <map>
#include <optional>
#include <set>

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

enum class State { waiting, failed, sent, reported };

struct Element {
    Label label = {};
    State state = State::waiting;
    bool isStored = false;
    std::uint64_t size = 0;
    ByteBuffer bytes = {};      // until there is a result
    Clock::time_point due = {}; // when it is looked for, and perhaps sent again
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
            elements_.push_back({{each.back(), file.type().id, 0}});
        }
        for (auto const& file : files) {
            names_.push_back(file.name);
        }
        left_ = each.size();
        std::tie(serialisers_, sentinel_) =
            createSerialisersFor(std::move(payload), catalogue, each, stop_);
    }
    Run(Run const&) = delete;
    Run& operator=(Run const&) = delete;

    ~Run() { end(); }

    /// Sends, waits until workers have reported on everything that was sent, and prints it all.
    /// Returns the exit status.
    int run() {
        try {
            session_.emplace(
                options_.nats, "sender", [this](auto const& why) { waitFor(why); }, acknowledged,
                this);
            start_ = Clock::now();
            natsSubscription* subscription = nullptr;
            std::string const reports = options_.nats.reports() + '.' + run_ + ".*";
            natsConnection_Subscribe(&subscription, session_->connection(), reports.c_str(),
                                     received, this);
            Owner<natsSubscription, natsSubscription_Destroy> const owner(subscription);
            natsSubscription_SetPendingLimits(subscription, -1, -1);
            look();
            for (std::size_t i = 0; i < std::min(options_.threads, elements_.size()); ++i) {
                threads_.emplace_back([this] { send(); });
            }
            for (std::unique_lock lock(mutex_); left_ != 0; lock.lock()) {
                changed_.wait_for(lock, 100ms, [this] { return left_ == 0; });
                lock.unlock();
                session_->check();
                look();
                bool const isIdle = Clock::now() - progress_.load() > 10s;
                waitFor(isIdle ? "no worker has reported for 10 s" : "");
            }
        } catch (Stopped const&) { // before there was a result for everything
        }
        end();
        return conclude();
    }

private:
    void end() {
        stop_.request_stop();
        threads_.clear(); // waits for them
        session_.reset(); // no callback runs any more
    }

    // Writes and publishes one element after the other, together with other threads.
    void send() {
        for (std::size_t i = next_++; i < elements_.size(); i = next_++) {
            try {
                publish(i, encode(std::move(serialisers_[i])));
            } catch (std::exception const& error) {
                if (!wasStopped(error)) {
                    print(names_[i % names_.size()] + ": cannot be sent: " + error.what());
                }
                std::lock_guard const lock(mutex_);
                elements_[i].state = State::failed;
                --left_;
            }
        }
    }

    void publish(std::size_t i, ByteBuffer bytes) {
        session_->requireRoom(bytes.size());
        Element& element = elements_[i];
        element.size = bytes.size() + overhead;
        std::get<2>(element.label) = crc32(bytes);
        Message message = makeElement(subjectOf(i), element.label, bytes);
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
        element.bytes = std::move(bytes);
        element.due = Clock::now() + 10s;
        unreported_ += element.size;
        lock.unlock();
        store(std::move(message));
    }

    void store(Message message) {
        jsPubOptions options;
        jsPubOptions_Init(&options);
        options.MaxWait = milliseconds(10s);
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
        Element& element = run.elements_[std::stoul(wordsOf(raw)[2])];
        std::lock_guard const lock(run.mutex_);
        element.due = Clock::now() + (ack != nullptr ? 10s : 1s);
        if (ack == nullptr) {
            run.session_->note("cannot store an element: " +
                                   explain(error->Err, error->ErrCode, error->ErrText),
                               false);
        } else if (!std::exchange(element.isStored, true)) {
            run.progress_ = Clock::now();
        }
    }

    static void received(natsConnection*, natsSubscription*, natsMsg* raw, void* self) {
        auto& run = *static_cast<Run*>(self);
        Message const message(raw);
        try {
            run.count(wordsOf(raw)[2], resultsOf(raw));
        } catch (std::exception const& error) {
            print(ignored(++run.ignored_, raw, error));
        }
    }

    // Counts what a report says of elements that have no result yet. Throws std::runtime_error if
    // it cannot be true.
    void count(std::string const& worker, std::vector<Result> const& results) {
        auto const most = std::chrono::nanoseconds(Clock::now() - start_).count();
        bool const isWorker = requireWord(worker).empty();
        std::lock_guard const lock(mutex_);
        for (auto const& [i, size, crc, delivery, time, error] : results) {
            if (!isWorker || i >= elements_.size() || elements_[i].state < State::sent) {
                throw std::runtime_error("it is not on an element that was sent");
            }
            Element& element = elements_[i];
            bool const isWhole = size + overhead == element.size || !error.empty();
            if (crc != std::get<2>(element.label) || !isWhole || delivery == 0 ||
                std::cmp_greater(time, most)) {
                throw std::runtime_error("it cannot be true");
            }
            if (std::exchange(element.state, State::reported) == State::reported) {
                continue;
            }
            element.bytes = {};
            unreported_ -= element.size;
            --left_;
            progress_ = Clock::now();
            if (error.empty()) {
                Share& share = shares_[worker];
                ++share.elements;
                share.bytes += size;
                share.time += std::chrono::nanoseconds(time);
                repeated_ += delivery > 1 ? 1 : 0;
            } else {
                print(names_[i % names_.size()] + ": cannot be read by " + worker + ": " +
                      ascii(error).substr(0, 500));
            }
        }
        changed_.notify_all();
    }

    // Once a second: says how far it is, finds out whether the stream is full, and publishes again
    // what the servers have refused or lost, even after they had acknowledged it: what has no
    // result for some time and is not in the queue. After an outage they may also keep what they
    // never deliver: if nothing has happened for a minute, then two, then four, publishes even what
    // is in the queue. This waits for no answer of the client library, which gives none to what it
    // had sent before an outage.
    void look() {
        auto const now = Clock::now();
        if (now - looked_ < 1s) {
            return;
        }
        looked_ = now;
        print(sent());
        if (sentinel_->isReleased() && !std::exchange(isReleased_, true)) {
            print("the payload's memory was released after " +
                  fixed(Seconds(now - start_).count(), 2) + " s");
        }
        std::vector<std::size_t> late;
        std::unique_lock lock(mutex_);
        for (std::size_t i = 0; i < elements_.size(); ++i) {
            if (elements_[i].state == State::sent && now > elements_[i].due) {
                elements_[i].due = now + 10s;
                late.push_back(i);
            }
        }
        lock.unlock();
        auto const info = session_->look(late.empty() ? "" : subjectOf("*"));
        if (!info) {
            return;
        }
        std::set<std::string> queued;
        auto const* const subjects = info->State.Subjects;
        for (int k = 0; subjects != nullptr && k < subjects->Count; ++k) {
            queued.emplace(subjects->List[k].Subject);
        }
        bool const isStuck = !late.empty() && now - progress_.load() > stuck_;
        stuck_ *= isStuck ? 2 : 1;
        for (std::size_t const i : late) {
            if (isStuck || !queued.contains(subjectOf(i))) {
                lock.lock();
                auto message = makeElement(subjectOf(i), elements_[i].label, elements_[i].bytes);
                bool const isReported = elements_[i].state == State::reported;
                lock.unlock();
                if (!isReported) {
                    store(std::move(message));
                }
            }
        }
        // Senders that do not know of each other must not fill the stream beyond its limit.
        bool const isFull = std::cmp_greater_equal(info->State.Bytes, session_->limit());
        lock.lock();
        window_ = isFull ? 0 : std::min(window, static_cast<std::size_t>(session_->limit() / 8));
        changed_.notify_all();
        lock.unlock();
        waitFor(isFull ? "the stream has reached its limit (--max-bytes)" : "");
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
        Share all;
        std::vector<Row> rows{{"worker", "elements", "bytes", "seconds", "MB/s"}};
        auto const add = [&rows](std::string const& name, Share const& share) {
            rows.push_back({name, grouped(share.elements), grouped(share.bytes),
                            fixed(share.time.count(), 2), speed(share.bytes, share.time)});
        };
        for (auto const& [worker, share] : shares_) {
            add(worker, share);
            all.elements += share.elements;
            all.bytes += share.bytes;
        }
        all.time = Clock::now() - start_;
        add("all, from start to end", all);
        std::cout << '\n';
        printTable(std::cout, rows, "<>>>>");
        double const rate = static_cast<double>(all.elements) / all.time.count();
        std::cout << '\n'
                  << all.elements << " of " << counted(elements_.size(), "element") << " decoded, "
                  << repeated_ << " of them delivered more than once, "
                  << grouped(static_cast<std::size_t>(rate)) << " a second\n";
        if (all.elements == elements_.size()) {
            return 0;
        }
        print((isStopped_ ? "stopped when " : "") + sent());
        return isStopped_ ? 130 : 1;
    }

    [[nodiscard]] std::string sent() {
        std::lock_guard const lock(mutex_);
        auto const reached = [this](State state) {
            auto const has = [state](Element const& element) { return element.state >= state; };
            return std::to_string(std::count_if(elements_.begin(), elements_.end(), has));
        };
        return reached(State::sent) + " of " + counted(elements_.size(), "element") + " sent, " +
               reached(State::reported) + " reported";
    }

    [[nodiscard]] std::string subjectOf(std::string const& element) const {
        return options_.nats.stream + '.' + run_ + '.' + element;
    }
    [[nodiscard]] std::string subjectOf(std::size_t i) const {
        return subjectOf(std::to_string(i));
    }

    static void print(std::string const& text) { std::cerr << "sender: " + text + '\n'; }

    Options const& options_;
    std::string const run_ = randomName();
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
    std::size_t unreported_ = 0;          // bytes that were published
    std::size_t window_ = 0;              // the most of them
    std::map<std::string, Share> shares_; // by worker
    std::size_t repeated_ = 0;

    std::size_t ignored_ = 0; // used by the thread that receives reports only

    // Used by the main thread only.
    bool isReleased_ = false;
    bool isStopped_ = false;
    Clock::time_point looked_{};
    std::chrono::seconds stuck_{60};
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
