// SPDX-License-Identifier: Apache-2.0
#include "examples/nats/Session.h"

#include "examples/program/Text.h"

#include <cstdlib>
#include <limits>
#include <random>
#include <regex>
#include <thread>
#include <utility>

namespace courier::examples::nats {

namespace {

using namespace std::chrono_literals;

constexpr auto answerTime = 2s; // of one request
constexpr auto storeTime = 5s;  // of one message
constexpr auto startTime = 5s;  // of the servers' JetStream
constexpr auto noLimit = std::numeric_limits<std::int64_t>::max();
constexpr auto pause = 100ms; // between two attempts
constexpr std::size_t mostPendingBytes = std::size_t{32} << 20;
constexpr std::size_t overhead = 4096; // of a message, at most: headers, subject, the client's own

constexpr char idKey[] = "Nats-Msg-Id"; // of a message that is stored once in two minutes

// A leader remembers the identifier of a message that it has refused, and then takes the message
// for a duplicate of one without a number: it needs a new identifier.
bool isStored(jsPubAck const& ack) { return ack.Sequence != 0; }

std::int64_t milliseconds(std::chrono::milliseconds time) { return time.count(); }
std::int64_t nanoseconds(std::chrono::nanoseconds time) { return time.count(); }

std::size_t pendingSize(natsMsg* message) {
    return static_cast<std::size_t>(natsMsg_GetDataLength(message)) + overhead;
}

bool isFull(jsErrCode code) {
    return code == JSStreamStoreFailedErr || code == JSInsufficientResourcesErr ||
           code == JSStorageResourcesExceededErr || code == JSAccountResourcesExceededErr ||
           code == JSConsumerStoreFailedErr || code == JSConsumerCreateErr;
}

// Whether it passes: when servers come back, start, elect a leader or have room.
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
    default:
        return (code >= JSClusterIncompleteErr && code <= JSClusterNotLeaderErr) ||
               code == JSStreamOfflineErr || code == JSConsumerOfflineErr || isFull(code) ||
               // while two programs make a stream
               code == JSStreamNameExistErr || code == JSStreamSubjectOverlapErr;
    }
}

std::string withoutSecrets(std::string const& text) { // of URLs
    return std::regex_replace(text, std::regex(R"(//[^\s,]*@)"), "//");
}

// The thread's last error says more, if there is no detail.
std::string explain(natsStatus status, jsErrCode code = {}, char const* detail = nullptr) {
    natsStatus last = status;
    detail = detail != nullptr ? detail : nats_GetLastError(&last);
    std::string text = last == status && detail != nullptr && *detail != '\0'
                           ? detail
                           : natsStatus_GetText(status);
    text = std::regex_replace(text, std::regex(R"(^\(\S+:\d+\): )"), ""); // the client's source
    if (code == JSNotEnabledErr || code == JSNotEnabledForAccountErr) {
        text = "the servers have no JetStream for this user (" + text + ')';
    } else if (isFull(code)) {
        text = "the stream has reached its limit, or the disks are full (" + text + ')';
    }
    text += code != 0 ? ", error " + std::to_string(code) : "";
    return withoutSecrets(text);
}

void require(natsStatus status, std::string const& what, jsErrCode code = {}) {
    if (status != NATS_OK) {
        throw Error("cannot " + what + ": " + explain(status, code));
    }
}

} // namespace

void Options::addTo(CLI::App& app) {
    app.add_option("--url", urls, "Servers of the cluster, or some: nats:// or tls:// URLs")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->capture_default_str();
    app.add_option("--ca", ca,
                   "A file of certificates that sign the servers', instead of the "
                   "system's");
    app.add_option("--credentials", credentials, "A credentials file of NATS");
    app.add_option("--user", user, "The user name; NATS_PASSWORD or NATS_TOKEN have the secret");
    app.add_option("--stream", stream, "The stream; it is made if it does not exist")
        ->check([](std::string const& name) {
            bool const isWord = std::regex_match(name, std::regex("[A-Za-z0-9_-]+"));
            return isWord ? "" : "must be letters, digits, - and _";
        })
        ->capture_default_str();
    app.add_option("--replicas", replicas, "Servers that hold each message of a new stream")
        ->check(CLI::Range(1, 5))
        ->capture_default_str();
    app.add_option("--max-bytes", maxBytes, "The most that the elements of a new stream may take")
        ->transform(CLI::AsSizeValue(false))
        ->default_str("1GiB");
    app.add_option("--redeliver-after", redeliverAfter,
                   "Seconds without a sign of life until an element goes to another worker")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
}

