// SPDX-License-Identifier: Apache-2.0
// Takes elements from a queue that it shares with other workers, and decodes each in place. Prints
// a line for each: run, element, wire format, bytes, CRC-32, how often it was delivered.

#include "examples/modules/formats/ReadLimit.h"
#include "examples/nats/Messages.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <iostream>
#include <map>
#include <thread>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;
using namespace courier::examples::nats;

struct Options {
    Servers nats;
    std::string name;
    std::uint64_t readLimit = defaultReadLimit;
    int redeliverAfter = 10; // seconds
    unsigned patience = 600; // seconds that decoding one element may take
};

struct Stopped {}; // thrown after Control-C, while servers are away

std::atomic<bool> isDecoding = false; // in this process

// Returns what a large element took to the system, so that it does not add to the next one. The
// small blocks among it that this thread's cache keeps are taken out and freed by another thread,
// whose cache ends with it.
void releaseMemory() {
    std::vector<void*> blocks;
    for (std::size_t i = 0; i < std::size_t{64} * 7; ++i) { // seven of each size
        blocks.push_back(std::malloc(i / 7 * 16 + 24));
    }
    std::thread([&] { std::for_each(blocks.begin(), blocks.end(), std::free); }).join();
    ::malloc_trim(0);
}

class Worker {
public:
    Worker(Options const& options, SerialisationCatalogue const& catalogue, stop_token stop)
        : options_(options), catalogue_(catalogue), stop_(std::move(stop)),
          session_(options.nats, "worker", [this](auto const& why) { waitFor(why); }) {
        session_.join(options.nats.stream, "workers", options.nats.stream + ".>",
                      std::chrono::seconds(options.redeliverAfter), 0s);
        // Runs before what was registered earlier: a decoder that calls exit() must not look like a
        // worker that has done its work.
        std::atexit([] { isDecoding ? ::_exit(1) : void(); });
        watching_ = std::jthread([this](std::stop_token const& end) { watch(end); });
    }

    void run() {
        say("ready");
        std::size_t ahead = 1; // elements to take at once
        while (!stop_.stop_requested()) {
            auto messages = session_.fetch(ahead, 500ms);
            take(messages);
            auto const start = Clock::now();
            std::size_t handled = 0;
            for (; handled < messages.size() && !stop_.stop_requested(); ++handled) {
                handle(std::move(messages[handled]));
                if (Clock::now() - reported_ > share) {
                    report();
                }
            }
            report();
            if (handled != 0) {
                auto const each = (Clock::now() - start) / handled + 1us;
                ahead = std::clamp<std::size_t>(share / each, 1, std::min(4 * ahead, most));
            }
        }
    }

private:
    // A worker takes as many elements as it decodes in this time, so that none waits here for long
    // while another worker is idle, and reports as often.
    static constexpr Clock::duration share = 200ms;
    static constexpr std::size_t most = 256;

    void say(std::string const& text) const { std::cerr << options_.name + ": " + text + '\n'; }

    void waitFor(std::string const& why) {
        if (!why.empty() && !isWaiting_) {
            say(why + ": waiting");
        }
        isWaiting_ = !why.empty();
        if (isWaiting_ && stop_.stop_requested()) {
            throw Stopped();
        }
    }

    // Tells the servers repeatedly that this worker is at work on what it has taken.
    void watch(std::stop_token const& end) {
        auto const interval = std::chrono::milliseconds(options_.redeliverAfter * 1000 / 3);
        std::unique_lock lock(mutex_);
        while (!changed_.wait_for(lock, end, interval, [&] { return end.stop_requested(); })) {
            for (auto const& reply : inHand_) {
                session_.answer(reply, "+WPI");
            }
        }
    }

    void take(std::vector<Message> const& messages) {
        std::lock_guard const lock(mutex_);
        inHand_.clear();
        for (auto const& message : messages) {
            inHand_.emplace_back(natsMsg_GetReply(message.get()));
        }
    }

    void handle(Message message) {
        std::string const reply = natsMsg_GetReply(message.get());
        std::string run;
        Label label;
        Result result;
        try {
            auto const words = wordsOf(message.get());
            run = words[1];
            result.element = whole(Json::parse(words[2]));
            label = labelOf(message.get());
        } catch (std::exception const& error) {
            say(ignored(++ignored_, message.get(), error));
            session_.answer(reply, "+ACK"); // nobody else can read it either
            return;
        }
        ByteBufferView const bytes(textOf(message.get()));
        result.size = bytes.size();
        result.crc32 = std::get<2>(label);
        result.delivery = deliveries(message.get());
        auto const start = Clock::now();
        try {
            ByteBufferIStreambuf source(
                std::make_unique<ByteBuffer>(adopt(bytes, std::move(message))));
            if (crc32(bytes) != result.crc32) {
                throw std::runtime_error("the bytes are not those that were sent");
            }
            result.delivery > 1 ? readInChild(label, source) : read(label, source);
        } catch (std::exception const& error) {
            result.error = error.what() + std::string(*error.what() == '\0', '?');
        }
        auto const time = Clock::now() - start;
        result.time = static_cast<std::uint64_t>(std::chrono::nanoseconds(time).count());
        if (time > 10ms) {
            releaseMemory();
        }
        std::cout << (result.error.empty() ? "decoded " : "failed ") + run + ' ' << result.element
                  << ' ' << ascii(std::get<0>(label)) << ' ' << result.size << ' ' << result.crc32
                  << ' ' << result.delivery << '\n';
        auto& [replies, results] = done_[run];
        replies.push_back(reply);
        results.push_back(std::move(result));
    }

