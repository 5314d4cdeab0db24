// SPDX-License-Identifier: Apache-2.0
#ifndef BEDROCK_CONCURRENT_THREADPOOL_STOP_TOKEN_H
#define BEDROCK_CONCURRENT_THREADPOOL_STOP_TOKEN_H

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

/// Cancellation: who asks for a stop, and who looks whether one was asked for.
namespace bedrock::concurrent::threadpool {

/// What the sources and tokens of one stop share. Every module that passes a source or a token on
/// compiles this layout in. Only `stopRequested` is used on this side of the thread pool; the rest
/// is the pool's own and owns nothing.
struct shared_stop_state {
    std::atomic<bool> stopRequested{false}; ///< set once, by the first request

    /// The pool's own.
    std::mutex callbackMutex;
    std::array<std::uint64_t, 3> callbacks{};
    bool acceptsCallbacks{true};
    std::mutex waitMutex;
    std::condition_variable waiters;
};

/// Tag of the stop_source that has no state.
struct nostopstate_t {
    explicit nostopstate_t() = default;
};
/// The tag: `stop_source(nostopstate)` has no state.
inline constexpr nostopstate_t nostopstate{};

/// The side that observes a stop. A copy shares the state. A default-constructed or moved-from
/// token is empty: it never sees a stop.
///
/// One token belongs to one thread at a time; tokens and sources that share a state may be used on
/// different threads at once.
class stop_token {
public:
    stop_token() noexcept = default;

    /// Whether a stop was requested. Takes no lock: ask as often as you like. What the requesting
    /// thread wrote before its request is visible once this is true.
    [[nodiscard]] bool stop_requested() const noexcept {
        return state_ && state_->stopRequested.load(std::memory_order_acquire);
    }

    /// Whether there is a state, so that a stop can ever be seen.
    [[nodiscard]] bool stop_possible() const noexcept { return state_ != nullptr; }

    /// Whether both share one state; two empty ones are equal.
    friend bool operator==(stop_token const&, stop_token const&) noexcept = default;

private:
    friend class stop_source;
    explicit stop_token(std::shared_ptr<shared_stop_state> state) noexcept
        : state_(std::move(state)) {}

    std::shared_ptr<shared_stop_state> state_;
};

/// The side that may ask for a stop. A copy shares the state; a moved-from source is empty. The end
/// of the last source requests nothing. Threads: as for stop_token.
class stop_source {
public:
    /// A source with a state of its own. Allocates once; throws std::bad_alloc.
    stop_source() : state_(std::make_shared<shared_stop_state>()) {}

    /// An empty source: no state, nothing allocated.
    explicit stop_source(nostopstate_t) noexcept {}

    /// A token that shares this source's state; of an empty source, an empty token.
    [[nodiscard]] stop_token get_token() const noexcept { return stop_token(state_); }

    /// Asks for a stop, once and for all.
    /// @return true for the one call that made the request; false later, or on an empty source.
    bool request_stop() noexcept {
        return state_ && !state_->stopRequested.exchange(true, std::memory_order_acq_rel);
    }

    /// Whether a stop was requested through any source of this state. Takes no lock.
    [[nodiscard]] bool stop_requested() const noexcept {
        return state_ && state_->stopRequested.load(std::memory_order_acquire);
    }

    /// Whether there is a state; false for an empty source.
    [[nodiscard]] bool stop_possible() const noexcept { return state_ != nullptr; }

    /// Whether both share one state; two empty ones are equal.
    friend bool operator==(stop_source const&, stop_source const&) noexcept = default;

private:
    std::shared_ptr<shared_stop_state> state_;
};

} // namespace bedrock::concurrent::threadpool

#endif