Session::Session(Options const& options, std::string role, Waiting waiting, Stored stored)
    : role_(std::move(role)), waiting_(std::move(waiting)), stored_(std::move(stored)) {
    connect(options);
    jsOptions settings;
    jsOptions_Init(&settings);
    settings.Wait = milliseconds(answerTime);
    settings.PublishAsync.AckHandler = acknowledged;
    settings.PublishAsync.AckHandlerClosure = this;
    jsCtx* jetStream = nullptr;
    require(natsConnection_JetStream(&jetStream, connection_.get(), &settings), "use JetStream");
    jetStream_.reset(jetStream);
    makeStream(options.stream, options.maxBytes, options.replicas);
    makeStream(options.reports(), -1, options.replicas);
    wanted_ = 1;
    lookForRoom(); // the first elements need not wait for resend()
}

Session::~Session() {
    natsConnection_Close(connection_.get());
    subscription_.reset();
    jetStream_.reset();
    connection_.reset();
    {
        std::lock_guard const lock(mutex_);
        messages_.clear(); // before the library, which frees them
        failed_.clear();
    }
    nats_CloseAndWait(milliseconds(answerTime)); // no callback runs any more
}

void Session::connect(Options const& options) {
    std::string const what = "connect to " + withoutSecrets(examples::join(options.urls, ","));
    std::vector<char const*> urls;
    for (auto const& url : options.urls) {
        urls.push_back(url.c_str());
    }
    natsOptions* made = nullptr;
    require(natsOptions_Create(&made), what);
    Owner<natsOptions, natsOptions_Destroy> const owner(made);
    auto const set = [&what](bool isWanted, auto function, auto const&... values) {
        require(isWanted ? function(values...) : NATS_OK, what);
    };
    auto const& [ca, credentials, user] = std::tie(options.ca, options.credentials, options.user);
    char const* const password = std::getenv("NATS_PASSWORD");
    char const* const token = std::getenv("NATS_TOKEN");
    set(true, natsOptions_SetServers, made, urls.data(), static_cast<int>(urls.size()));
    set(!ca.empty(), natsOptions_LoadCATrustedCertificates, made, ca.c_str());
    set(!ca.empty() || options.urls.front().starts_with("tls://"), natsOptions_SetSecure, made,
        true);
    set(!credentials.empty(), natsOptions_SetUserCredentialsFromFiles, made, credentials.c_str(),
        nullptr);
    set(!user.empty(), natsOptions_SetUserInfo, made, user.c_str(), password);
    set(token != nullptr, natsOptions_SetToken, made, token);
    set(true, natsOptions_SetCustomInboxPrefix, made, ("_INBOX." + role_).c_str());
    set(true, natsOptions_SetErrorHandler, made, warned, this);
    set(true, natsOptions_SetTimeout, made, milliseconds(answerTime));
    set(true, natsOptions_SetClosedCB, made, closed, this);
    // A server that takes no bytes is left after ten seconds, a silent one after fifteen.
    set(true, natsOptions_SetPingInterval, made, milliseconds(5s));
    set(true, natsOptions_SetMaxPingsOut, made, 2);
    set(true, natsOptions_SetWriteDeadline, made, milliseconds(10s));
    set(true, natsOptions_SetMaxReconnect, made, -1);
    set(true, natsOptions_SetReconnectWait, made, milliseconds(pause));
    set(true, natsOptions_SetFailRequestsOnDisconnect, made, true);
    int hangUps = 0;
    attempt(what, [&](jsErrCode&) {
        natsConnection* connection = nullptr;
        natsStatus const status = natsConnection_Connect(&connection, made);
        connection_.reset(connection);
        if (status == NATS_PROTOCOL_ERROR && ++hangUps == 3) {
            throw Error("cannot " + what + ": the server hangs up, perhaps because it wants a " +
                        "client certificate (" + explain(status) + ')');
        }
        return status == NATS_PROTOCOL_ERROR ? NATS_TIMEOUT : status;
    });
}

