// SPDX-License-Identifier: Apache-2.0
#include "examples/nats/Nats.h"

#include "examples/nats/Tls.h"

#include <algorithm>
#include <sstream>
#include <string_view>
#include <utility>

namespace courier::examples::nats {

namespace {

using namespace std::chrono_literals;

constexpr auto patience = 60s;  // for a cluster that has lost a server
constexpr auto answerTime = 2s; // of one request
constexpr auto catchUp = 5s;    // of a replica with its leader
constexpr auto pause = 100ms;   // between two attempts
constexpr std::size_t mostPending = 4096;
constexpr std::size_t mostPendingBytes = std::size_t{32} << 20;

// Errors of a full server, which pass when messages are removed.
bool isFull(natsStatus status, jsErrCode code) {
    return status == NATS_ERR &&
           (code == JSStreamStoreFailedErr || code == JSInsufficientResourcesErr ||
            code == JSStorageResourcesExceededErr || code == JSAccountResourcesExceededErr);
}

// Temporary errors: those of a cluster that starts or has lost a server.
bool isPassing(natsStatus status, jsErrCode code) {
    switch (status) {
    case NATS_TIMEOUT:
    case NATS_NO_RESPONDERS:
    case NATS_NO_SERVER:
    case NATS_IO_ERROR:
    case NATS_STALE_CONNECTION:
    case NATS_CONNECTION_DISCONNECTED:
    case NATS_INSUFFICIENT_BUFFER:
        return true;
    case NATS_ERR:
        switch (static_cast<int>(code)) {
        case JSClusterIncompleteErr:
        case JSClusterNoPeersErr:
        case JSClusterNotActiveErr:
        case JSClusterNotAssignedErr:
        case JSClusterNotAvailErr:
        case JSClusterNotLeaderErr:
        case JSStreamOfflineErr:
        case JSConsumerOfflineErr:
            return true;
        default:
            return isFull(status, code);
        }
    default:
        return false;
    }
}

std::int64_t milliseconds(std::chrono::milliseconds time) { return time.count(); }
std::int64_t nanoseconds(std::chrono::nanoseconds time) { return time.count(); }

std::string listed(std::vector<std::string> const& urls) {
    std::string all;
    for (auto const& url : urls) {
        all += (all.empty() ? "" : ",") + url;
    }
    return all;
}

Connection connect(Access const& access) {
    natsOptions* made = nullptr;
    require(natsOptions_Create(&made), "set up a connection");
    Options const options(made);
    std::vector<char const*> urls;
    for (auto const& url : access.urls) {
        urls.push_back(url.c_str());
    }
    auto const set = [](bool isWanted, auto call, std::string const& what) {
        if (isWanted) {
            require(call(), what);
        }
    };
    set(
        true, [&] { return natsOptions_SetServers(made, urls.data(), int(urls.size())); },
        "connect to " + listed(access.urls));
    set(
        !access.ca.empty(),
        [&] { return natsOptions_LoadCATrustedCertificates(made, access.ca.c_str()); },
        "read the certificates " + access.ca);
    bool const isSecure = access.urls.front().starts_with("tls://") || !access.ca.empty();
    set(
        isSecure, [&] { return natsOptions_SetSecure(made, true); }, "use TLS");
    set(
        !access.credentials.empty(),
        [&] {
            return natsOptions_SetUserCredentialsFromFiles(made, access.credentials.c_str(),
                                                           nullptr);
        },
        "read the credentials " + access.credentials);
    set(
        !access.user.empty(),
        [&] { return natsOptions_SetUserInfo(made, access.user.c_str(), access.password.c_str()); },
        "set the user");
    set(
        !access.token.empty(), [&] { return natsOptions_SetToken(made, access.token.c_str()); },
        "set the token");
    // A server that disappears is noticed within ten seconds; requests that wait for it fail at
    // once. Reconnecting is tried as long as operations are repeated.
    for (natsStatus const status :
         {natsOptions_SetTimeout(made, milliseconds(answerTime)),
          natsOptions_SetPingInterval(made, milliseconds(5s)), natsOptions_SetMaxPingsOut(made, 2),
          natsOptions_SetMaxReconnect(made, static_cast<int>(patience / pause)),
          natsOptions_SetReconnectWait(made, milliseconds(pause)),
          natsOptions_SetFailRequestsOnDisconnect(made, true)}) {
        require(status, "set up a connection");
    }
    natsConnection* connection = nullptr;
    natsStatus const status = natsConnection_Connect(&connection, made);
    if (status == NATS_SSL_ERROR) {
        throw Error("cannot connect to " + listed(access.urls) + ": " +
                    whyTlsFails(access.urls.front(), access.ca));
    }
    require(status, "connect to " + listed(access.urls));
    return Connection(connection);
}

} // namespace

void require(natsStatus status, std::string const& what, jsErrCode code) {
    if (status == NATS_OK) {
        return;
    }
    std::string message = "cannot " + what + ": " + natsStatus_GetText(status);
    natsStatus last = NATS_OK;
    char const* const detail = nats_GetLastError(&last);
    if (last == status && detail != nullptr && *detail != '\0') {
        message += std::string(" (") + detail + ')';
    }
    if (code != jsErrCode{}) {
        message += ", JetStream error " + std::to_string(static_cast<int>(code));
    }
    throw Error(message);
}

Subscriber::Subscriber(natsConnection& connection, Queue const& queue)
    : connection_(connection), name_(queue.name),
      request_("$JS.API.CONSUMER.MSG.NEXT." + queue.stream + '.' + queue.name) {
    natsInbox* made = nullptr;
    require(natsInbox_Create(&made), "make an inbox");
    std::unique_ptr<natsInbox, Destroy<natsInbox_Destroy>> const inbox(made);
    inbox_ = made;
    natsSubscription* subscription = nullptr;
    require(natsConnection_SubscribeSync(&subscription, &connection_, inbox_.c_str()),
            "join the queue " + name_);
    subscription_.reset(subscription);
    natsSubscription_SetPendingLimits(subscription, -1, -1); // requests are the limit
}

std::vector<Message> Subscriber::take(int atMost, std::chrono::milliseconds time) {
    // The messages that are there, or else the next one. None may come later and wait here while
    // another worker is idle.
    auto messages = request(atMost, R"("no_wait": true)", answerTime);
    if (messages.empty()) {
        messages = request(1, R"("expires": )" + std::to_string(nanoseconds(time)), time + pause);
    }
    if (messages.empty() && Clock::now() - lastAnswer_ > patience) {
        throw Error("cannot take messages from the queue " + name_ + ": no answer for a minute");
    }
    return messages;
}

std::vector<Message> Subscriber::request(int atMost, std::string const& condition,
                                         std::chrono::milliseconds time) {
    std::string const text = R"({"batch": )" + std::to_string(atMost) + ", " + condition + '}';
    static_cast<void>(natsConnection_PublishRequest(&connection_, request_.c_str(), inbox_.c_str(),
                                                    text.data(), static_cast<int>(text.size())));
    std::vector<Message> messages;
    while (static_cast<int>(messages.size()) < atMost) {
        natsMsg* made = nullptr;
        natsStatus const got = natsSubscription_NextMsg(&made, subscription_.get(), time.count());
        Message message(made);
        if (got != NATS_OK) {
            if (!isPassing(got, {})) {
                require(got, "take messages from the queue " + name_);
            }
            break;
        }
        // A message with a status is the end of the request.
        char const* status = nullptr;
        if (natsMsgHeader_Get(made, "Status", &status) == NATS_OK) {
            if (std::string_view(status) == "503") {
                std::this_thread::sleep_for(pause); // nobody answers: leaders change
            } else {
                lastAnswer_ = Clock::now();
            }
            break;
        }
        lastAnswer_ = Clock::now();
        messages.push_back(std::move(message));
    }
    return messages;
}

std::string replySubject(natsMsg* message) { return natsMsg_GetReply(message); }

std::uint64_t deliveries(natsMsg* message) {
    // $JS.ACK.STREAM.QUEUE.DELIVERIES.…, or with a domain and an account in front of the stream.
    std::vector<std::string> tokens;
    std::istringstream reply(natsMsg_GetReply(message));
    for (std::string token; std::getline(reply, token, '.');) {
        tokens.push_back(token);
    }
    return std::stoull(tokens.at(tokens.size() < 11 ? 4 : 6));
}

Session::Session(Access const& access) : connection_(connect(access)) {
    jsOptions settings;
    jsOptions_Init(&settings);
    settings.Wait = milliseconds(answerTime);
    settings.PublishAsync.AckHandler = acknowledged;
    settings.PublishAsync.AckHandlerClosure = this;
    jsCtx* jetStream = nullptr;
    require(natsConnection_JetStream(&jetStream, connection_.get(), &settings), "use JetStream");
    jetStream_.reset(jetStream);
    resending_ = std::jthread([this](std::stop_token const& stop) { resend(stop); });
}

Session::~Session() {
    resending_ = {};
    natsConnection_Close(connection_.get());
    failed_.clear();
    jetStream_.reset();
    connection_.reset();
    nats_CloseAndWait(milliseconds(answerTime)); // no callback runs any more
}

void Session::attempt(std::string const& what,
                      std::function<natsStatus(jsErrCode&)> const& call) const {
    auto const deadline = Clock::now() + patience;
    for (;;) {
        jsErrCode code{};
        natsStatus const status = call(code);
        if (status == NATS_OK) {
            return;
        }
        if (!isPassing(status, code) || Clock::now() >= deadline) {
            require(status, what, code);
        }
        std::this_thread::sleep_for(pause);
    }
}

void Session::make(Stream const& stream) const {
    std::vector<char const*> subjects;
    for (auto const& subject : stream.subjects) {
        subjects.push_back(subject.c_str());
    }
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = stream.name.c_str();
    config.Subjects = subjects.data();
    config.SubjectsLen = static_cast<int>(subjects.size());
    config.Replicas = stream.replicas;
    config.Storage = js_FileStorage;
    config.Discard = js_DiscardNew;
    config.MaxBytes = stream.maxBytes;
    config.MaxAge = nanoseconds(24h);
    config.Duplicates = nanoseconds(2min);
    config.AllowDirect = true;
    int overlaps = 0;
    attempt("make the stream " + stream.name + " on " + std::to_string(stream.replicas) +
                " servers",
            [&](jsErrCode& code) {
                natsStatus const status =
                    js_AddStream(nullptr, jetStream_.get(), &config, nullptr, &code);
                // If two programs create it at once, one is told that it overlaps with itself.
                bool const isRace = code == JSStreamSubjectOverlapErr && ++overlaps < 20;
                return isRace ? NATS_TIMEOUT : status;
            });
}

void Session::make(Queue const& queue) const {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = queue.name.c_str();
    config.FilterSubject = queue.subject.c_str();
    config.DeliverPolicy = queue.isNewOnly ? js_DeliverNew : js_DeliverAll;
    config.AckPolicy = js_AckExplicit; // an answer for all before it would include lost ones
    config.AckWait = nanoseconds(queue.patience);
    config.MaxDeliver = queue.attempts;
    config.MaxAckPending = 16 * mostPending;
    config.InactiveThreshold = nanoseconds(queue.lifeTime);
    attempt("make the queue " + queue.name, [&](jsErrCode& code) {
        return js_AddConsumer(nullptr, jetStream_.get(), queue.stream.c_str(), &config, nullptr,
                              &code);
    });
}

Subscriber Session::join(Queue const& queue) const { return {*connection_, queue}; }

void Session::throwIfFailed() const {
    if (!error_.empty()) {
        throw Error(error_);
    }
}

void Session::publish(Message message, Stored stored) {
    auto const bytes = static_cast<std::size_t>(natsMsg_GetDataLength(message.get()));
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] {
            return !error_.empty() || pending_.empty() ||
                   (pending_.size() < mostPending && pendingBytes_ + bytes <= mostPendingBytes);
        });
        throwIfFailed();
        pendingBytes_ += bytes;
        pending_[natsMsg_GetSubject(message.get())] = {bytes, Clock::now(), std::move(stored)};
        ++sending_;
    }
    send(std::move(message));
}

