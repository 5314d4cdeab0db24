// SPDX-License-Identifier: Apache-2.0
#include "examples/nats/Session.h"

#include "examples/program/Text.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <limits>
#include <random>
#include <regex>
#include <thread>
#include <utility>

namespace courier::examples::nats {

namespace {

constexpr auto answerTime = 2s; // of one request
constexpr auto startTime = 5s;  // of the servers' JetStream
constexpr auto pause = 100ms;   // between two attempts
constexpr auto lull = 10ms;     // between two messages: what comes later is fetched later
constexpr auto noLimit = std::numeric_limits<std::int64_t>::max();

std::int64_t milliseconds(std::chrono::milliseconds time) { return time.count(); }
std::int64_t nanoseconds(std::chrono::nanoseconds time) { return time.count(); }

template <class T> bool isOneOf(T value, std::initializer_list<T> values) {
    return std::find(values.begin(), values.end(), value) != values.end();
}

bool isFull(jsErrCode code) {
    return isOneOf(code, {JSStreamStoreFailedErr, JSInsufficientResourcesErr,
                          JSStorageResourcesExceededErr, JSAccountResourcesExceededErr,
                          JSConsumerStoreFailedErr, JSConsumerCreateErr});
}

// Whether it passes: when servers come back, start, elect a leader, have room, or have made the
// stream that another program wants as well.
bool isPassing(natsStatus status, jsErrCode code) {
    return isOneOf(status, {NATS_TIMEOUT, NATS_NO_RESPONDERS, NATS_NO_SERVER, NATS_IO_ERROR,
                            NATS_STALE_CONNECTION, NATS_CONNECTION_DISCONNECTED,
                            NATS_INSUFFICIENT_BUFFER}) ||
           (code >= JSClusterIncompleteErr && code <= JSClusterNotLeaderErr) || isFull(code) ||
           isOneOf(code, {JSStreamOfflineErr, JSConsumerOfflineErr, JSStreamNameExistErr,
                          JSStreamSubjectOverlapErr});
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

[[noreturn]] void fail(std::string const& what, std::string const& why) {
    throw std::runtime_error("cannot " + what + ": " + why);
}

void require(natsStatus status, std::string const& what, jsErrCode code = {}) {
    status == NATS_OK ? void() : fail(what, explain(status, code));
}

} // namespace

void Servers::addTo(CLI::App& app) {
    app.add_option("--url", urls, "Servers of the cluster, or some: nats:// or tls:// URLs")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->capture_default_str();
    app.add_option("--ca", ca,
                   "A file of certificates that sign the servers', instead of the system's");
    app.add_option("--credentials", credentials, "A credentials file of NATS");
    app.add_option("--user", user, "The user name; NATS_PASSWORD or NATS_TOKEN have the secret");
    app.add_option("--stream", stream, "The stream; it is made if it does not exist")
        ->check(requireWord)
        ->capture_default_str();
    app.add_option("--replicas", replicas, "Servers that hold each message of a new stream")
        ->check(CLI::Range(1, 5))
        ->capture_default_str();
    app.add_option("--max-bytes", maxBytes, "The most that the elements of a new stream may take")
        ->transform(CLI::AsSizeValue(false))
        ->default_str("1GiB");
}

Session::Session(Servers const& servers, std::string const& role, Waiting waiting,
                 jsPubAckHandler handler, void* closure)
    : inbox_("_INBOX." + role + '.' + randomName()), waiting_(std::move(waiting)) {
    connect(servers);
    jsOptions settings;
    jsOptions_Init(&settings);
    settings.Wait = milliseconds(answerTime);
    settings.PublishAsync.AckHandler = handler;
    settings.PublishAsync.AckHandlerClosure = closure;
    jsCtx* jetStream = nullptr;
    require(natsConnection_JetStream(&jetStream, connection_.get(), &settings), "use JetStream");
    jetStream_.reset(jetStream);
    makeStream(servers.stream, servers.maxBytes, servers.replicas);
    makeStream(servers.reports(), -1, servers.replicas);
}

Session::~Session() {
    natsConnection_Close(connection_.get());
    subscription_.reset();
    jetStream_.reset();
    connection_.reset();
    nats_CloseAndWait(milliseconds(answerTime)); // no callback runs any more
}

void Session::connect(Servers const& servers) {
    std::string const what = "connect to " + withoutSecrets(examples::join(servers.urls, ","));
    std::vector<char const*> urls;
    for (auto const& url : servers.urls) {
        urls.push_back(url.c_str());
    }
    natsOptions* made = nullptr;
    natsOptions_Create(&made);
    Owner<natsOptions, natsOptions_Destroy> const owner(made);
    auto const set = [&](auto function, auto const&... values) {
        require(function(made, values...), what);
    };
    set(natsOptions_SetServers, urls.data(), static_cast<int>(urls.size()));
    if (!servers.ca.empty() || servers.urls.front().starts_with("tls://")) {
        set(natsOptions_SetSecure, true);
    }
    if (!servers.ca.empty()) {
        set(natsOptions_LoadCATrustedCertificates, servers.ca.c_str());
    }
    if (!servers.credentials.empty()) {
        set(natsOptions_SetUserCredentialsFromFiles, servers.credentials.c_str(), nullptr);
    }
    if (!servers.user.empty()) {
        set(natsOptions_SetUserInfo, servers.user.c_str(), std::getenv("NATS_PASSWORD"));
    }
    if (char const* const token = std::getenv("NATS_TOKEN")) {
        set(natsOptions_SetToken, token);
    }
    set(natsOptions_SetCustomInboxPrefix, inbox_.c_str());
    set(natsOptions_SetTimeout, milliseconds(answerTime));
    set(natsOptions_SetErrorHandler, refused, this);
    // A server that takes no bytes is left after ten seconds, a silent one after fifteen.
    set(natsOptions_SetPingInterval, milliseconds(5s));
    set(natsOptions_SetMaxPingsOut, 2);
    set(natsOptions_SetWriteDeadline, milliseconds(10s));
    set(natsOptions_SetMaxReconnect, -1);
    set(natsOptions_SetReconnectWait, milliseconds(pause));
    set(natsOptions_SetFailRequestsOnDisconnect, true);
    int hangUps = 0;
    attempt(what, [&](jsErrCode&) {
        natsConnection* connection = nullptr;
        natsStatus const status = natsConnection_Connect(&connection, made);
        connection_.reset(connection);
        if (status == NATS_PROTOCOL_ERROR && ++hangUps == 3) {
            fail(what, "the server hangs up, perhaps because it wants a client certificate");
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
    std::string const what = "make the stream " + name;
    jsStreamInfo* info = nullptr;
    auto const start = Clock::now();
    attempt(what, [&](jsErrCode& code) {
        auto status = js_GetStreamInfo(&info, jetStream(), name.c_str(), nullptr, &code);
        if (code == JSStreamNotFoundErr) {
            status = js_AddStream(&info, jetStream(), &config, nullptr, &code);
        }
        if (isFull(code)) {
            fail(what, "the servers cannot reserve " + std::to_string(config.MaxBytes) +
                           " bytes: choose a smaller --max-bytes");
        }
        if (status == NATS_NO_RESPONDERS && Clock::now() - start > startTime) {
            fail(what, "the servers have no JetStream");
        }
        return status;
    });
    StreamInfo const owner(info);
    if (info->Config->Retention != js_WorkQueuePolicy) {
        throw std::runtime_error("the stream " + name +
                                 " is not a work queue: choose another --stream");
    }
    if (maxBytes >= 0) { // that of elements
        stream_ = name;
        limit_ = info->Config->MaxBytes > 0 ? info->Config->MaxBytes / 2 : noLimit;
    }
}

void Session::requireRoom(std::size_t bytes) const {
    auto const [limit, name] = std::min(
        std::pair{limit_, "the limit of its stream (--max-bytes)"},
        std::pair{natsConnection_GetMaxPayload(connection_.get()), "the servers' max_payload"});
    if (bytes + overhead > static_cast<std::size_t>(limit)) {
        throw std::length_error("its " + std::to_string(bytes) + " bytes exceed " + name + ", " +
                                std::to_string(limit) +
                                ": raise that, or split the data into several elements");
    }
}

void Session::check() {
    if (connection_) {
        refused(connection_.get(), nullptr, NATS_OK, this);
    }
    std::unique_lock lock(mutex_);
    if (!error_.empty()) {
        throw std::runtime_error(error_);
    }
    auto const trouble = std::exchange(trouble_, {});
    lock.unlock();
    if (!trouble.empty()) {
        waiting_(trouble);
    }
}

void Session::attempt(std::string const& what, std::function<natsStatus(jsErrCode&)> const& call) {
    for (;;) {
        jsErrCode code{};
        natsStatus const status = call(code);
        check();
        if (!isPassing(status, code)) {
            require(status, what, code);
            return waiting_({});
        }
        waiting_("cannot " + what + ": " + explain(status, code));
        std::this_thread::sleep_for(pause);
    }
}

// The client calls it for each error; most pass.
void Session::refused(natsConnection* connection, natsSubscription*, natsStatus status,
                      void* self) {
    if (status == NATS_NOT_PERMITTED || natsConnection_IsClosed(connection)) {
        char const* text = nullptr;
        natsConnection_GetLastError(connection, &text);
        auto& session = *static_cast<Session*>(self);
        std::lock_guard const lock(session.mutex_);
        session.error_ = std::string("the servers refuse: ") + (text != nullptr ? text : "");
    }
}

void Session::note(natsStatus status, jsErrCode code, char const* detail) {
    std::string const why = "cannot store an element: " + explain(status, code, detail);
    std::lock_guard const lock(mutex_);
    (isPassing(status, code) ? trouble_ : error_) = why;
}

void Session::join(std::string const& stream, std::string const& queue, std::string const& subject,
                   std::chrono::seconds redeliverAfter, std::chrono::seconds lifeTime) {
    queue_ = stream + '.' + queue;
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = queue.c_str();
    config.FilterSubject = subject.c_str();
    config.DeliverPolicy = js_DeliverAll;
    config.AckPolicy = js_AckExplicit;
    config.AckWait = nanoseconds(redeliverAfter);
    config.InactiveThreshold = nanoseconds(lifeTime);
    config.MaxAckPending = 65536;
    attempt("make the queue " + queue, [&](jsErrCode& code) {
        auto const status =
            js_AddConsumer(nullptr, jetStream(), stream.c_str(), &config, nullptr, &code);
        return code == JSStreamNotFoundErr ? NATS_TIMEOUT : status; // a server may know it later
    });
    natsSubscription* subscription = nullptr;
    require(natsConnection_SubscribeSync(&subscription, connection_.get(),
                                         (inbox_ + ".fetch.*").c_str()),
            "receive messages");
    subscription_.reset(subscription);
    answered_ = Clock::now();
    natsSubscription_SetPendingLimits(subscription, -1, -1); // requests are the limit
}

// By hand: the client's own function writes past the end of its list when the answers to an earlier
// request come late. A request with both no_wait and expires waits for one message, and takes what
// is there then. Only single messages may be longer than a mebibyte.
natsStatus Session::request(std::size_t atMost, std::chrono::milliseconds time) {
    nlohmann::json request{{"no_wait", true}, {"expires", nanoseconds(time)}, {"batch", atMost}};
    if (atMost > 1) {
        request["max_bytes"] = 1 << 20;
    }
    reply_ = inbox_ + ".fetch." + std::to_string(++requests_);
    std::string const subject = "$JS.API.CONSUMER.MSG.NEXT." + queue_;
    return natsConnection_PublishRequestString(connection_.get(), subject.c_str(), reply_.c_str(),
                                               request.dump().c_str());
}

std::vector<Message> Session::fetch(std::size_t atMost, std::chrono::milliseconds time) {
    auto status = std::exchange(isAhead_, false) ? NATS_OK : request(atMost, time);
    std::vector<Message> messages;
    std::string end; // the status that ends the request
    while (status == NATS_OK && messages.size() < atMost && end.empty()) {
        natsMsg* raw = nullptr;
        auto const patience = messages.empty() ? time + 20 * lull : lull;
        status = natsSubscription_NextMsg(&raw, subscription_.get(), milliseconds(patience));
        Message message(raw);
        char const* code = nullptr;
        if (status == NATS_OK && deliveries(raw) != 0) {
            messages.push_back(std::move(message));
        } else if (status == NATS_OK &&
                   natsMsg_GetSubject(raw) == reply_) { // not of an earlier one
            natsMsgHeader_Get(raw, "Status", &code);
            end = code != nullptr ? code : "unknown";
        }
        if (end == "409" && messages.empty() && atMost > 1) { // the next message is long
            end.clear();
            status = request(atMost = 1, time);
        }
    }
    if (messages.size() == atMost && atMost > 1) { // the next come while these are handled
        isAhead_ = request(atMost, time) == NATS_OK;
    }
    check();
    require(isPassing(status, {}) ? NATS_OK : status, "take messages");
    if (!messages.empty() || end == "408") { // 408: none came in time, or others get them
        answered_ = Clock::now();
        waiting_({});
    } else if (Clock::now() - answered_ > answerTime) {
        waiting_("cannot take messages: " + (end.empty() ? explain(status) : "status " + end));
        std::this_thread::sleep_for(pause);
    }
    return messages;
}

void Session::answer(std::string const& reply, char const* word) const {
    static_cast<void>(natsConnection_PublishString(connection_.get(), reply.c_str(), word));
}

void Session::store(std::string const& subject, std::string const& text) {
    attempt("store " + subject, [&](jsErrCode& code) {
        return js_Publish(nullptr, jetStream(), subject.c_str(), text.data(),
                          static_cast<int>(text.size()), nullptr, &code);
    });
}

StreamInfo Session::look(std::string const& filter) {
    jsOptions options;
    jsOptions_Init(&options);
    options.Stream.Info.SubjectsFilter = filter.empty() ? nullptr : filter.c_str();
    jsStreamInfo* info = nullptr;
    auto const status = js_GetStreamInfo(&info, jetStream(), stream_.c_str(), &options, nullptr);
    waiting_(status == NATS_OK ? "" : "cannot look at the stream: " + explain(status));
    return StreamInfo(info);
}

std::uint64_t deliveries(natsMsg* message) {
    jsMsgMetaData* data = nullptr;
    natsMsg_GetMetaData(&data, message);
    Owner<jsMsgMetaData, jsMsgMetaData_Destroy> const owner(data);
    return data != nullptr ? data->NumDelivered : 0;
}

std::string randomName() {
    std::random_device random;
    return hexadecimal((std::uint64_t{random()} << 32) | random()).substr(2);
}

bool isWord(std::string const& text) {
    return std::regex_match(text, std::regex("[A-Za-z0-9_-]+"));
}

std::string requireWord(std::string const& text) {
    return isWord(text) ? "" : "must be letters, digits, - and _";
}

} // namespace courier::examples::nats
