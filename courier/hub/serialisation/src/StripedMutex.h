// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H
#define COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H

#include <array>
#include <atomic>
#include <cstddef>
#include <shared_mutex>

namespace courier::hub::serialisation {

/// A reader-writer lock whose readers stay out of each other's caches: several std::shared_mutex,
/// of which a reader takes one and a writer takes all. For std::shared_lock and std::lock_guard; a
/// shared lock is released by the thread that took it.
class StripedMutex {
public:
    /// Takes every stripe. Throws std::system_error; none is held then.
    void lock() {
        std::size_t taken = 0;
        try {
            for (; taken < stripes_.size(); ++taken) {
                stripes_[taken].mutex.lock();
            }
        } catch (...) {
            unlock(taken);
            throw;
        }
    }
    void unlock() noexcept { unlock(stripes_.size()); }

    /// Takes the calling thread's stripe. Throws std::system_error.
    void lock_shared() { mine().lock_shared(); }
    void unlock_shared() noexcept { mine().unlock_shared(); }

private:
    // A cache line each, and the one beside it that processors fetch along.
    struct alignas(128) Stripe {
        std::shared_mutex mutex;
    };

    void unlock(std::size_t taken) noexcept {
        while (taken > 0) {
            stripes_[--taken].mutex.unlock();
        }
    }

    // Threads take the stripes in turn, so that up to as many as there are never share one.
    [[nodiscard]] std::shared_mutex& mine() noexcept {
        static std::atomic<std::size_t> threads{0};
        thread_local std::size_t const stripe = threads.fetch_add(1, std::memory_order_relaxed);
        return stripes_[stripe % stripes_.size()].mutex;
    }

    std::array<Stripe, 16> stripes_;
};

} // namespace courier::hub::serialisation

#endif
