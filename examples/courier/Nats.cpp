// SPDX-License-Identifier: Apache-2.0
#include "Nats.h"

#include <cstdint>
#include <thread>
#include <utility>

namespace courier::examples::nats {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto patience = 60s;  // with a cluster that has lost a server
constexpr auto answerTime = 2s; // of one request
constexpr auto catchUp = 5s;    // of a replica with its leader
constexpr auto pause = 100ms;   // between two attempts

// Whether a cluster that loses a server, or starts, answers so for a while.
bool isPassing(natsStatus status, jsErrCode code) {
    switch (status) {
    case NATS_TIMEOUT:
    case NATS_NO_RESPONDERS:
    case NATS_NO_SERVER:
    case NATS_IO_ERROR:
    case NATS_STALE_CONNECTION:
    case NATS_CONNECTION_DISCONNECTED:
        return true;
    case NATS_ERR:
        switch (static_cast<int>(code)) {
        case JSClusterIncompleteErr:
        case JSClusterNoPeersErr:
        case JSClusterNotActiveErr:
        case JSClusterNotAssignedErr:
        case JSClusterNotAvailErr:
        case JSClusterNotLeaderErr:
        case JSInsufficientResourcesErr:
        case JSStreamStoreFailedErr:
        case JSStreamOfflineErr:
        case JSConsumerOfflineErr:
            return true;
        default:
            return false;
        }
    default:
        return false;
    }
}

std::int64_t milliseconds(std::chrono::milliseconds time) { return time.count(); }
std::int64_t nanoseconds(std::chrono::nanoseconds time) { return time.count(); }

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

Session::Session(Servers const& servers) {
    natsOptions* made = nullptr;
    require(natsOptions_Create(&made), "set up a connection");
    Options const options(made);
    std::vector<char const*> urls;
    std::string listed;
    for (auto const& url : servers.urls) {
        urls.push_back(url.c_str());
        listed += (listed.empty() ? "" : ",") + url;
    }
    std::string const what = "connect to " + listed;
    require(natsOptions_SetServers(made, urls.data(), static_cast<int>(urls.size())), what);
    if (!servers.credentials.empty()) {
        require(natsOptions_SetUserCredentialsFromFiles(made, servers.credentials.c_str(), nullptr),
                "read the credentials " + servers.credentials);
    }
    // A server that is gone without a word is noticed within ten seconds, and whoever waits for its
    // answer learns of it at once. Reconnecting goes on for as long as anything is tried.
    for (natsStatus const status :
         {natsOptions_SetTimeout(made, milliseconds(answerTime)),
          natsOptions_SetPingInterval(made, milliseconds(5s)), natsOptions_SetMaxPingsOut(made, 2),
          natsOptions_SetMaxReconnect(made, static_cast<int>(patience / pause)),
          natsOptions_SetReconnectWait(made, milliseconds(pause)),
          natsOptions_SetFailRequestsOnDisconnect(made, true)}) {
        require(status, "set up a connection");
    }
    natsConnection* connection = nullptr;
    require(natsConnection_Connect(&connection, made), what);
    connection_.reset(connection);

    jsOptions settings;
    jsOptions_Init(&settings);
    settings.Wait = milliseconds(answerTime);
    jsCtx* jetStream = nullptr;
    require(natsConnection_JetStream(&jetStream, connection, &settings), "use JetStream");
    jetStream_.reset(jetStream);
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

void Session::makeStream(std::string const& name, std::string const& subject, int replicas) const {
    char const* subjects[] = {subject.c_str()};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = name.c_str();
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Replicas = replicas;
    config.Storage = js_FileStorage;
    config.Discard = js_DiscardNew;
    config.MaxAge = nanoseconds(24h);
    config.Duplicates = nanoseconds(2min);
    config.AllowDirect = true;
    attempt("make the stream " + name + " on " + std::to_string(replicas) + " servers",
            [&](jsErrCode& code) {
                return js_AddStream(nullptr, jetStream_.get(), &config, nullptr, &code);
            });
}

void Session::makeQueue(std::string const& stream, std::string const& name,
                        std::string const& subject, std::chrono::seconds ackPatience,
                        std::chrono::seconds lifeTime) const {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = name.c_str();
    config.FilterSubject = subject.c_str();
    config.DeliverPolicy = js_DeliverAll;
    config.AckPolicy = js_AckExplicit;
    config.AckWait = nanoseconds(ackPatience);
    config.InactiveThreshold = nanoseconds(lifeTime);
    attempt("make the queue " + name, [&](jsErrCode& code) {
        return js_AddConsumer(nullptr, jetStream_.get(), stream.c_str(), &config, nullptr, &code);
    });
}

Queue Session::join(std::string const& stream, std::string const& name) const {
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = stream.c_str();
    options.Consumer = name.c_str();
    natsSubscription* joined = nullptr;
    attempt("join the queue " + name, [&](jsErrCode& code) {
        return js_PullSubscribe(&joined, jetStream_.get(), nullptr, nullptr, nullptr, &options,
                                &code);
    });
    return {name, Subscription(joined)};
}

void Session::publish(natsMsg* message, std::string const& id) const {
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MsgId = id.c_str();
    attempt("publish " + id, [&](jsErrCode& code) {
        return js_PublishMsg(nullptr, jetStream_.get(), message, &options, &code);
    });
}

Message Session::find(std::string const& stream, std::string const& subject) const {
    jsDirectGetMsgOptions options;
    jsDirectGetMsgOptions_Init(&options);
    options.LastBySubject = subject.c_str();
    natsMsg* message = nullptr;
    int misses = 0;
    attempt("get " + subject, [&](jsErrCode&) {
        natsStatus const status =
            js_DirectGetMsg(&message, jetStream_.get(), stream.c_str(), nullptr, &options);
        // Any server that has the stream answers, also one that does not have its latest messages
        // yet: so it is asked for them again for some seconds.
        if (status == NATS_NOT_FOUND) {
            return ++misses < catchUp / pause ? NATS_TIMEOUT : NATS_OK;
        }
        return status;
    });
    return Message(message);
}

void Session::purge(std::string const& stream, std::string const& subject) const {
    jsOptions options;
    jsOptions_Init(&options);
    options.Stream.Purge.Subject = subject.c_str();
    attempt("purge " + subject, [&](jsErrCode& code) {
        return js_PurgeStream(jetStream_.get(), stream.c_str(), &options, &code);
    });
}

void Session::removeQueue(std::string const& stream, std::string const& name) const {
    attempt("remove the queue " + name, [&](jsErrCode& code) {
        natsStatus const status =
            js_DeleteConsumer(jetStream_.get(), stream.c_str(), name.c_str(), nullptr, &code);
        return code == JSConsumerNotFoundErr ? NATS_OK : status; // an answer before was lost
    });
}

std::size_t Session::maxPayload() const {
    return static_cast<std::size_t>(natsConnection_GetMaxPayload(connection_.get()));
}

void Session::flush() const {
    require(natsConnection_FlushTimeout(connection_.get(), milliseconds(answerTime)),
            "send the last acknowledgements");
}

Queue::Queue(std::string name, Subscription subscription)
    : name_(std::move(name)), subscription_(std::move(subscription)), lastAnswer_(Clock::now()) {}

std::vector<Message> Queue::take(int atMost) {
    natsMsgList list{};
    jsErrCode code{};
    natsStatus const status =
        natsSubscription_Fetch(&list, subscription_.get(), atMost, milliseconds(500ms), &code);
    std::vector<Message> messages;
    messages.reserve(static_cast<std::size_t>(list.Count));
    for (int i = 0; i < list.Count; ++i) {
        messages.emplace_back(std::exchange(list.Msgs[i], nullptr));
    }
    natsMsgList_Destroy(&list);
    if (status == NATS_OK || status == NATS_TIMEOUT) {
        lastAnswer_ = Clock::now();
        return messages;
    }
    // An error without a code is a remark of the server that closed the request, such as a change
    // of leaders.
    bool const mayPass = isPassing(status, code) || (status == NATS_ERR && code == jsErrCode{});
    if (!mayPass || Clock::now() - lastAnswer_ > patience) {
        require(status, "take messages from the queue " + name_, code);
    }
    std::this_thread::sleep_for(pause);
    return messages;
}

} // namespace courier::examples::nats
