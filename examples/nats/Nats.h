// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_NATS_NATS_H
#define COURIER_EXAMPLES_NATS_NATS_H

#include <nats/nats.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// The C client library of NATS for C++: owning handles, and exceptions that say what failed.

namespace courier::examples::nats {

template <auto destroy> struct Destroy {
    template <class T> void operator()(T* object) const noexcept { destroy(object); }
};

using Connection = std::unique_ptr<natsConnection, Destroy<natsConnection_Destroy>>;
using JetStream = std::unique_ptr<jsCtx, Destroy<jsCtx_Destroy>>;
using Message = std::unique_ptr<natsMsg, Destroy<natsMsg_Destroy>>;
using Options = std::unique_ptr<natsOptions, Destroy<natsOptions_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Destroy<natsSubscription_Destroy>>;

using Clock = std::chrono::steady_clock;

/// Its message is "cannot ", what failed, and the reason.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Throws Error with what was tried and the client library's text, unless the status is NATS_OK.
void require(natsStatus status, std::string const& what, jsErrCode code = {});

/// The servers, and how to log in. Empty strings are not used.
struct Access {
    std::vector<std::string> urls{"nats://localhost:4222"}; // several of one cluster
    std::string ca; // a file of certificates that sign the servers', instead of the system's
    std::string credentials; // a file
    std::string user;
    std::string password;
    std::string token;
};

/// A stream of messages that the servers keep for a day.
struct Stream {
    std::string name;
    std::vector<std::string> subjects;
    int replicas;               // servers that hold each message
    std::int64_t maxBytes = -1; // no limit
};

/// A queue of a stream's messages.
struct Queue {
    std::string stream;
    std::string name;
    std::string subject;
    std::chrono::seconds patience{30}; // redelivers a message that is not acknowledged in time
    std::int64_t attempts = -1;        // deliveries of one message; no limit
    std::chrono::seconds lifeTime{0};  // removed if unused for so long; 0: never
    bool isNewOnly = false;            // without the messages that are already in the stream
};

/// Takes messages from a queue. Each message is delivered to one consumer. Thread-compatible. Must
/// not outlive its session.
///
/// It sends the server's requests and reads the answers itself: the client's own function writes
/// past the end of its list when answers to an earlier request are late.
class Subscriber {
public:
    Subscriber(natsConnection& connection, Queue const& queue);

    /// Waits for messages, and returns those that are there, at most so many; none after `time`.
    /// Throws Error if the queue cannot be reached for a minute, or if the connection is lost for
    /// good.
    [[nodiscard]] std::vector<Message>
    take(int atMost, std::chrono::milliseconds time = std::chrono::milliseconds(500));

private:
    std::vector<Message> request(int atMost, std::string const& condition,
                                 std::chrono::milliseconds time);

    natsConnection& connection_;
    std::string const name_;
    std::string const request_; // the subject of requests
    std::string inbox_;
    Subscription subscription_;
    Clock::time_point lastAnswer_ = Clock::now();
};

/// The subject for answers to a message of a queue: "+ACK" means done, "-NAK" deliver again,
/// "+TERM" never again, "+WPI" still at work.
[[nodiscard]] std::string replySubject(natsMsg* message);

/// How often a message of a queue was delivered, this time included.
[[nodiscard]] std::uint64_t deliveries(natsMsg* message);

/// One connection to a cluster, and its JetStream. Finds another server when its own is lost.
///
/// A failing operation is repeated for a minute, longer than a cluster takes to elect new leaders,
/// and then throws Error. Permanent errors throw at once. Thread-safe. One session at a time in a
/// process.
class Session {
public:
    explicit Session(Access const& access);
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;
    ~Session();

    /// Create what does not exist yet.
    void make(Stream const& stream) const;
    void make(Queue const& queue) const;

    [[nodiscard]] Subscriber join(Queue const& queue) const;

    /// Called when a message is stored, with its number in the stream, on a thread of the client.
    using Stored = std::function<void(std::uint64_t number)>;

    /// Sends a message to be stored on a majority of the stream's servers, without waiting for
    /// that. Waits while 4,096 messages or 32 MiB are unconfirmed. A message is stored once for
    /// each subject, if two attempts are at most two minutes apart. Throws Error, even for an
    /// earlier message.
    void publish(Message message, Stored stored);

    /// Waits until everything that was published is stored, or everything whose subject begins with
    /// `prefix`, or until `time` has passed.
    void settle(std::chrono::milliseconds time, std::string const& prefix = {});

    /// Makes every publish() and settle() throw Error, even those that are waiting. When it
    /// returns, nothing is sent or repeated any more.
    void giveUp(std::string const& why);

    /// Since when the servers have refused messages because they are full, if they do.
    [[nodiscard]] std::optional<Clock::time_point> fullSince() const;

    /// Answers a message of a queue. An answer that is lost costs a second delivery.
    void answer(std::string const& reply, char const* word) const;

    /// The message with this number, or the last one with this subject; null if there is none.
    [[nodiscard]] Message find(std::string const& stream, std::uint64_t sequence) const;
    [[nodiscard]] Message find(std::string const& stream, std::string const& subject) const;

    /// Removes one message, if it is there.
    void remove(std::string const& stream, std::uint64_t number) const;

    /// Removes the messages with this subject.
    void purge(std::string const& stream, std::string const& subject) const;

    void removeQueue(std::string const& stream, std::string const& name) const;

    /// The longest message that the server takes, headers included.
    [[nodiscard]] std::size_t maxPayload() const;

    /// Waits until the server has everything that was sent.
    void flush() const;

private:
    struct Pending {
        std::size_t bytes;
        Clock::time_point since; // of the first attempt
        Stored stored;
    };

    static void acknowledged(jsCtx*, natsMsg* raw, jsPubAck* ack, jsPubAckErr* error,
                             void* session);
    void send(Message message); // precondition: sending_ counts it
    void failed(Message message, natsStatus status, jsErrCode code, char const* text);
    void resend(std::stop_token const& stop);
    void throwIfFailed() const; // precondition: mutex_ is locked
    void attempt(std::string const& what, std::function<natsStatus(jsErrCode&)> const& call) const;
    [[nodiscard]] Message find(std::string const& stream, std::string const& what,
                               jsDirectGetMsgOptions options) const;

    mutable std::mutex mutex_;
    std::condition_variable_any changed_;
    std::map<std::string, Pending> pending_; // by subject
    std::size_t pendingBytes_ = 0;
    std::vector<Message> failed_; // to be sent again
    std::optional<Clock::time_point> fullSince_;
    int sending_ = 0;   // calls of send() that are not done
    std::string error_; // permanent
    Connection connection_;
    JetStream jetStream_;
    std::jthread resending_;
};

} // namespace courier::examples::nats

#endif
