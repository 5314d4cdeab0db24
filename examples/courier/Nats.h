// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_COURIER_NATS_H
#define COURIER_EXAMPLES_COURIER_NATS_H

#include <nats/nats.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// The client library of NATS, as C++ wants it: handles that free themselves, and exceptions that
// say what was tried.

namespace courier::examples::nats {

template <auto destroy> struct Destroy {
    template <class T> void operator()(T* object) const noexcept { destroy(object); }
};

using Connection = std::unique_ptr<natsConnection, Destroy<natsConnection_Destroy>>;
using JetStream = std::unique_ptr<jsCtx, Destroy<jsCtx_Destroy>>;
using Message = std::unique_ptr<natsMsg, Destroy<natsMsg_Destroy>>;
using Options = std::unique_ptr<natsOptions, Destroy<natsOptions_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Destroy<natsSubscription_Destroy>>;

/// Says "cannot ", what was tried, and why.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Throws Error with what was tried and the client library's text, unless the status is good.
void require(natsStatus status, std::string const& what, jsErrCode code = {});

/// Where the servers are, and how to get in.
struct Servers {
    std::vector<std::string> urls{"nats://localhost:4222"}; // several of one cluster
    std::string credentials; // a file; empty where the URLs say enough
};

/// One of those who take messages from a queue: each message goes to one of them. Belongs to one
/// thread at a time, and must not outlive its session.
class Queue {
public:
    Queue(std::string name, Subscription subscription);

    /// The next messages, at most so many; none when half a second brought none. Throws Error when
    /// the queue has been out of reach for a minute, or the connection is lost for good.
    [[nodiscard]] std::vector<Message> take(int atMost);

private:
    std::string name_;
    Subscription subscription_;
    std::chrono::steady_clock::time_point lastAnswer_;
};

/// One connection to a cluster, and its JetStream. It finds another server when its own is lost.
///
/// What follows is tried again for a minute, longer than a cluster takes to elect new leaders. It
/// throws Error when that was in vain, or where trying again is of no use. Any thread may use a
/// session at any time.
class Session {
public:
    explicit Session(Servers const& servers);

    /// Makes a stream of all messages with this subject, or finds it made. They are kept on so many
    /// servers, for a day.
    void makeStream(std::string const& name, std::string const& subject, int replicas) const;

    /// Makes a queue of the stream's messages with this subject, or finds it made. A message that
    /// nobody acknowledged for `patience` is handed out again; a queue that nobody asks for
    /// `lifeTime`, if there is one, is removed.
    void makeQueue(std::string const& stream, std::string const& name, std::string const& subject,
                   std::chrono::seconds patience, std::chrono::seconds lifeTime) const;

    /// Joins those who take messages from a queue.
    [[nodiscard]] Queue join(std::string const& stream, std::string const& name) const;

    /// Stores a message on the servers; returns once a majority of them has it. Messages with one
    /// `id` are stored once, if no more than two minutes lie between them.
    void publish(natsMsg* message, std::string const& id) const;

    /// The last message of a stream with this subject; null when there is none.
    [[nodiscard]] Message find(std::string const& stream, std::string const& subject) const;

    /// Removes all messages with this subject.
    void purge(std::string const& stream, std::string const& subject) const;

    /// Removes a queue.
    void removeQueue(std::string const& stream, std::string const& name) const;

    /// The longest message that the server takes, headers included.
    [[nodiscard]] std::size_t maxPayload() const;

    /// Sends on what was acknowledged and not yet sent.
    void flush() const;

private:
    void attempt(std::string const& what, std::function<natsStatus(jsErrCode&)> const& call) const;

    Connection connection_;
    JetStream jetStream_;
};

} // namespace courier::examples::nats

#endif
