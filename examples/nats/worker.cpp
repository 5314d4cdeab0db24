// SPDX-License-Identifier: Apache-2.0
// Takes elements from a queue that it shares with other workers, and decodes each in place. Prints
// a line for each: the run, and what is in a Result.

#include "examples/modules/formats/ReadLimit.h"
#include "examples/nats/Session.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <future>
#include <iostream>
#include <map>

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

class Worker {
public:
    Worker(Options const& options, SerialisationCatalogue const& catalogue, stop_token stop)
        : options_(options), catalogue_(catalogue), stop_(std::move(stop)),
          session_(options.nats, "worker", [this](auto const& why) { waitFor(why); }) {
        session_.join("workers", std::chrono::seconds(options.redeliverAfter));
        // Runs before what was registered earlier: a decoder that calls exit() must not look like a
        // worker that has done its work.
        std::atexit([] { isDecoding ? ::_exit(1) : void(); });
    }

    void run() {
        say("ready");
        std::size_t ahead = 1; // elements to take at once
        while (!stop_.stop_requested()) {
            auto messages = session_.fetch(ahead, 500ms);
            auto const start = Clock::now();
            work(messages);
            // None waits here for long while another worker is idle.
            ahead = Clock::now() - start < 200ms ? std::min<std::size_t>(2 * ahead, 256)
                                                 : (ahead + 1) / 2;
        }
    }

private:
    static constexpr auto share = 10ms; // of work between two reports

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

    // Other threads decode, one after the other, while this one tells the servers that it is at
    // work on what it has taken. When a thread ends, its cache of memory is freed, so nothing that
    // it has allocated may outlive it in another cache.
    void work(std::vector<std::shared_ptr<natsMsg>>& messages) {
        auto const interval = std::chrono::milliseconds(options_.redeliverAfter * 1000 / 3);
        auto told = Clock::now();
        for (auto first = messages.begin(); first != messages.end() && !stop_.stop_requested();) {
            auto const start = Clock::now();
            auto part = std::async(std::launch::async, [&, next = first]() mutable {
                isDecoding = true;
                ::alarm(options_.patience + 5); // the system ends a process that hangs
                do {
                    handle(*next);
                } while (++next != messages.end() && Clock::now() - start < share);
                ::alarm(0);
                isDecoding = false;
                report();
                std::for_each(first, next, [&](auto const& each) { answer(each, "+ACK"); });
                return next;
            });
            while (part.wait_until(told + interval) != std::future_status::ready) {
                std::for_each(first, messages.end(),
                              [&](auto const& each) { answer(each, "+WPI"); });
                told = Clock::now();
            }
            // Together, because the client library wakes a thread up that frees them.
            auto const end = part.get();
            std::fill(first, end, nullptr);
            first = end;
            if (Clock::now() - start > 2 * share) {
                ::malloc_trim(0); // so that it does not add to what the next one takes
            }
        }
    }

    void answer(std::shared_ptr<natsMsg> const& message, std::string const& text) const {
        session_.publish(natsMsg_GetReply(message.get()), text);
    }

    void handle(std::shared_ptr<natsMsg> const& message) {
        std::string run;
        Label label;
        Result result{};
        try {
            auto const subject = subjectOf(message.get());
            run = subject[1];
            result.element = number(subject[2]);
            label = labelOf(message.get());
        } catch (std::exception const& error) { // nobody else can read it either
            return say(ignored(++ignored_, message.get(), error));
        }
        ByteBufferView const bytes(textOf(message.get()));
        result.size = bytes.size();
        result.crc = label.crc;
        result.delivery = deliveries(message.get());
        auto const start = Clock::now();
        try {
            if (crc32(bytes) != label.crc) {
                throw std::runtime_error("the bytes are not those that were sent");
            }
            ByteBufferIStreambuf source(std::make_unique<ByteBuffer>(adopt(bytes, message)));
            result.delivery == 1 ? read(label, source) : readInChild(label, source);
        } catch (std::exception const& error) {
            result.why = error.what() == std::string() ? "?" : printable(error.what());
        }
        result.time = static_cast<std::uint64_t>((Clock::now() - start) / 1ns);
        auto const line = lineOf(result);
        std::cout << run << '\t' << line << '\n';
        auto& report = reports_[run];
        report += (report.empty() ? "" : "\n") + line;
    }

    // How often a message was delivered, this time included.
    static std::uint64_t deliveries(natsMsg* message) {
        jsMsgMetaData* data = nullptr;
        natsMsg_GetMetaData(&data, message);
        Owner<jsMsgMetaData, jsMsgMetaData_Destroy> const owner(data);
        return data != nullptr ? data->NumDelivered : 0;
    }

    // What is not acknowledged after it, because this worker fails, another worker gets.
    void report() {
        std::cout.flush();
        for (auto const& [run, text] : reports_) {
            session_.publish(options_.nats.stream + "-reports." + run + '.' + options_.name, text);
        }
        reports_.clear();
    }

    // An element that is delivered again may have crashed a worker. A child process decodes it, so
    // that it crashes no other worker, and the elements taken with it are not delivered again. The
    // child has a result only if it says so, whatever its status.
    void readInChild(Label const& label, std::streambuf& source) const {
        std::array<int, 2> ends{};
        ::pid_t const child = ::pipe(ends.data()) == 0 ? ::fork() : -1;
        if (child < 0) {
            throw std::runtime_error("it was delivered before, and no process can be started");
        }
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::alarm(options_.patience);
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
        ::ssize_t const size = ::read(ends[0], said.data(), said.size() - 1);
        ::close(ends[0]);
        int status = 0;
        ::waitpid(child, &status, 0);
        if (size > 1) {
            throw std::runtime_error(said.data() + 1);
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

    void read(Label const& label, std::streambuf& source) const {
        auto const payload =
            decode(catalogue_.getDeserialiserFor(label.format, label.type), source);
        // Here a real worker would do its work with the payload.
    }

    Options const& options_;
    SerialisationCatalogue const& catalogue_;
    stop_token stop_;
    std::size_t ignored_ = 0;
    bool isWaiting_ = false;
    std::map<std::string, std::string> reports_; // by run
    Session session_;                            // its callbacks use what is above
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