void Session::send(Message message) {
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = milliseconds(answerTime);
    std::string const id = natsMsg_GetSubject(message.get());
    options.MsgId = id.c_str();
    natsMsg* raw = message.release();
    natsStatus const status = js_PublishMsgAsync(jetStream_.get(), &raw, &options);
    message.reset(raw); // null if it was sent
    {
        std::lock_guard const lock(mutex_);
        --sending_;
    }
    changed_.notify_all();
    if (status != NATS_OK) {
        failed(std::move(message), status, {}, nullptr);
    }
}

void Session::acknowledged(jsCtx*, natsMsg* raw, jsPubAck* ack, jsPubAckErr* error, void* session) {
    Session& self = *static_cast<Session*>(session);
    Message message(raw);
    if (ack == nullptr) {
        self.failed(std::move(message), error->Err, error->ErrCode, error->ErrText);
        return;
    }
    Stored stored;
    {
        std::lock_guard const lock(self.mutex_);
        auto const found = self.pending_.find(natsMsg_GetSubject(raw));
        if (found == self.pending_.end()) {
            return; // an answer to an earlier attempt came first
        }
        stored = std::move(found->second.stored);
    }
    stored(ack->Sequence); // before settle() returns
    {
        std::lock_guard const lock(self.mutex_);
        auto const done = self.pending_.extract(natsMsg_GetSubject(raw));
        self.pendingBytes_ -= done ? done.mapped().bytes : 0;
        self.fullSince_.reset();
    }
    self.changed_.notify_all();
}

