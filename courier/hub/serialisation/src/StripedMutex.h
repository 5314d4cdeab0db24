// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H
#define COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H

#include <array>
#include <atomic>
#include <cstddef>
#include <shared_mutex>

namespace courier::hub::serialisation {

/// A reader-writer lock whose readers stay out of each other's caches: several std::shared_mutex,
/// of which a reader takes its thread's own and a writer takes all. A writer that waits for a slow
/// reader holds the stripes before that reader's, and keeps those readers waiting too.
///
///     std::shared_lock const reading(mutex.mine());
///     std::lock_guard const writing(mutex);
class StripedMutex {
public:
    /// The calling thread's stripe. Threads get them in turn, so that up to as many as there are
    /// never share one.
    [[nodiscard]] std::shared_mutex& mine() noexcept {
        if (stripeOfThread == 0) {
            static std::atomic<std::size_t> threads{0};
            stripeOfThread = 1 + threads.fetch_add(1, std::memory_order_relaxed);
        }
        return stripes_[stripeOfThread % stripes_.size()].mutex;
    }

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

    static inline thread_local std::size_t stripeOfThread = 0; // 0: the thread has none yet

    std::array<Stripe, 16> stripes_;
};

} // namespace courier::hub::serialisation

#endif
