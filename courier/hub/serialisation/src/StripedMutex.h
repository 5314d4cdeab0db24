// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H
#define COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <shared_mutex>

namespace courier::hub::serialisation {

/// A reader-writer lock whose readers do not contend for a cache line: several std::shared_mutex,
/// of which a reader locks the one of its thread, its stripe, and a writer locks all.
///
/// Neither readers nor writers starve, whichever of them the platform's locks prefer: from the
/// moment that a writer waits, new readers wait behind it.
///
/// A reader that calls users' code marks that by a UserCode. That code may then read again on its
/// thread: it takes no lock, because the outer reader holds one, and does not wait for a writer,
/// which would wait for the outer reader. It must not write: ask isReadHere() first.
class StripedMutex {
    struct Thread;

public:
    /// Holds the lock for reading. The constructor throws std::system_error.
    class Reader {
    public:
        explicit Reader(StripedMutex& mutex) : stripe_(mutex.lockShared()) {}
        Reader(Reader const&) = delete;
        Reader& operator=(Reader const&) = delete;
        ~Reader() {
            if (stripe_ != nullptr) {
                stripe_->unlock_shared();
            }
        }

    private:
        std::shared_mutex* stripe_; // null if an outer reader of this thread holds it
    };

    /// Lives while a reader of the mutex runs users' code on this thread.
    class UserCode {
    public:
        explicit UserCode(StripedMutex const& mutex) noexcept
            : mutex_(&mutex), outer_(thread.innermost) {
            thread.innermost = this;
        }
        UserCode(UserCode const&) = delete;
        UserCode& operator=(UserCode const&) = delete;
        ~UserCode() { thread.innermost = outer_; }

    private:
        friend class StripedMutex;
        StripedMutex const* mutex_;
        UserCode const* outer_;
    };

    /// Excludes other writers, but no readers, for what a writer prepares. The constructor throws
    /// std::system_error.
    class Preparation {
    public:
        explicit Preparation(StripedMutex& mutex) : lock_(mutex.writer_) {}

    private:
        std::lock_guard<std::mutex> lock_;
    };

    /// Excludes readers as well. The constructor throws std::system_error; no stripe is then
    /// locked.
    class Writer {
    public:
        Writer(StripedMutex& mutex, Preparation const&) : mutex_(mutex) { mutex_.lockAll(); }
        Writer(Writer const&) = delete;
        Writer& operator=(Writer const&) = delete;
        ~Writer() { mutex_.unlock(mutex_.stripes_.size()); }

    private:
        StripedMutex& mutex_;
    };

    /// True if users' code that a reader of this mutex called is running on this thread.
    [[nodiscard]] bool isReadHere() const noexcept {
        for (UserCode const* code = thread.innermost; code != nullptr; code = code->outer_) {
            if (code->mutex_ == this) {
                return true;
            }
        }
        return false;
    }

private:
    // A cache line each, and the adjacent one, which processors fetch together with it.
    struct alignas(128) Stripe {
        std::shared_mutex mutex;
    };

    struct Thread {
        std::size_t stripe; // 0: none yet
        UserCode const* innermost;
    };
    static inline constinit thread_local Thread thread{};

    [[nodiscard]] std::shared_mutex* lockShared() {
        if (thread.innermost != nullptr && isReadHere()) {
            return nullptr;
        }
        // Relaxed suffices: a reader that sees this late gets in first, and the writer waits for
        // it.
        if (isWriterThere_.load(std::memory_order_relaxed)) {
            std::lock_guard<std::mutex> const behindIt(writer_);
        }
        if (thread.stripe == 0) { // round-robin: as many threads as stripes never share one
            static std::atomic<std::size_t> threads{0};
            thread.stripe = 1 + threads.fetch_add(1, std::memory_order_relaxed);
        }
        std::shared_mutex& mine = stripes_[thread.stripe % stripes_.size()].mutex;
        mine.lock_shared();
        return &mine;
    }

    void lockAll() {
        isWriterThere_.store(true, std::memory_order_relaxed);
        std::size_t locked = 0;
        try {
            for (; locked < stripes_.size(); ++locked) {
                stripes_[locked].mutex.lock();
            }
        } catch (...) {
            unlock(locked);
            throw;
        }
    }
    void unlock(std::size_t locked) noexcept {
        while (locked > 0) {
            stripes_[--locked].mutex.unlock();
        }
        isWriterThere_.store(false, std::memory_order_relaxed);
    }

    std::array<Stripe, 16> stripes_;
    std::mutex writer_; // held by the one writer that prepares, waits or writes
    std::atomic<bool> isWriterThere_{false};
};

} // namespace courier::hub::serialisation

#endif
