// SPDX-License-Identifier: Apache-2.0
// Sends files as the elements of one payload, one message for each, to the workers of a stream, and
// prints the results.

#include "examples/nats/Messages.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"
#include "examples/program/Sending.h"

#include <courier/hub/serialisation/FanOut.h>

#include <atomic>
#include <condition_variable>
#include <iostream>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <thread>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;
using namespace courier::examples::nats;

struct Options : Sending {
    Servers nats;
    std::size_t copies = 1;
    std::size_t window = std::size_t{64} << 20;        // bytes
    int giveUpAfter = std::numeric_limits<int>::max(); // seconds
    bool isVerbose = false;
};

struct Stopped {}; // thrown after Control-C

struct Element {
    std::string name;
    std::uint64_t typeID = 0;
    std::string format;
    ByteBuffer bytes = {};      // until there is a result
    Clock::time_point due = {}; // when it is looked for, and perhaps published again
    std::uint64_t size = 0;
    std::uint64_t crc32 = 0;
    bool isPublished = false;
    bool isStored = false;
    std::optional<Result> result = {};
    std::string worker = {}; // whose result it is
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
            file.addTo(payload);
            each.push_back(formats[i % files.size()]);
            elements_.push_back({file.name, file.type().id, each.back()});
        }
        std::tie(serialisers_, sentinel_) =
            createSerialisersFor(std::move(payload), catalogue, each, stop_);
    }
    Run(Run const&) = delete;
    Run& operator=(Run const&) = delete;

    ~Run() { end(); }

    /// Sends, waits until workers have reported on everything that was sent, and prints it all.
    /// Returns the exit status.
    int run() {
        auto const complain = [this](auto const& why) { waitFor(why); };
        std::string const reports = options_.nats.reports();
        std::string const queue = "reports-" + run_;
        try {
            session_.emplace(options_.nats, "sender", complain, acknowledged, this);
            session_->join(reports, queue, reports + '.' + run_ + ".*", 10s, 24h);
            // Senders that do not know of each other must not fill the stream beyond its limit.
            window_ = std::min(options_.window, static_cast<std::size_t>(session_->limit() / 8));
            start_ = Clock::now();
            for (std::size_t i = 0; i < std::min(options_.threads, elements_.size()); ++i) {
                threads_.emplace_back([this] { send(); });
            }
            while (written_ < elements_.size() || reported_ < published_) {
                if (stop_.stop_requested()) {
                    stopSending();
                }
                session_->check();
                receive();
                look();
                bool const isIdle = Clock::now() - progress_.load() > 10s;
                waitFor(isIdle ? "no worker has reported for 10 s" : "");
            }
        } catch (Stopped const&) { // before there was a result for everything
        }
        if (session_) {
            js_DeleteConsumer(session_->jetStream(), reports.c_str(), queue.c_str(), nullptr,
                              nullptr);
        }
        end();
        return conclude();
    }