void Session::makeStream(std::string const& name, std::int64_t maxBytes, int replicas) {
    std::string const subject = name + ".>";
    char const* subjects[] = {subject.c_str()};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = name.c_str();
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Retention = js_WorkQueuePolicy;
    config.Replicas = replicas;
    config.Discard = js_DiscardNew;
    // Reserved by the servers. A replica that is full may refuse what the others store, so senders
    // stop at half of it.
    config.MaxBytes = maxBytes < 0 ? -1 : 2 * maxBytes;
    config.MaxAge = nanoseconds(maxBytes < 0 ? 24h : 0h); // of reports that no sender takes
    config.Duplicates = nanoseconds(2min);
    std::string const what = "make the stream " + name;
    jsStreamInfo* info = nullptr;
    auto const start = Clock::now();
    attempt(what, [&](jsErrCode& code) {
        auto status = js_GetStreamInfo(&info, jetStream_.get(), name.c_str(), nullptr, &code);
        if (code == JSStreamNotFoundErr) {
            status = js_AddStream(&info, jetStream_.get(), &config, nullptr, &code);
        }
        if (isFull(code)) {
            throw Error("cannot " + what + ": the servers cannot reserve " +
                        std::to_string(config.MaxBytes) + " bytes: choose a smaller --max-bytes");
        }
        if (status == NATS_NO_RESPONDERS && Clock::now() - start > startTime) {
            throw Error("cannot " + what + ": the servers have no JetStream");
        }
        return status;
    });
    Owner<jsStreamInfo, jsStreamInfo_Destroy> const owner(info);
    if (info->Config->Retention != js_WorkQueuePolicy) {
        throw Error("the stream " + name + " is not a work queue: choose another --stream");
    }
    if (stream_.empty()) { // the first is that of elements
        stream_ = name;
        limit_ = info->Config->MaxBytes > 0 ? info->Config->MaxBytes / 2 : noLimit;
        longest_ = info->Config->MaxMsgSize > 0 ? info->Config->MaxMsgSize : noLimit;
    }
}

void Session::requireRoom(std::size_t bytes) const {
    for (auto const& [name, limit] :
         {std::pair{"the limit of its stream (--max-bytes)", limit_},
          {"the max_msg_size of its stream", longest_},
          {"the servers' max_payload", natsConnection_GetMaxPayload(connection_.get())}}) {
        if (bytes + overhead > static_cast<std::size_t>(limit)) {
            throw std::length_error("its " + std::to_string(bytes) + " bytes exceed " + name +
                                    ", " + std::to_string(limit) +
                                    ": raise that, or split the data into several elements");
        }
    }
}

void Session::throwIfFailed() const {
    std::lock_guard const lock(mutex_);
    if (!error_.empty()) {
        throw Error(error_);
    }
}

void Session::attempt(std::string const& what, std::function<natsStatus(jsErrCode&)> const& call) {
    for (;;) {
        jsErrCode code{};
        natsStatus const status = call(code);
        throwIfFailed();
        if (!isPassing(status, code)) {
            require(status, what, code);
            return waiting_({});
        }
        waiting_("cannot " + what + ": " + explain(status, code));
        std::this_thread::sleep_for(pause);
    }
}

void Session::warned(natsConnection* connection, natsSubscription*, natsStatus status, void* self) {
    if (status == NATS_NOT_PERMITTED) {
        closed(connection, self);
    }
}

void Session::closed(natsConnection* connection, void* self) {
    char const* text = nullptr;
    natsConnection_GetLastError(connection, &text);
    auto& session = *static_cast<Session*>(self);
    std::lock_guard const lock(session.mutex_);
    session.error_ = std::string("the servers refuse: ") + (text != nullptr ? text : "");
    session.changed_.notify_all();
}

void Session::join(Queue const& queue) {
    queue_ = queue;
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = queue.name.c_str();
    config.FilterSubject = queue.subject.c_str();
    config.DeliverPolicy = js_DeliverAll;
    config.AckPolicy = js_AckExplicit;
    config.AckWait = nanoseconds(queue.redeliverAfter);
    config.InactiveThreshold = nanoseconds(queue.lifeTime);
    config.MaxAckPending = 65536;
    attempt("make the queue " + queue.name, [&](jsErrCode& code) {
        return js_AddConsumer(nullptr, jetStream_.get(), queue.stream.c_str(), &config, nullptr,
                              &code);
    });
    inbox_ = "_INBOX." + role_ + '.' + randomName() + '.';
    natsSubscription* subscription = nullptr;
    require(natsConnection_Subscribe(&subscription, connection_.get(), (inbox_ + '*').c_str(),
                                     delivered, this),
            "receive messages");
    subscription_.reset(subscription);
    natsSubscription_SetPendingLimits(subscription, -1, -1); // requests are the limit
}

