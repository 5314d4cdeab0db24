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
using namespace std::chrono_literals;
using nats::Clock;

struct Options : Sending {
    nats::Options nats;
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
    std::uint64_t size = 0;
    std::uint64_t crc32 = 0;
    bool isPublished = false;
    bool isStored = false;
    nats::Message message = {};   // kept until there is a result; null while it is being stored
    Clock::time_point since = {}; // when it was stored, or not
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
        try {
            session_.emplace(
                options_.nats, "sender", [this](auto const& why) { waitFor(why); }, acknowledged,
                this);
            session_->join(options_.nats.reports(), "reports-" + run_,
                           options_.nats.reports() + '.' + run_ + ".*", 10s, 24h);
            start_ = Clock::now();
            lookForRoom();
            for (std::size_t i = 0; i < std::min(options_.threads, elements_.size()); ++i) {
                threads_.emplace_back([this] { send(); });
            }
            while (written_ < elements_.size() || reported_ < published_) {
                if (stop_.stop_requested()) {
                    stopSending();
                }
                session_->check();
                receive();
                lookForRoom();
                repeat();
                endIfIdle();
            }
        } catch (Stopped const&) { // before there was a result for everything
        }
        end();
        return conclude();
    }

private:
    static constexpr std::size_t overhead = 4096; // bytes that a message takes beside its element

    void stopSending() {
        stop_.request_stop();
        std::lock_guard const lock(mutex_);
        isStopped_ = true;
        changed_.notify_all();
    }

    // The messages are destroyed before the client library ends.
    void end() {
        stopSending();
        threads_.clear(); // waits for them
        if (session_) {
            session_->leave();
            {
                std::lock_guard const lock(mutex_);
                isOver_ = true;
                for (Element& element : elements_) {
                    element.message.reset();
                }
            }
            session_.reset(); // no callback prints any more
        }
    }

    // Writes and publishes one element after the other, together with other threads.
    void send() {
        for (std::size_t i = next_++; i < elements_.size(); i = next_++) {
            try {
                ByteBuffer const bytes = encode(std::move(serialisers_[i]));
                printWhenReleased();
                publish(i, ByteBufferView(bytes));
            } catch (std::exception const& error) {
                printWhenReleased();
                if (!wasStopped(error)) {
                    ++failed_;
                    print("sender: " + elements_[i].name + ": cannot be sent: " + error.what());
                }
            }
            ++written_;
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
        Element& element = elements_[i];
        auto const sum = crc32(bytes);
        auto message = makeElement(subject() + std::to_string(i),
                                   {element.format, element.typeID, sum}, bytes);
        auto const size = bytes.size() + overhead;
        std::unique_lock lock(mutex_);
        largest_ = std::max(largest_, size);
        changed_.wait(lock, [&] {
            bool const isNext = unreported_ == 0 || unreported_ + size <= options_.window;
            return isStopped_ || (isNext && size <= room_);
        });
        if (isStopped_) {
            return;
        }
        element.size = bytes.size();
        element.crc32 = sum;
        element.isPublished = true;
        room_ -= size;
        unreported_ += size;
        ++published_;
        lock.unlock();
        store(std::move(message));
    }

    void store(nats::Message message) {
        inFlight_ += textOf(message.get()).size() + overhead;
        jsPubOptions options;
        jsPubOptions_Init(&options);
        options.MaxWait = std::chrono::milliseconds(10s).count();
        natsMsg* raw = message.release();
        auto const status = js_PublishMsgAsync(session_->jetStream(), &raw, &options);
        if (status != NATS_OK) {
            session_->note(status, {}, nullptr);
            keep(nats::Message(raw), false);
        }
    }

    static void acknowledged(jsCtx*, natsMsg* message, jsPubAck* ack, jsPubAckErr* error,
                             void* self) {
        auto& run = *static_cast<Run*>(self);
        if (ack == nullptr) {
            run.session_->note(error->Err, error->ErrCode, error->ErrText);
        }
        run.keep(nats::Message(message), ack != nullptr);
    }

    void keep(nats::Message message, bool isStored) {
        inFlight_ -= textOf(message.get()).size() + overhead;
        std::size_t const i = std::stoul(subjectOf(message.get())[2]);
        std::lock_guard const lock(mutex_);
        Element& element = elements_[i];
        element.since = Clock::now();
        if (isStored) {
            countStored(i);
        }
        if (!element.result && !isOver_) {
            element.message = std::move(message);
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
            bytes_ += element.size;
            ++stored_;
            progress_ = Clock::now();
        }
    }

    // Other senders may look at the same time: each may send an eighth of what is left, or one
    // element.
    void lookForRoom() {
        std::unique_lock lock(mutex_);
        if (largest_ <= room_) {
            return;
        }
        lock.unlock();
        auto const info = session_->look();
        if (!info) {
            return;
        }
        auto const used = static_cast<std::size_t>(info->State.Bytes) + inFlight_;
        auto const limit = static_cast<std::size_t>(session_->limit());
        auto const left = limit - std::min(used, limit);
        lock.lock();
        room_ = left / 8;
        if (largest_ <= left && inFlight_ == 0) {
            room_ = std::max(room_, largest_);
        }
        bool const isFull = room_ < largest_ && inFlight_ == 0;
        changed_.notify_all();
        lock.unlock();
        waitFor(isFull ? "the stream " + options_.nats.stream + " has reached its limit " +
                             "(--max-bytes)"
                       : "");
    }

    // Publishes again what the servers have refused or lost, even after they had acknowledged it:
    // what has no result for some time and is not in the queue.
    void repeat() {
        auto const now = Clock::now();
        if (now - repeated_ < 1s) {
            return;
        }
        repeated_ = now;
        std::vector<std::size_t> late;
        {
            std::lock_guard const lock(mutex_);
            for (std::size_t i = 0; i < std::min(next_.load(), elements_.size()); ++i) {
                Element const& element = elements_[i];
                if (element.message && now - element.since > (element.isStored ? 10s : 1s)) {
                    late.push_back(i);
                }
            }
        }
        if (late.empty()) {
            return;
        }
        auto const info = session_->look(subject() + '*');
        std::set<std::string> queued;
        auto const* const list = info ? info->State.Subjects : nullptr;
        for (int k = 0; list != nullptr && k < list->Count; ++k) {
            queued.emplace(list->List[k].Subject);
        }
        for (std::size_t const i : late) {
            std::unique_lock lock(mutex_);
            Element& element = elements_[i];
            if (!info || !element.message) { // no answer, or reported on in the meantime
                continue;
            }
            element.since = now;
            if (queued.contains(subject() + std::to_string(i))) {
                countStored(i);
            } else {
                auto message = std::move(element.message);
                lock.unlock();
                store(std::move(message));
            }
        }
    }

    void receive() {
        for (auto const& message : session_->fetch(256, 100ms)) {
            try {
                count(subjectOf(message.get())[2], resultsOf(message.get()));
            } catch (std::exception const& error) {
                print("ignored, message " + std::to_string(++ignored_) + ": " +
                      ascii({natsMsg_GetSubject(message.get()), error.what()}).substr(0, 500));
            }
            session_->answer(natsMsg_GetReply(message.get()), "+ACK");
        }
        auto const now = Clock::now();
        if (now - printed_ > 1s) {
            printed_ = now;
            print(sent() + ", " + grouped(bytes_ / 1'000'000) + " MB; " +
                  std::to_string(reported_) + " reported");
        }
    }

    // Counts what a report says of elements that have no result yet. Throws std::runtime_error if
    // it cannot be true.
    void count(std::string const& worker, std::vector<Result> const& results) {
        auto const time = std::chrono::nanoseconds(Clock::now() - start_).count();
        std::lock_guard const lock(mutex_);
        for (Result const& result : results) {
            if (result.element >= elements_.size() || !elements_[result.element].isPublished ||
                !isWorkerName(worker)) {
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
                element.message.reset();
                unreported_ -= element.size + overhead;
                ++reported_;
                progress_ = Clock::now();
            }
        }
        changed_.notify_all();
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
        auto const idle = now - progress_.load();
        if (stop_.stop_requested()) {
            stopped_ = std::max(stopped_.value_or(now), progress_.load());
            if (now - *stopped_ > 10s) {
                throw Stopped();
            }
        } else if (idle > std::chrono::seconds(options_.giveUpAfter)) {
            throw std::runtime_error("gave up: nothing was stored or reported for " +
                                     std::to_string(options_.giveUpAfter) + " s; " + sent() + ", " +
                                     std::to_string(reported_) + " reported");
        } else if (idle > 10s && now - complained_ > 10s) {
            complained_ = now;
            print("sender: no worker has reported for 10 s: waiting");
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
        for (Element const& element : elements_) {
            if (element.result && element.result->error.empty()) {
                Share& share = shares[element.worker];
                ++share.elements, ++all.elements;
                share.bytes += element.size, all.bytes += element.size;
                share.time += std::chrono::nanoseconds(element.result->time);
                repeated += element.result->delivery > 1 ? 1 : 0;
            } else if (element.result) {
                print("sender: " + element.name + ": cannot be read by " + element.worker + ": " +
                      ascii(element.result->error).substr(0, 500));
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
                  << all.elements << " of " << counted(elements_.size(), "element") << " decoded, "
                  << repeated << " of them delivered more than once, "
                  << grouped(static_cast<std::size_t>(rate)) << " a second\n";
        if (all.elements == elements_.size()) {
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
        return std::to_string(stored_) + " of " + counted(elements_.size(), "element") + " sent";
    }

    [[nodiscard]] std::string subject() const { return options_.nats.stream + '.' + run_ + '.'; }

    static void print(std::string const& text) { std::cerr << text + '\n'; }

    Options const& options_;
    std::string const run_ = nats::randomName();
    stop_source stop_;
    Clock::time_point start_ = Clock::now(); // of sending
    std::vector<GenericSerialiser> serialisers_;
    std::shared_ptr<Sentinel> sentinel_;
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> written_{0};
    std::atomic<std::size_t> published_{0};
    std::atomic<std::size_t> stored_{0};
    std::atomic<std::size_t> failed_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<std::size_t> inFlight_{0}; // bytes on their way to the servers
    std::atomic<bool> isReleased_{false};
    std::atomic<Clock::time_point> progress_{start_}; // when something was stored or reported

    std::mutex mutex_; // guards what follows, and standard output
    std::condition_variable changed_;
    std::vector<Element> elements_;
    std::size_t unreported_ = 0; // bytes that were published
    std::size_t room_ = 0;       // bytes to publish before looking for room again
    std::size_t largest_ = 1;    // bytes of an element so far
    bool isStopped_ = false;
    bool isOver_ = false;

    // Used by the main thread only.
    std::size_t reported_ = 0;
    std::size_t ignored_ = 0;
    Clock::time_point printed_ = start_;
    Clock::time_point repeated_ = start_;
    Clock::time_point complained_{};
    std::optional<Clock::time_point> stopped_;

    std::optional<nats::Session> session_; // its callbacks use what is above
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