private:
    void stopSending() {
        stop_.request_stop();
        std::lock_guard const lock(mutex_);
        isStopped_ = true;
        changed_.notify_all();
    }

    void end() {
        stopSending();
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
                    print(elements_[i].name + ": cannot be sent: " + error.what());
                }
            }
            ++written_;
        }
    }

    void publish(std::size_t i, ByteBuffer bytes) {
        session_->requireRoom(bytes.size());
        Element& element = elements_[i];
        element.crc32 = crc32(bytes);
        Message message = messageOf(i, bytes);
        auto const size = bytes.size() + overhead;
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] {
            bool const isNext = unreported_ == 0 || unreported_ + size <= window_;
            return isStopped_ || (isNext && !isFull_);
        });
        if (isStopped_) {
            return;
        }
        element.size = bytes.size();
        element.bytes = std::move(bytes);
        element.due = Clock::now() + 10s;
        element.isPublished = true;
        unreported_ += size;
        ++published_;
        lock.unlock();
        store(std::move(message));
    }

    [[nodiscard]] Message messageOf(std::size_t i, ByteBufferView bytes) const {
        Element const& element = elements_[i];
        return makeElement(subjectOf(std::to_string(i)),
                           {element.format, element.typeID, element.crc32}, bytes);
    }

    void store(Message message) {
        jsPubOptions options;
        jsPubOptions_Init(&options);
        options.MaxWait = std::chrono::milliseconds(10s).count();
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
        std::size_t const i = std::stoul(wordsOf(raw)[2]);
        std::lock_guard const lock(run.mutex_);
        run.elements_[i].due = Clock::now() + (ack != nullptr ? 10s : 1s);
        if (ack != nullptr) {
            run.countStored(i);
        } else {
            run.session_->note(error->Err, error->ErrCode, error->ErrText);
        }
    }

    // Call it with the lock.
    void countStored(std::size_t i) {
        Element& element = elements_[i];
        if (!std::exchange(element.isStored, true)) {
            if (options_.isVerbose) {
                std::cout << "sent " + run_ + ' ' << i << ' ' << element.format << ' '
                          << element.size << ' ' << element.crc32 << std::endl;
            }
            ++stored_;
            progress_ = Clock::now();
        }
    }

    // Finds out whether the stream is full. Publishes again what the servers have refused or lost,
    // even after they had acknowledged it: what has no result for some time and is not in the
    // queue. After an outage they may also keep what they never deliver: if nothing has happened
    // for a minute, then two, then four, publishes even what is in the queue. This waits for no
    // answer of the client library, which gives none to what it had sent before an outage.
    void look() {
        auto const now = Clock::now();
        if (now - looked_ < 200ms) {
            return;
        }
        looked_ = now;
        auto const isLate = [now](Element const& element) {
            return element.isPublished && !element.result && now > element.due;
        };
        std::unique_lock lock(mutex_);
        bool const isAnyLate = std::any_of(elements_.begin(), elements_.end(), isLate);
        lock.unlock();
        auto const info = session_->look(isAnyLate ? subjectOf("*") : "");
        if (!info) {
            return;
        }
        std::set<std::string> queued;
        auto const* const subjects = info->State.Subjects;
        for (int k = 0; subjects != nullptr && k < subjects->Count; ++k) {
            queued.emplace(subjects->List[k].Subject);
        }
        bool const isStuck = isAnyLate && now - progress_.load() > stuck_;
        stuck_ *= isStuck ? 2 : 1;
        std::vector<std::size_t> lost;
        lock.lock();
        for (std::size_t i = 0; isAnyLate && i < elements_.size(); ++i) {
            if (isLate(elements_[i])) {
                elements_[i].due = now + 10s;
                if (!isStuck && queued.contains(subjectOf(std::to_string(i)))) {
                    countStored(i);
                } else {
                    lost.push_back(i);
                }
            }
        }
        isFull_ = std::cmp_greater_equal(info->State.Bytes, session_->limit());
        changed_.notify_all();
        lock.unlock();
        for (std::size_t const i : lost) {
            store(messageOf(i, elements_[i].bytes));
        }
        waitFor(isFull_ ? "the stream has reached its limit (--max-bytes)" : "");
    }

    void receive() {
        for (auto const& message : session_->fetch(256, 100ms)) {
            try {
                count(wordsOf(message.get())[2], resultsOf(message.get()));
            } catch (std::exception const& error) {
                print(ignored(++ignored_, message.get(), error));
            }
            session_->answer(natsMsg_GetReply(message.get()), "+ACK");
        }
        auto const now = Clock::now();
        if (sentinel_->isReleased() && !std::exchange(isReleased_, true)) {
            print("the payload's memory was released after " +
                  fixed(Seconds(now - start_).count(), 2) + " s, when " + sent());
        }
        if (now - printed_ > 1s) {
            printed_ = now;
            print(sent());
        }
    }

    // Counts what a report says of elements that have no result yet. Throws std::runtime_error if
    // it cannot be true.
    void count(std::string const& worker, std::vector<Result> const& results) {
        auto const time = std::chrono::nanoseconds(Clock::now() - start_).count();
        bool const isWorker = isWord(worker);
        std::lock_guard const lock(mutex_);
        for (Result const& result : results) {
            if (result.element >= elements_.size() || !elements_[result.element].isPublished ||
                !isWorker) {
                throw std::runtime_error("it is not on an element that was sent");
            }
            Element& element = elements_[result.element];
            bool const isWhole = result.size == element.size || !result.error.empty();
            if (result.crc32 != element.crc32 || !isWhole || result.delivery == 0 ||
                result.time > static_cast<std::uint64_t>(time)) {
                throw std::runtime_error("it cannot be true");
            }
            if (!element.result) {
                countStored(result.element);
                element.result = result;
                element.worker = worker;
                element.bytes = {};
                unreported_ -= element.size + overhead;
                ++reported_;
                progress_ = Clock::now();
            }
        }
        changed_.notify_all();
    }

    // Called with the reason while servers or workers are away, or servers full.
    void waitFor(std::string const& why) {
        auto const now = Clock::now();
        if (!why.empty() && now - complained_ > 10s) {
            complained_ = now;
            print(why + ": waiting");
        }
        if (stop_.stop_requested()) { // waits ten seconds for the results of what was sent
            stopped_ = std::max(stopped_.value_or(now), progress_.load());
            if (now - *stopped_ > 10s) {
                throw Stopped();
            }
        } else if (now - progress_.load() > std::chrono::seconds(options_.giveUpAfter)) {
            throw std::runtime_error("gave up: nothing was stored or reported for " +
                                     std::to_string(options_.giveUpAfter) + " s; " + sent());
        }
    }

    // Prints the table of the workers. Returns the exit status.
    [[nodiscard]] int conclude() const {
        struct Share {
            std::size_t elements = 0;
            std::size_t bytes = 0;
            Seconds time{};
        };
        std::map<std::string, Share> shares;
        Share all;
        std::size_t repeated = 0;
        for (auto const& element : elements_) {
            if (element.result && element.result->error.empty()) {
                for (Share* const share : {&shares[element.worker], &all}) {
                    ++share->elements;
                    share->bytes += element.size;
                    share->time += std::chrono::nanoseconds(element.result->time);
                }
                repeated += element.result->delivery > 1 ? 1 : 0;
            } else if (element.result) {
                print(element.name + ": cannot be read by " + element.worker + ": " +
                      ascii(element.result->error).substr(0, 500));
            }
        }
        all.time = Clock::now() - start_;
        shares["~"] = all; // sorted behind all names
        std::vector<Row> rows{{"worker", "elements", "bytes", "seconds", "MB/s"}};
        for (auto const& [name, share] : shares) {
            rows.push_back({name == "~" ? "all, from start to end" : name, grouped(share.elements),
                            grouped(share.bytes), fixed(share.time.count(), 2),
                            speed(share.bytes, share.time)});
        }
        std::cout << '\n';
        printTable(std::cout, rows, "<>>>>");
        double const rate = static_cast<double>(all.elements) / all.time.count();
        std::cout << '\n'
                  << all.elements << " of " << counted(elements_.size(), "element") << " decoded, "
                  << repeated << " of them delivered more than once, "
                  << grouped(static_cast<std::size_t>(rate)) << " a second\n";
        if (all.elements == elements_.size()) {
            return 0;
        }
        bool const isStopped = stopped_ && all.elements == reported_;
        print((isStopped ? "stopped when " : "") + sent());
        return isStopped ? 130 : 1;
    }

    [[nodiscard]] std::string sent() const {
        return std::to_string(stored_) + " of " + counted(elements_.size(), "element") + " sent, " +
               std::to_string(reported_) + " reported";
    }

    [[nodiscard]] std::string subjectOf(std::string const& element) const {
        return options_.nats.stream + '.' + run_ + '.' + element;
    }

    static void print(std::string const& text) { std::cerr << "sender: " + text + '\n'; }

    Options const& options_;
    std::string const run_ = randomName();
    stop_source stop_;
    Clock::time_point start_ = Clock::now(); // of sending
    std::vector<GenericSerialiser> serialisers_;
    std::shared_ptr<Sentinel> sentinel_;
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> written_{0};
    std::atomic<std::size_t> published_{0};
    std::atomic<std::size_t> stored_{0};
    std::atomic<Clock::time_point> progress_{start_}; // when something was stored or reported

    std::mutex mutex_; // guards what follows, and standard output
    std::condition_variable changed_;
    std::vector<Element> elements_;
    std::size_t unreported_ = 0; // bytes that were published
    std::size_t window_ = 0;     // the most of them
    bool isFull_ = false;
    bool isStopped_ = false;

    // Used by the main thread only.
    std::size_t reported_ = 0;
    std::size_t ignored_ = 0;
    bool isReleased_ = false;
    Clock::time_point printed_ = start_;
    Clock::time_point looked_{};
    std::chrono::seconds stuck_{60};
    Clock::time_point complained_{};
    std::optional<Clock::time_point> stopped_;

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
    app.add_option("--window", options.window, "The most bytes of elements without a result")
        ->transform(CLI::AsSizeValue(false))
        ->default_str("64MiB");
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
