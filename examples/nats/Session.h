// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_NATS_SESSION_H
#define COURIER_EXAMPLES_NATS_SESSION_H

#include "examples/program/Text.h"

#include <courier/hub/serialisation/Buffers.h>

#include <CLI/CLI.hpp>
#include <nats/nats.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

// The messages between a sender and the workers:
//
//     STREAM.RUN.I               element I; a header has its type, CRC-32 and format
//     STREAM-reports.RUN.WORKER  lines, each with the number of an element, its bytes, CRC-32, how
//                                often it was delivered, nanoseconds, and why it cannot be read
//
// Tabs separate the parts of headers and lines. The servers do not store reports.
// Anyone who may write can send anything. What is not well-formed throws std::runtime_error when it
// is read; whether the rest is true is up to the reader.

namespace courier::examples::nats {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

template <class T, auto destroy> using Owner =
    std::unique_ptr<T, std::integral_constant<decltype(destroy), destroy>>;
using Message = Owner<natsMsg, natsMsg_Destroy>;
using Subscription = Owner<natsSubscription, natsSubscription_Destroy>;
using Messages = std::vector<std::shared_ptr<natsMsg>>;
using StreamInfo = Owner<jsStreamInfo, jsStreamInfo_Destroy>;

struct Label {
    std::uint64_t type = 0;
    std::uint64_t crc = 0;
    std::string format = {};
};
constexpr char labelKey[] = "Courier-Label";
constexpr std::size_t overhead = 4096; // bytes of a message beside its data, at most
constexpr auto pause = 100ms;          // between two attempts

/// At most 500 bytes. Those that are not printable ASCII are written like \x1b.
inline std::string printable(std::string_view text) {
    std::string shown;
    for (char const c : text.substr(0, 500)) {
        auto const code = hexadecimal(static_cast<unsigned char>(c)).substr(16);
        shown += c >= ' ' && c <= '~' ? std::string(1, c) : "\\x" + code;
    }
    return shown;
}

inline std::uint64_t number(std::string const& text) {
    std::uint64_t value = 0;
    char const* const end = text.data() + text.size();
    auto const [next, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || next != end) {
        throw std::runtime_error("it has no number where one is required");
    }
    return value;
}

/// The run, and the element or worker.
inline std::pair<std::string, std::string> subjectOf(natsMsg* message) {
    auto parts = split(natsMsg_GetSubject(message), '.', 3);
    auto const& run = parts[1];
    if (run.size() != 16 || run.find_first_not_of("0123456789abcdef") != std::string::npos) {
        throw std::runtime_error("its subject is not that of a run");
    }
    return {run, parts[2]};
}

/// The line that names a message that is not well-formed.
inline std::string ignored(std::size_t count, natsMsg* message, std::exception const& error) {
    return "ignored, message " + std::to_string(count) + ": " +
           printable(natsMsg_GetSubject(message)) + ": " + error.what();
}

inline std::string_view textOf(natsMsg* message) {
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

inline std::uint64_t crc32(hub::serialisation::ByteBufferView bytes) {
    return ::crc32_z(0, reinterpret_cast<Bytef const*>(bytes.data()), bytes.size());
}

/// Has a copy of the bytes.
inline Message makeElement(std::string const& subject, Label const& label,
                           hub::serialisation::ByteBufferView bytes) {
    natsMsg* message = nullptr;
    auto const* const data = reinterpret_cast<char const*>(bytes.data());
    natsMsg_Create(&message, subject.c_str(), nullptr, data, static_cast<int>(bytes.size()));
    Message owner(message);
    auto const numbers = std::to_string(label.type) + '\t' + std::to_string(label.crc) + '\t';
    if (natsMsgHeader_Set(message, labelKey, (numbers + label.format).c_str()) != NATS_OK) {
        throw std::bad_alloc();
    }
    return owner;
}

inline Label labelOf(natsMsg* message) {
    char const* text = nullptr;
    natsMsgHeader_Get(message, labelKey, &text);
    auto const parts = split(text != nullptr ? text : "", '\t', 3);
    return {number(parts[0]), number(parts[1]), parts[2]};
}

/// 16 random hexadecimal digits.
inline std::string randomName() {
    std::random_device random;
    return hexadecimal((std::uint64_t{random()} << 32) | random()).substr(2);
}

/// Why it cannot be a part of a subject, or an empty text. For options.
inline std::string requireWord(std::string const& text) {
    static std::regex const word("[A-Za-z0-9_-]+");
    return std::regex_match(text, word) ? "" : "must be letters, digits, - and _";
}

/// The servers, how to log in, and the stream.
struct Servers {
    std::vector<std::string> urls{"nats://localhost:4222"}; // several of one cluster
    std::string credentials;
    std::string stream = "elements";
    int replicas = 3;
    std::int64_t maxBytes = std::int64_t{1} << 30;

    void addTo(CLI::App& app) {
        app.add_option("--url", urls, "Servers of the cluster: [USER:PASSWORD@]HOST, with commas")
            ->envname("NATS_URL") // every user of a machine can read command lines
            ->delimiter(',')
            ->allow_extra_args(false)
            ->capture_default_str();
        app.add_option("--credentials", credentials, "A credentials file of NATS");
        app.add_option("--replicas", replicas, "Servers that hold each message of a new stream")
            ->check(CLI::Range(1, 5))
            ->capture_default_str();
        app.add_option("--max-bytes", maxBytes, "The most that the elements of a new stream take")
            ->transform(CLI::AsSizeValue(false))
            ->default_str("1GiB");
    }
};

/// Whether it passes: when servers come back, start, elect a leader or have room, or have made the
/// stream that another program wants as well.
inline bool isPassing(natsStatus status, jsErrCode code) {
    auto const is = [](auto value, auto... values) { return ((value == values) || ...); };
    return is(status, NATS_TIMEOUT, NATS_NO_RESPONDERS, NATS_NO_SERVER, NATS_IO_ERROR,
              NATS_STALE_CONNECTION, NATS_CONNECTION_DISCONNECTED, NATS_INSUFFICIENT_BUFFER) ||
           is(code, JSStreamOfflineErr, JSStreamNotFoundErr, JSStreamNameExistErr,
              JSStreamSubjectOverlapErr, JSConsumerCreateErr, JSConsumerStoreFailedErr) ||
           (code >= JSClusterIncompleteErr && code <= JSClusterNotLeaderErr);
}

/// Without secrets of URLs and places in the client library's source.
inline std::string redacted(std::string const& text) {
    return std::regex_replace(text, std::regex(R"(^\(\S+:\d+\): |(//)[^\s,]*@)"), "$1");
}

/// What the servers say, or else the client library.
inline std::string explain(natsStatus status, char const* detail = nullptr) {
    if (status == NATS_PROTOCOL_ERROR) {
        return "the server hangs up, perhaps because it wants a client certificate";
    }
    natsStatus last = status;
    detail = detail != nullptr ? detail : nats_GetLastError(&last);
    bool const isKnown = last == status && detail != nullptr && *detail != '\0';
    return redacted(isKnown ? detail : natsStatus_GetText(status));
}

/// One connection to a cluster, and its stream of elements. It is a work queue: the servers remove
/// what was acknowledged.
///
/// Whatever fails is repeated for ever, unless the session cannot be set up for a reason that does
/// not pass: that throws std::runtime_error, without passwords and tokens. What the servers do not
/// permit ends the process. requireRoom() and the accessors are thread-safe; the others are for one
/// thread. One session at a time in a process.
class Session {
public:
    /// Called with the reason before each repetition, and with an empty text when the servers
    /// answer. What it throws ends the waiting.
    using Waiting = std::function<void(std::string const& why)>;

    /// Makes the stream if it does not exist yet. The session receives at _INBOX.`role`.> only.
    /// `handler` learns what became of what was published through jetStream().
    Session(Servers const& servers, std::string const& role, Waiting waiting,
            jsPubAckHandler handler = nullptr, void* closure = nullptr)
        : inbox_("_INBOX." + role + '.' + randomName()), waiting_(std::move(waiting)),
          stream_(servers.stream) {
        connect(servers);
        jsOptions settings;
        jsOptions_Init(&settings);
        settings.Wait = 2s / 1ms;
        settings.PublishAsync.AckHandler = handler;
        settings.PublishAsync.AckHandlerClosure = closure;
        jsCtx* jetStream = nullptr;
        natsConnection_JetStream(&jetStream, connection_.get(), &settings);
        jetStream_.reset(jetStream);
        makeStream(servers);
    }

    ~Session() {
        natsConnection_Close(connection_.get());
        subscription_.reset();
        jetStream_.reset();
        connection_.reset();
        nats_CloseAndWait(2s / 1ms); // no callback runs any more
    }

    [[nodiscard]] Subscription subscribe(std::string const& subject) const {
        natsSubscription* subscription = nullptr;
        natsConnection_SubscribeSync(&subscription, connection(), subject.c_str());
        natsSubscription_SetPendingLimits(subscription, -1, -1);
        return Subscription(subscription);
    }

    /// Takes elements from now on, together with all sessions that join a queue of this name. The
    /// servers deliver again what is not answered in time.
    void join(std::string const& queue, std::chrono::seconds redeliverAfter) {
        queue_ = queue;
        jsConsumerConfig config;
        jsConsumerConfig_Init(&config);
        config.Durable = queue.c_str();
        config.AckWait = redeliverAfter / 1ns;
        config.MaxAckPending = 65536;
        attempt("make the queue " + queue, [&](jsErrCode& code) {
            return js_AddConsumer(nullptr, jetStream(), stream_.c_str(), &config, nullptr, &code);
        });
        subscription_ = subscribe(inbox_ + ".fetch.*");
        answered_ = Clock::now();
    }

    /// The messages that are there, at most so many, or else the next one; none after `time`.
    ///
    /// By hand: the client's own function writes past the end of its list when the answers to an
    /// earlier request come late.
    [[nodiscard]] Messages fetch(std::size_t atMost, std::chrono::milliseconds time) {
        // Waits for one message, and takes what is there then. Only single messages may be longer
        // than a mebibyte.
        auto const request = R"({"no_wait": true, "expires": )" + std::to_string(time / 1ns) +
                             R"(, "batch": )" + std::to_string(atMost) +
                             (atMost > 1 ? R"(, "max_bytes": 1048576})" : "}");
        auto const reply = inbox_ + ".fetch." + std::to_string(++requests_);
        auto const subject = "$JS.API.CONSUMER.MSG.NEXT." + stream_ + '.' + queue_;
        natsConnection_PublishRequestString(connection(), subject.c_str(), reply.c_str(),
                                            request.c_str());
        Messages messages;
        std::string end; // the status that ends the request
        while (messages.size() < atMost && end.empty()) {
            natsMsg* raw = nullptr;
            auto const patience = messages.empty() ? time + 200ms : 10ms; // others come later
            if (natsSubscription_NextMsg(&raw, subscription_.get(), patience / 1ms) != NATS_OK) {
                break;
            }
            Message message(raw);
            if (natsMsg_GetReply(raw) != nullptr) {
                messages.push_back(std::move(message));
            } else if (natsMsg_GetSubject(raw) == reply) { // not of an earlier request
                char const* status = nullptr;
                natsMsgHeader_Get(raw, "Status", &status);
                end = status != nullptr ? status : "unknown";
            }
        }
        if (end == "409" && messages.empty() && atMost > 1) { // the next message is long
            return fetch(1, time);
        }
        if (!messages.empty() || end == "408") { // 408: none came in time, or others get them
            answered_ = Clock::now();
            waitFor({});
        } else if (Clock::now() - answered_ > 2s) {
            waitFor("cannot take messages: " + (end.empty() ? "no answer" : "status " + end));
        }
        return messages;
    }

    /// The state of the stream. Null if the servers do not answer.
    [[nodiscard]] StreamInfo look() {
        jsStreamInfo* info = nullptr;
        auto const status = js_GetStreamInfo(&info, jetStream(), stream_.c_str(), nullptr, nullptr);
        StreamInfo owner(info);
        waitFor(status == NATS_OK ? "" : "cannot look at the stream: " + explain(status));
        return owner;
    }

    /// Throws std::length_error, which names the setting, if so many bytes are too long a message.
    void requireRoom(std::size_t bytes) const {
        auto const [limit, name] = std::min(
            std::pair{limit_, "the limit of its stream (--max-bytes)"},
            std::pair{natsConnection_GetMaxPayload(connection()), "the servers' max_payload"});
        if (bytes + overhead > static_cast<std::size_t>(limit)) {
            throw std::length_error("its " + std::to_string(bytes) + " bytes exceed " + name +
                                    ", " + std::to_string(limit) +
                                    ": raise that, or split the data into several elements");
        }
    }

    [[nodiscard]] natsConnection* connection() const { return connection_.get(); }
    [[nodiscard]] jsCtx* jetStream() const { return jetStream_.get(); }
    [[nodiscard]] std::int64_t limit() const { return limit_; } // bytes of all elements

private:
    void connect(Servers const& servers) {
        std::string const what = "connect to " + redacted(examples::join(servers.urls, ","));
        std::vector<char const*> urls;
        for (auto const& url : servers.urls) {
            urls.push_back(url.c_str());
        }
        natsOptions* made = nullptr;
        natsOptions_Create(&made);
        Owner<natsOptions, natsOptions_Destroy> const owner(made);
        auto const set = [&](auto function, auto const&... values) {
            attempt(what, [&](jsErrCode&) { return function(made, values...); });
        };
        set(natsOptions_SetServers, urls.data(), static_cast<int>(urls.size()));
        set(natsOptions_SetSecure, servers.urls.front().starts_with("tls://"));
        if (!servers.credentials.empty()) {
            set(natsOptions_SetUserCredentialsFromFiles, servers.credentials.c_str(), nullptr);
        }
        set(natsOptions_SetCustomInboxPrefix, inbox_.c_str());
        set(natsOptions_SetErrorHandler, refused, nullptr);
        // A server that takes no bytes is left after ten seconds, a silent one after fifteen.
        set(natsOptions_SetPingInterval, 5s / 1ms);
        set(natsOptions_SetWriteDeadline, 10s / 1ms);
        set(natsOptions_SetMaxReconnect, -1);
        set(natsOptions_SetReconnectWait, pause / 1ms);
        int hangUps = 0;
        attempt(what, [&](jsErrCode&) {
            natsConnection* connection = nullptr;
            natsStatus const status = natsConnection_Connect(&connection, made);
            connection_.reset(connection);
            return status == NATS_PROTOCOL_ERROR && ++hangUps < 3 ? NATS_TIMEOUT : status;
        });
    }

    void makeStream(Servers const& servers) {
        std::string const subject = stream_ + ".>";
        char const* subjects[] = {subject.c_str()};
        jsStreamConfig config;
        jsStreamConfig_Init(&config);
        config.Name = stream_.c_str();
        config.Subjects = subjects;
        config.SubjectsLen = 1;
        config.Retention = js_WorkQueuePolicy;
        config.Replicas = servers.replicas;
        config.Discard = js_DiscardNew;
        // A replica that is full may refuse what the others store, so senders stop at half of it.
        config.MaxBytes = 2 * servers.maxBytes;
        StreamInfo info;
        auto const start = Clock::now();
        attempt("reserve " + std::to_string(config.MaxBytes) +
                    " bytes (twice --max-bytes) for the stream " + stream_,
                [&](jsErrCode& code) {
                    jsStreamInfo* raw = nullptr;
                    auto status =
                        js_GetStreamInfo(&raw, jetStream(), stream_.c_str(), nullptr, &code);
                    if (code == JSStreamNotFoundErr) {
                        status = js_AddStream(&raw, jetStream(), &config, nullptr, &code);
                    }
                    info.reset(raw);
                    if (status == NATS_NO_RESPONDERS && Clock::now() - start > 5s) {
                        throw std::runtime_error("the servers have no JetStream");
                    }
                    return status;
                });
        if (info->Config->Retention != js_WorkQueuePolicy || info->Config->MaxBytes < 1) {
            throw std::runtime_error(stream_ + " is not a work queue with a limit of bytes");
        }
        limit_ = info->Config->MaxBytes / 2;
    }

    // Repeats the call while it fails for a reason that passes.
    template <class Call> void attempt(std::string const& what, Call const& call) {
        std::string why;
        do {
            jsErrCode code{};
            natsStatus const status = call(code);
            why = status == NATS_OK ? "" : "cannot " + what + ": " + explain(status);
            if (!why.empty() && !isPassing(status, code)) {
                throw std::runtime_error(why);
            }
            waitFor(why);
        } while (!why.empty());
    }

    void waitFor(std::string const& why) {
        if (connection_ && natsConnection_IsClosed(connection())) {
            refused(connection(), nullptr, NATS_NOT_PERMITTED, nullptr);
        }
        waiting_(why);
        std::this_thread::sleep_for(why.empty() ? 0ms : pause);
    }

    // The client calls it for each error; most pass.
    static void refused(natsConnection* connection, natsSubscription*, natsStatus status, void*) {
        if (status == NATS_NOT_PERMITTED) {
            char const* text = "";
            natsConnection_GetLastError(connection, &text);
            std::cerr << "the servers refuse: " + redacted(text) + '\n';
            ::_exit(1);
        }
    }

    std::string const inbox_;
    Waiting waiting_;
    std::string stream_;
    std::int64_t limit_ = 0; // bytes of the stream
    std::string queue_;
    std::size_t requests_ = 0;
    Clock::time_point answered_;

    Owner<natsConnection, natsConnection_Destroy> connection_;
    Owner<jsCtx, jsCtx_Destroy> jetStream_;
    Subscription subscription_;
};

} // namespace courier::examples::nats

#endif
