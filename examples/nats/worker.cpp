// SPDX-License-Identifier: Apache-2.0
// Takes elements from a queue that it shares with other workers, and decodes each in place. Prints
// a line for each: the run, and what it reports.

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
#include <span>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;
using namespace courier::examples::nats;

struct Options {
    Servers nats;
    std::string name = "worker-" + randomName();
    std::uint64_t readLimit = defaultReadLimit;
    int redeliverAfter = 10; // seconds
    unsigned patience = 600; // seconds that decoding one element may take
};

std::atomic<bool> isDone = false;

class Worker {
public:
    Worker(Options const& options, SerialisationCatalogue const& catalogue, stop_token stop)
        : options_(options), catalogue_(catalogue), stop_(std::move(stop)),
          session_(options.nats, "worker", [this](auto const& why) { waitFor(why); }) {
        session_.join("workers", std::chrono::seconds(options.redeliverAfter));
    }

    void run() {
        // A decoder that calls exit() must not look like a worker that has done its work.
        std::atexit([] { isDone ? void() : ::_exit(1); });
        say("ready");
        std::size_t ahead = 1; // elements to take at once
        while (!stop_.stop_requested()) {
            auto const messages = session_.fetch(ahead, 500ms);
            auto const start = Clock::now();
            work(messages);
            // None waits here for long while another worker is idle.
            ahead = Clock::now() - start < 200ms ? std::min<std::size_t>(2 * ahead, 256)
                                                 : (ahead + 1) / 2;
        }
        isDone = true;
    }

private:
    void say(std::string const& text) const { std::cerr << options_.name + ": " + text + '\n'; }

    void waitFor(std::string const& why) {
        if (!why.empty() && !isWaiting_) {
            say(why + ": waiting");
        }
        isWaiting_ = !why.empty();
        if (isWaiting_ && stop_.stop_requested()) {
            ::_exit(0); // what it has in hand goes to other workers
        }
    }

    // Other threads decode, one after the other, while this one tells the servers that it is at
    // work on what it has taken. When a thread ends, its cache of memory is freed, so nothing that
    // it has allocated may outlive it in another cache. The messages live until all are done: the
    // client library frees them in a thread of its own, and waking that up for each takes long.
    void work(Messages const& messages) {
        auto const interval = std::chrono::milliseconds(options_.redeliverAfter * 1000 / 3);
        auto told = Clock::now();
        for (auto first = messages.begin(); first != messages.end() && !stop_.stop_requested();) {
            auto const start = Clock::now();
            auto part = std::async(std::launch::async, [&, next = first]() mutable {
                ::alarm(options_.patience + 5); // the system ends a process that hangs
                do {
                    handle(*next);
                } while (++next != messages.end() && Clock::now() - start < 10ms);
                ::alarm(0);
                report();
                answer({first, next}, "+ACK");
                return next;
            });
            while (part.wait_until(told + interval) != std::future_status::ready) {
                answer({first, messages.end()}, "+WPI");
                told = Clock::now();
            }
            first = part.get(); // the thread has ended
            if (Clock::now() - start > 20ms) {
                ::malloc_trim(0); // so that it does not add to what the next one takes
            }
        }
    }

    void publish(std::string const& subject, std::string const& text) const {
        natsConnection_PublishString(session_.connection(), subject.c_str(), text.c_str());
    }

    void answer(std::span<std::shared_ptr<natsMsg> const> messages, std::string const& text) const {
        for (auto const& message : messages) {
            publish(natsMsg_GetReply(message.get()), text);
        }
    }

    void handle(std::shared_ptr<natsMsg> const& message) {
        std::string run;
        std::string element;
        Label label;
        try {
            std::tie(run, element) = subjectOf(message.get());
            std::ignore = number(element);
            label = labelOf(message.get());
        } catch (std::exception const& error) { // nobody else can read it either
            return say(ignored(++ignored_, message.get(), error));
        }
        ByteBufferView const bytes(textOf(message.get()));
        jsMsgMetaData* data = nullptr;
        natsMsg_GetMetaData(&data, message.get());
        Owner<jsMsgMetaData, jsMsgMetaData_Destroy> const owner(data);
        auto const delivery = data != nullptr ? data->NumDelivered : 0;
        auto const start = Clock::now();
        auto const why =
            delivery == 1 ? read(label, bytes, message) : readInChild(label, bytes, message);
        auto const time = (Clock::now() - start) / 1ns;
        auto const line = join({element, std::to_string(bytes.size()), std::to_string(label.crc),
                                std::to_string(delivery), std::to_string(time), printable(why)},
                               "\t");
        std::cout << run << '\t' << line << '\n';
        auto& report = reports_[run];
        report += (report.empty() ? "" : "\n") + line;
    }

    // Returns why it cannot be read, or an empty text.
    std::string read(Label const& label, ByteBufferView bytes,
                     std::shared_ptr<natsMsg> message) const {
        try {
            if (crc32(bytes) != label.crc) {
                return "the bytes are not those that were sent";
            }
            auto const deserialise = catalogue_.getDeserialiserFor(label.format, label.type);
            ByteBufferIStreambuf source(std::make_unique<ByteBuffer>(adopt(bytes, message)));
            auto const payload = decode(deserialise, source);
            // Here a real worker would do its work with the payload.
            return "";
        } catch (std::exception const& error) {
            return error.what() + std::string(*error.what() == '\0' ? "?" : "");
        }
    }

    // An element that is delivered again may have crashed a worker. A child process reads it, so
    // that it crashes no other worker, and the elements taken with it are not delivered again. The
    // child has a result only if it says so, whatever its status.
    std::string readInChild(Label const& label, ByteBufferView bytes,
                            std::shared_ptr<natsMsg> const& message) const {
        std::array<int, 2> ends{};
        ::pid_t const child = ::pipe(ends.data()) == 0 ? ::fork() : -1;
        if (child < 0) {
            return "it was delivered before, and no process can be started";
        }
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::alarm(options_.patience);
            auto const why = '=' + read(label, bytes, message);
            ::_exit(::write(ends[1], why.data(), why.size()) > 0 ? 0 : 1);
        }
        ::close(ends[1]);
        std::array<char, 1000> why{}; // as much as is printed, and more
        ::ssize_t const size = ::read(ends[0], why.data(), why.size() - 1);
        ::close(ends[0]);
        int status = 0;
        ::waitpid(child, &status, 0);
        if (size > 0) {
            return why.data() + 1;
        }
        int const signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        return signal == SIGALRM
                   ? "decoding it took longer than " + std::to_string(options_.patience) + " s"
                   : "decoding it ended the process with signal " + std::to_string(signal);
    }

    // What is not acknowledged after it, because this worker fails, another worker gets.
    void report() {
        std::cout.flush();
        for (auto const& [run, text] : reports_) {
            publish(options_.nats.stream + "-reports." + run + '.' + options_.name, text);
        }
        reports_.clear();
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
                   Worker(options, catalogue, stop.get_token()).run();
                   return 0;
               });
}
