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

/// Cooperative cancellation: sources request a stop, tokens observe it.
namespace bedrock::concurrent::threadpool {

/// The state that sources and tokens share. Use it through them. Its layout is part of the ABI.
/// Only `stopRequested` is used here; the other members are reserved for the thread pool.
struct shared_stop_state {
    std::atomic<bool> stopRequested{false}; ///< set by the first request, never reset

    /// Reserved for the thread pool.
    std::mutex callbackMutex;
    std::array<std::uint64_t, 3> callbacks{};
    bool acceptsCallbacks{true};
    std::mutex waitMutex;
    std::condition_variable waiters;
};

/// The type of nostopstate.
struct nostopstate_t {
    explicit nostopstate_t() = default;
};
/// Tag: `stop_source(nostopstate)` has no state.
inline constexpr nostopstate_t nostopstate{};

/// Observes whether a stop was requested. A copy shares the state. A default-constructed or
/// moved-from token is empty: it never observes a stop.
///
/// Thread-compatible. Tokens and sources that share a state may be used on different threads at
/// once.
class stop_token {
public:
    stop_token() noexcept = default;

    /// True if a stop was requested. The requesting thread's earlier writes are then visible. Costs
    /// one atomic load; takes no lock.
    [[nodiscard]] bool stop_requested() const noexcept {
        return state_ && state_->stopRequested.load(std::memory_order_acquire);
    }

    /// True if there is a state; false for an empty token, which never observes a stop.
    [[nodiscard]] bool stop_possible() const noexcept { return state_ != nullptr; }

    /// True if both share one state, or both are empty.
    friend bool operator==(stop_token const&, stop_token const&) noexcept = default;

private:
    friend class stop_source;
    explicit stop_token(std::shared_ptr<shared_stop_state> state) noexcept
        : state_(std::move(state)) {}

    std::shared_ptr<shared_stop_state> state_;
};

/// Requests a stop. A copy shares the state; a moved-from source is empty. Destroying the last
/// source does not request a stop. Threads: as for stop_token.
class stop_source {
public:
    /// A source with a state of its own. Allocates once; throws std::bad_alloc.
    stop_source() : state_(std::make_shared<shared_stop_state>()) {}

    /// An empty source: no state, nothing allocated.
    explicit stop_source(nostopstate_t) noexcept {}

    /// A token that shares this source's state; an empty token if the source is empty.
    [[nodiscard]] stop_token get_token() const noexcept { return stop_token(state_); }

    /// Requests a stop, which cannot be withdrawn.
    /// @return true for the first request of this state; false later, or on an empty source.
    bool request_stop() noexcept {
        return state_ && !state_->stopRequested.exchange(true, std::memory_order_acq_rel);
    }

    /// True if a stop was requested through any source of this state. Takes no lock.
    [[nodiscard]] bool stop_requested() const noexcept {
        return state_ && state_->stopRequested.load(std::memory_order_acquire);
    }

    /// True if there is a state; false for an empty source.
    [[nodiscard]] bool stop_possible() const noexcept { return state_ != nullptr; }

    /// True if both share one state, or both are empty.
    friend bool operator==(stop_source const&, stop_source const&) noexcept = default;

private:
    std::shared_ptr<shared_stop_state> state_;
};

} // namespace bedrock::concurrent::threadpool

#endif