void Session::failed(Message message, natsStatus status, jsErrCode code, char const* text) {
    {
        std::lock_guard const lock(mutex_);
        std::string const subject = natsMsg_GetSubject(message.get());
        auto const found = pending_.find(subject);
        if (found == pending_.end()) {
            return;
        }
        auto const now = Clock::now();
        if (isFull(status, code)) {
            fullSince_ = fullSince_.value_or(now); // the publisher decides how long to wait
            found->second.since = now;
        } else if (!isPassing(status, code) || now - found->second.since > patience) {
            error_ = "cannot publish " + subject + ": " +
                     (text != nullptr ? text : natsStatus_GetText(status));
        }
        failed_.push_back(std::move(message));
    }
    changed_.notify_all();
}

void Session::resend(std::stop_token const& stop) {
    std::unique_lock lock(mutex_);
    while (changed_.wait(lock, stop, [&] { return !failed_.empty(); }) && !stop.stop_requested()) {
        changed_.wait_for(lock, stop, pause, [] { return false; });
        std::vector<Message> messages = std::exchange(failed_, {});
        for (Message& message : messages) {
            if (!error_.empty()) {
                return;
            }
            ++sending_;
            lock.unlock();
            send(std::move(message));
            lock.lock();
        }
    }
}

void Session::settle(std::chrono::milliseconds time, std::string const& prefix) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, time, [&] {
        auto const first = pending_.lower_bound(prefix);
        return !error_.empty() || first == pending_.end() || !first->first.starts_with(prefix);
    });
    throwIfFailed();
}

