// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H
#define COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <shared_mutex>

namespace courier::hub::serialisation {

/// A reader-writer lock whose readers stay out of each other's caches: several std::shared_mutex,
/// of which a reader takes its thread's own and a writer takes all.
///
/// No writer starves, whomever the platform's locks prefer: from the moment that one waits, readers
/// that come stay behind it, so that it waits for those that are in and no longer. So a reader must
/// not come in twice.
///
///     std::shared_lock const reading(mutex.mine());
///     std::lock_guard const writing(mutex);
class StripedMutex {
public:
    /// The calling thread's stripe, once no writer waits. Threads get them in turn, so that up to
    /// as many as there are never share one. Throws std::system_error.
    [[nodiscard]] std::shared_mutex& mine() {
        // It orders nothing: a reader that sees it late comes in once more, and is waited for.
        if (isWriterThere_.load(std::memory_order_relaxed)) {
            std::lock_guard const behindIt(writer_);
        }
        if (stripeOfThread == 0) {
            static std::atomic<std::size_t> threads{0};
            stripeOfThread = 1 + threads.fetch_add(1, std::memory_order_relaxed);
        }
        return stripes_[stripeOfThread % stripes_.size()].mutex;
    }

    /// Takes every stripe. Throws std::system_error; none is held then.
    void lock() {
        writer_.lock();
        isWriterThere_.store(true, std::memory_order_relaxed);
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
        isWriterThere_.store(false, std::memory_order_relaxed);
        writer_.unlock();
    }

    static inline thread_local std::size_t stripeOfThread = 0; // 0: the thread has none yet

    std::array<Stripe, 16> stripes_;
    std::mutex writer_; // held by the one writer that waits or is in
    std::atomic<bool> isWriterThere_{false};
};

} // namespace courier::hub::serialisation

#endif
