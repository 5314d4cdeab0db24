// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_NATS_SESSION_H
#define COURIER_EXAMPLES_NATS_SESSION_H

#include <CLI/CLI.hpp>
#include <nats/nats.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace courier::examples::nats {

using Clock = std::chrono::steady_clock;

template <auto destroy> struct Destroy {
    template <class T> void operator()(T* object) const noexcept { destroy(object); }
};
template <class T, auto destroy> using Owner = std::unique_ptr<T, Destroy<destroy>>;
using Message = Owner<natsMsg, natsMsg_Destroy>;

/// What no waiting mends. The message has no passwords and tokens.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The servers, how to log in, and the streams. NATS_PASSWORD and NATS_TOKEN are read from the
/// environment, because every user of a machine can read command lines.
struct Options {
    std::vector<std::string> urls{"nats://localhost:4222"}; // several of one cluster
    std::string ca;
    std::string credentials;
    std::string user;
    std::string stream = "elements";
    int replicas = 3;
    std::int64_t maxBytes = std::int64_t{1} << 30;
    int redeliverAfter = 10; // seconds

    void addTo(CLI::App& app);
    [[nodiscard]] std::string reports() const { return stream + "-reports"; }
};

/// Some messages of a stream. The servers deliver each to one session, and again after some time,
/// until it is acknowledged.
struct Queue {
    std::string stream;
    std::string name;
    std::string subject;
    std::chrono::seconds redeliverAfter{10};
    std::chrono::seconds lifeTime{0}; // removed if unused for so long; 0: never
};

/// One connection to a cluster, and its streams of elements and of reports. Both are work queues:
/// the servers remove what was acknowledged.
///
/// Whatever fails because servers are away or full is repeated for ever. What cannot succeed throws
/// Error, as does everything once the servers have denied a permission. publish(), stop() and
/// answer() are thread-safe; the others are for one thread. One session at a time in a process.
class Session {
public:
    /// Called with the reason before each repetition, and with an empty text when the servers
    /// answer. What it throws ends the waiting.
    using Waiting = std::function<void(std::string const& why)>;
    /// Called on a thread of the client when a message is stored on a majority of the servers.
    using Stored = std::function<void(std::string const& subject)>;

    /// Makes the streams that do not exist yet. The session receives at _INBOX.`role`.> only.
    Session(Options const& options, std::string role, Waiting waiting, Stored stored = {});
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;
    ~Session();

    /// Takes messages from this queue from now on. Makes it if it does not exist.
    void join(Queue const& queue);

    /// The messages that are there, at most so many, or else the next one; none after `time`.
    [[nodiscard]] std::vector<Message> fetch(std::size_t atMost, std::chrono::milliseconds time);

    /// Answers a message: "+ACK" means done, "-NAK" deliver again, "+WPI" still at work. An answer
    /// that is lost costs a second delivery.
    void answer(std::string const& reply, char const* word) const;

    /// Removes the queue, if the servers answer.
    void leave() const;

    /// Stores a message.
    void store(std::string const& subject, std::string const& text);

    /// Sends a message to be stored, without waiting for that, but waits while 32 MiB are not.
    /// False if sending was stopped: it is not sent then.
    [[nodiscard]] bool publish(Message message);
    void stop();

    /// Sends again what could not be stored. To be called repeatedly.
    void resend();

    /// Throws std::length_error, which names the setting, if so many bytes are too long a message.
    void requireRoom(std::size_t bytes) const;

private:
    static void acknowledged(jsCtx*, natsMsg* raw, jsPubAck* ack, jsPubAckErr* error, void* self);
    static void delivered(natsConnection*, natsSubscription*, natsMsg* raw, void* self);
    static void warned(natsConnection* connection, natsSubscription*, natsStatus status,
                       void* self);
    static void closed(natsConnection* connection, void* self);

    void connect(Options const& options);
    void makeStream(std::string const& name, std::int64_t maxBytes, int replicas);
    void attempt(std::string const& what, std::function<natsStatus(jsErrCode&)> const& call);
    void send(Message message);
    void lookForRoom();
    void failed(Message message, natsStatus status, jsErrCode code, char const* detail);
    [[nodiscard]] std::vector<Message> request(std::size_t atMost, std::string const& condition,
                                               std::chrono::milliseconds time);
    void throwIfFailed() const;

    std::string const role_;
    Waiting waiting_;
    Stored stored_;
    Queue queue_;
    std::string inbox_;
    std::size_t requests_ = 0;
    std::string stream_;       // of elements
    std::int64_t limit_ = 0;   // bytes of this stream
    std::int64_t longest_ = 0; // bytes of a message

    mutable std::mutex mutex_; // guards what follows, up to the connection
    std::condition_variable changed_;
    std::string error_;            // permanent
    std::string trouble_;          // why messages are not stored
    std::vector<Message> failed_;  // to be sent again
    std::size_t pendingBytes_ = 0; // sent, but not stored
    std::size_t allowed_ = 0;      // bytes to send before looking for room again
    std::size_t wanted_ = 0;       // by an element that waits
    bool isStopped_ = false;
    std::deque<Message> messages_; // received
    std::string request_;          // the subject of answers to the latest request
    std::string answer_;           // the status that ended it

    Owner<natsConnection, natsConnection_Destroy> connection_;
    Owner<jsCtx, jsCtx_Destroy> jetStream_;
    Owner<natsSubscription, natsSubscription_Destroy> subscription_;
};

/// How often a message of a queue was delivered, this time included; 0 if it is of no queue.
[[nodiscard]] std::uint64_t deliveries(natsMsg* message);

/// 16 random hexadecimal digits.
[[nodiscard]] std::string randomName();

} // namespace courier::examples::nats

#endif