    // Acknowledged last, when the results are stored. Until then another worker gets the elements
    // if this one fails.
    void report() {
        std::cout.flush();
        for (auto const& [run, each] : done_) {
            session_.store(options_.nats.reports() + '.' + run + '.' + options_.name,
                           ascii(each.second));
            for (auto const& reply : each.first) {
                session_.answer(reply, "+ACK");
            }
        }
        done_.clear();
        reported_ = Clock::now();
    }

    // An element that is delivered again may have crashed a worker. A child process decodes it, so
    // that it crashes no other worker, and the elements taken with it are not delivered again. The
    // child has a result only if it says so, whatever its status.
    void readInChild(Label const& label, std::streambuf& source) {
        std::array<int, 2> ends{};
        ::pid_t const child = ::pipe(ends.data()) == 0 ? ::fork() : -1;
        if (child < 0) {
            throw std::runtime_error("it was delivered before, and no process can be started");
        }
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::string said = "=";
            try {
                read(label, source);
            } catch (std::exception const& error) {
                said += error.what();
            }
            ::_exit(::write(ends[1], said.data(), said.size()) > 0 ? 0 : 1);
        }
        ::close(ends[1]);
        std::array<char, 1000> said{}; // as much as is printed, and more
        ::ssize_t const size = ::read(ends[0], said.data(), said.size());
        ::close(ends[0]);
        int status = 0;
        ::waitpid(child, &status, 0);
        if (size > 1) {
            throw std::runtime_error(
                std::string(said.data() + 1, static_cast<std::size_t>(size) - 1));
        }
        int const number = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        if (number == SIGALRM) {
            throw std::runtime_error("decoding it took longer than " +
                                     std::to_string(options_.patience) + " s");
        }
        if (size < 1) {
            throw std::runtime_error(
                "decoding it ended the process" +
                (number != 0 ? " with signal " + std::to_string(number) : std::string()));
        }
    }

    // The system ends a process whose decoder hangs.
    void read(Label const& label, std::streambuf& source) const {
        auto const& [wireFormat, type, sum] = label;
        struct Guard {
            explicit Guard(unsigned seconds) { isDecoding = true, ::alarm(seconds); }
            ~Guard() { isDecoding = false, ::alarm(0); }
        } const guard(options_.patience);
        auto const payload = decode(catalogue_.getDeserialiserFor(wireFormat, type), source);
        // Here a real worker would do its work with the payload.
    }

    Options const& options_;
    SerialisationCatalogue const& catalogue_;
    stop_token stop_;
    std::size_t ignored_ = 0;
    bool isWaiting_ = false;
    // By run: the replies of elements that are done, and the results.
    std::map<std::string, std::pair<std::vector<std::string>, std::vector<Result>>> done_;
    Clock::time_point reported_ = Clock::now();

    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::vector<std::string> inHand_; // replies of the elements that were taken last

    Session session_; // its callbacks use what is above
    std::jthread watching_;
};

} // namespace

int main(int argc, char** argv) {
    Options options;
    options.name = "worker-" + randomName();
    ::mallopt(M_MMAP_THRESHOLD, 1 << 16); // large blocks return to the system at once
    CLI::App app("Decodes the elements that senders put into a stream, together with all other "
                 "workers of it, until Control-C.",
                 "worker");
    options.nats.addTo(app);
    app.add_option("-n,--name", options.name, "What the sender's table calls it")
        ->check(requireWord)
        ->capture_default_str();
    app.add_option("--redeliver-after", options.redeliverAfter,
                   "Seconds without a sign of life until an element goes to another worker")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_option("--patience", options.patience, "Seconds that decoding one element may take")
        ->check(CLI::Range(1, 1'000'000))
        ->capture_default_str();
    addReadLimit(app, options.readLimit);
    return run(app, argc, argv, options.name, options.readLimit,
               [&](auto const& catalogue, stop_source const& stop) {
                   try {
                       Worker(options, catalogue, stop.get_token()).run();
                   } catch (Stopped const&) { // what it has in hand goes to other workers
                   }
                   return 0;
               });
}