void Session::giveUp(std::string const& why) {
    std::unique_lock lock(mutex_);
    error_ = why;
    changed_.notify_all();
    changed_.wait(lock, [&] { return sending_ == 0; });
}

std::optional<Clock::time_point> Session::fullSince() const {
    std::lock_guard const lock(mutex_);
    return fullSince_;
}

void Session::answer(std::string const& reply, char const* word) const {
    static_cast<void>(natsConnection_PublishString(connection_.get(), reply.c_str(), word));
}

Message Session::find(std::string const& stream, std::string const& what,
                      jsDirectGetMsgOptions options) const {
    natsMsg* message = nullptr;
    int misses = 0;
    attempt("get " + what, [&](jsErrCode&) {
        natsStatus const status =
            js_DirectGetMsg(&message, jetStream_.get(), stream.c_str(), nullptr, &options);
        // Any server of the stream answers, even one that lacks the latest messages, so the query
        // is repeated for some seconds.
        if (status == NATS_NOT_FOUND) {
            return ++misses < catchUp / pause ? NATS_TIMEOUT : NATS_OK;
        }
        return status;
    });
    return Message(message);
}

Message Session::find(std::string const& stream, std::uint64_t sequence) const {
    jsDirectGetMsgOptions options;
    jsDirectGetMsgOptions_Init(&options);
    options.Sequence = sequence;
    return find(stream, "message " + std::to_string(sequence) + " of " + stream, options);
}

Message Session::find(std::string const& stream, std::string const& subject) const {
    jsDirectGetMsgOptions options;
    jsDirectGetMsgOptions_Init(&options);
    options.LastBySubject = subject.c_str();
    return find(stream, subject, options);
}

void Session::purge(std::string const& stream, std::string const& subject) const {
    jsOptions options;
    jsOptions_Init(&options);
    options.Stream.Purge.Subject = subject.c_str();
    attempt("purge " + subject, [&](jsErrCode& code) {
        return js_PurgeStream(jetStream_.get(), stream.c_str(), &options, &code);
    });
}

void Session::remove(std::string const& stream, std::uint64_t number) const {
    attempt("remove message " + std::to_string(number), [&](jsErrCode& code) {
        natsStatus const status =
            js_DeleteMsg(jetStream_.get(), stream.c_str(), number, nullptr, &code);
        return code == JSNoMessageFoundErr || code == JSSequenceNotFoundErr ? NATS_OK : status;
    });
}

void Session::removeQueue(std::string const& stream, std::string const& name) const {
    attempt("remove the queue " + name, [&](jsErrCode& code) {
        natsStatus const status =
            js_DeleteConsumer(jetStream_.get(), stream.c_str(), name.c_str(), nullptr, &code);
        return code == JSConsumerNotFoundErr ? NATS_OK : status; // an earlier answer was lost
    });
}

std::size_t Session::maxPayload() const {
    return static_cast<std::size_t>(natsConnection_GetMaxPayload(connection_.get()));
}

void Session::flush() const {
    attempt("reach the server", [&](jsErrCode&) {
        return natsConnection_FlushTimeout(connection_.get(), milliseconds(answerTime));
    });
}

} // namespace courier::examples::nats