// Messages keep their subject; what ends a request has the request's.
void Session::delivered(natsConnection*, natsSubscription*, natsMsg* raw, void* self) {
    auto& session = *static_cast<Session*>(self);
    Message message(raw);
    std::lock_guard const lock(session.mutex_);
    if (deliveries(raw) != 0) {
        session.messages_.push_back(std::move(message));
    } else if (natsMsg_GetSubject(raw) == session.request_) {
        char const* status = nullptr;
        natsMsgHeader_Get(raw, "Status", &status);
        session.answer_ = status != nullptr ? status : "unknown";
    }
    session.changed_.notify_all();
}

std::vector<Message> Session::fetch(std::size_t atMost, std::chrono::milliseconds time) {
    auto messages = request(atMost, R"("no_wait": true)", 0ms);
    if (messages.empty()) { // more than one could come later, and wait here for an idle worker
        messages = request(1, R"("expires": )" + std::to_string(nanoseconds(time)), time);
    }
    return messages;
}

// By hand: the client's own function writes past the end of its list when the answers to an earlier
// request come late.
std::vector<Message> Session::request(std::size_t atMost, std::string const& condition,
                                      std::chrono::milliseconds time) {
    auto const longest = natsConnection_GetMaxPayload(connection_.get()) + std::int64_t{overhead};
    std::string const text = R"({"batch": )" + std::to_string(atMost) + R"(, "max_bytes": )" +
                             std::to_string(longest) + ", " + condition + '}';
    std::string const subject = "$JS.API.CONSUMER.MSG.NEXT." + queue_.stream + '.' + queue_.name;
    std::string const reply = inbox_ + std::to_string(++requests_);
    std::unique_lock lock(mutex_);
    request_ = reply;
    answer_.clear();
    lock.unlock();
    auto const status = natsConnection_PublishRequestString(connection_.get(), subject.c_str(),
                                                            reply.c_str(), text.c_str());
    if (!isPassing(status, {})) {
        require(status, "take messages");
    }
    lock.lock();
    changed_.wait_for(lock, time + answerTime, [&] {
        return messages_.size() >= atMost || !answer_.empty() || !error_.empty();
    });
    std::vector<Message> messages;
    while (!messages_.empty() && messages.size() < atMost) {
        messages.push_back(std::move(messages_.front()));
        messages_.pop_front();
    }
    bool const isAnswered = !messages.empty() || answer_ == "404" || answer_ == "408";
    std::string const why = answer_.empty() ? "the servers do not answer" : "status " + answer_;
    lock.unlock();
    throwIfFailed();
    waiting_(isAnswered ? "" : "cannot take messages: " + why);
    std::this_thread::sleep_for(isAnswered ? 0ms : pause);
    return messages;
}

void Session::answer(std::string const& reply, char const* word) const {
    static_cast<void>(natsConnection_PublishString(connection_.get(), reply.c_str(), word));
}

void Session::leave() const {
    js_DeleteConsumer(jetStream_.get(), queue_.stream.c_str(), queue_.name.c_str(), nullptr,
                      nullptr);
}

void Session::store(std::string const& subject, std::string const& text) {
    std::string id = randomName();
    attempt("store " + subject, [&](jsErrCode& code) {
        jsPubOptions options;
        jsPubOptions_Init(&options);
        options.MsgId = id.c_str();
        jsPubAck* ack = nullptr;
        auto const status = js_Publish(&ack, jetStream_.get(), subject.c_str(), text.data(),
                                       static_cast<int>(text.size()), &options, &code);
        Owner<jsPubAck, jsPubAck_Destroy> const owner(ack);
        bool const isRefused = code != 0 || (status == NATS_OK && !isStored(*ack));
        id = isRefused ? randomName() : id;
        return status == NATS_OK && isRefused ? NATS_TIMEOUT : status;
    });
}

