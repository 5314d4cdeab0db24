// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_NATS_SESSION_H
#define COURIER_EXAMPLES_NATS_SESSION_H

#include <CLI/CLI.hpp>
#include <nats/nats.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace courier::examples::nats {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

template <auto destroy> struct Destroy {
    template <class T> void operator()(T* object) const noexcept { destroy(object); }
};
template <class T, auto destroy> using Owner = std::unique_ptr<T, Destroy<destroy>>;
using Message = Owner<natsMsg, natsMsg_Destroy>;
using StreamInfo = Owner<jsStreamInfo, jsStreamInfo_Destroy>;

constexpr std::size_t overhead = 4096; // bytes of a message beside its data, at most

/// The servers, how to log in, and the streams. NATS_PASSWORD and NATS_TOKEN are read from the
/// environment, because every user of a machine can read command lines.
struct Servers {
    std::vector<std::string> urls{"nats://localhost:4222"}; // several of one cluster
    std::string ca;
    std::string credentials;
    std::string user;
    std::string stream = "elements";
    int replicas = 3;
    std::int64_t maxBytes = std::int64_t{1} << 30;

    void addTo(CLI::App& app);
    [[nodiscard]] std::string reports() const { return stream + "-reports"; }
};

/// One connection to a cluster, and its streams of elements and of reports. Both are work queues:
/// the servers remove what was acknowledged.
///
/// Whatever fails because servers are away or full is repeated for ever. What no waiting mends
/// throws std::runtime_error, without passwords and tokens. answer() and note() are thread-safe;
/// the others are for one thread. One session at a time in a process.
class Session {
public:
    /// Called with the reason before each repetition, and with an empty text when the servers
    /// answer. What it throws ends the waiting.
    using Waiting = std::function<void(std::string const& why)>;

    /// Makes the streams that do not exist yet. The session receives at _INBOX.`role`.> only.
    /// `handler` learns what became of what was published through jetStream().
    Session(Servers const& servers, std::string const& role, Waiting waiting,
            jsPubAckHandler handler = nullptr, void* closure = nullptr);
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;
    ~Session();

    /// Takes the messages of `subject` from now on, together with all sessions that join a queue of
    /// this name. The servers deliver again what is not answered in time, and remove a queue that
    /// nobody has used for `lifeTime`, unless that is 0.
    void join(std::string const& stream, std::string const& queue, std::string const& subject,
              std::chrono::seconds redeliverAfter, std::chrono::seconds lifeTime);

    /// The messages that are there, at most so many, or else the next one; none after `time`.
    [[nodiscard]] std::vector<Message> fetch(std::size_t atMost, std::chrono::milliseconds time);

    /// Answers a message: "+ACK" means done, "+WPI" still at work. An answer that is lost costs a
    /// second delivery.
    void answer(std::string const& reply, char const* word) const;

    void store(std::string const& subject, std::string const& text);

    /// The state of the stream of elements, with the subjects of `filter`, if it is not empty, that
    /// have messages. Null if the servers do not answer.
    [[nodiscard]] StreamInfo look(std::string const& filter = {});

    /// Throws std::length_error, which names the setting, if so many bytes are too long a message.
    void requireRoom(std::size_t bytes) const;

    /// Notes why an asynchronous publication failed, for the next check().
    void note(natsStatus status, jsErrCode code, char const* detail);

    /// Throws if the servers have refused something for good.
    void check();

    [[nodiscard]] jsCtx* jetStream() const { return jetStream_.get(); }
    [[nodiscard]] std::int64_t limit() const { return limit_; } // bytes of all elements

private:
    void connect(Servers const& servers);
    void makeStream(std::string const& name, std::int64_t maxBytes, int replicas);
    void attempt(std::string const& what, std::function<natsStatus(jsErrCode&)> const& call);
    [[nodiscard]] natsStatus request(std::size_t atMost, std::chrono::milliseconds time);
    static void refused(natsConnection* connection, natsSubscription*, natsStatus status,
                        void* self);

    std::string const inbox_;
    Waiting waiting_;
    std::string stream_;     // of elements
    std::int64_t limit_ = 0; // bytes of this stream
    std::string queue_;      // and its stream, as in subjects: STREAM.QUEUE
    std::size_t requests_ = 0;
    std::string reply_;    // to the latest request
    bool isAhead_ = false; // the latest request is for the next fetch()
    Clock::time_point answered_;

    std::mutex mutex_;    // guards what callbacks write:
    std::string error_;   // permanent
    std::string trouble_; // passing

    Owner<natsConnection, natsConnection_Destroy> connection_;
    Owner<jsCtx, jsCtx_Destroy> jetStream_;
    Owner<natsSubscription, natsSubscription_Destroy> subscription_;
};

/// How often a message of a queue was delivered, this time included; 0 if it is of no queue.
[[nodiscard]] std::uint64_t deliveries(natsMsg* message);

/// 16 random hexadecimal digits.
[[nodiscard]] std::string randomName();

/// Whether it has only letters, digits, - and _, as names in subjects must.
[[nodiscard]] bool isWord(std::string const& text);

/// The same, for an option.
[[nodiscard]] std::string requireWord(std::string const& text);

} // namespace courier::examples::nats

#endif