bool Session::publish(Message message) {
    natsMsgHeader_Set(message.get(), idKey, natsMsg_GetSubject(message.get()));
    auto const size = pendingSize(message.get());
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] {
            wanted_ = size;
            return isStopped_ || (size <= allowed_ &&
                                  (pendingBytes_ == 0 || pendingBytes_ + size <= mostPendingBytes));
        });
        if (isStopped_) {
            return false;
        }
        wanted_ = 0;
        allowed_ -= size;
        pendingBytes_ += size;
    }
    send(std::move(message));
    return true;
}

void Session::send(Message message) {
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = milliseconds(storeTime);
    natsMsg* raw = message.release();
    natsStatus const status = js_PublishMsgAsync(jetStream_.get(), &raw, &options);
    if (status != NATS_OK) {
        failed(Message(raw), status, {}, nullptr);
    }
}

void Session::acknowledged(jsCtx*, natsMsg* raw, jsPubAck* ack, jsPubAckErr* error, void* self) {
    auto& session = *static_cast<Session*>(self);
    Message message(raw);
    if (ack == nullptr || !isStored(*ack)) {
        if (ack != nullptr || error->ErrCode != 0) {
            natsMsgHeader_Set(raw, idKey, randomName().c_str());
        }
        return ack != nullptr
                   ? session.failed(std::move(message), NATS_TIMEOUT, {}, nullptr)
                   : session.failed(std::move(message), error->Err, error->ErrCode, error->ErrText);
    }
    session.stored_(natsMsg_GetSubject(raw));
    std::lock_guard const lock(session.mutex_);
    session.pendingBytes_ -= pendingSize(raw);
    session.trouble_.clear();
    session.changed_.notify_all();
}

void Session::failed(Message message, natsStatus status, jsErrCode code, char const* detail) {
    std::string const why = "cannot store an element: " + explain(status, code, detail);
    std::lock_guard const lock(mutex_);
    (isPassing(status, code) ? trouble_ : error_) = why;
    failed_.push_back(std::move(message));
}

void Session::resend() {
    throwIfFailed();
    std::unique_lock lock(mutex_);
    auto messages = std::exchange(failed_, {});
    auto const trouble = trouble_;
    lock.unlock();
    for (auto& message : messages) {
        send(std::move(message));
    }
    waiting_(trouble);
    lookForRoom();
}

// Other senders may look at the same time: each may send an eighth of what is left, or one element.
void Session::lookForRoom() {
    jsStreamInfo* info = nullptr;
    std::unique_lock lock(mutex_);
    if (wanted_ <= allowed_) {
        return;
    }
    lock.unlock();
    if (js_GetStreamInfo(&info, jetStream_.get(), stream_.c_str(), nullptr, nullptr) != NATS_OK) {
        return waiting_("cannot look for room: the servers do not answer");
    }
    Owner<jsStreamInfo, jsStreamInfo_Destroy> const owner(info);
    lock.lock();
    auto const used = static_cast<std::size_t>(info->State.Bytes) + pendingBytes_;
    auto const left =
        static_cast<std::size_t>(limit_) - std::min(used, static_cast<std::size_t>(limit_));
    allowed_ = wanted_ <= left && pendingBytes_ == 0 ? std::max(wanted_, left / 8) : left / 8;
    bool const isFull = wanted_ > allowed_ && pendingBytes_ == 0;
    changed_.notify_all();
    lock.unlock();
    waiting_(isFull ? "the stream " + stream_ + " has reached its limit (--max-bytes)" : "");
}

void Session::stop() {
    std::lock_guard const lock(mutex_);
    isStopped_ = true;
    changed_.notify_all();
}

std::uint64_t deliveries(natsMsg* message) {
    // $JS.ACK.STREAM.QUEUE.DELIVERIES.…, or with a domain and an account in front of the stream.
    char const* const reply = natsMsg_GetReply(message);
    auto const words = split(reply != nullptr ? reply : "", '.');
    bool const isOfQueue = words.size() >= 9 && words[0] == "$JS" && words[1] == "ACK";
    return isOfQueue ? std::strtoull(words[words.size() < 11 ? 4 : 6].c_str(), nullptr, 10) : 0;
}

std::string randomName() {
    std::random_device random;
    return hexadecimal((std::uint64_t{random()} << 32) | random()).substr(2);
}

} // namespace courier::examples::nats
