// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H
#define COURIER_HUB_SERIALISATION_STRIPED_MUTEX_H

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <shared_mutex>

namespace courier::hub::serialisation {

/// A reader-writer lock whose readers do not contend for a cache line. It has several stripes, each
/// a std::shared_mutex: a reader locks the reader stripe of its thread, a writer locks all stripes.
///
/// Neither readers nor writers starve, whichever the platform's locks prefer: once a writer waits,
/// new readers wait for it.
///
/// Use a CallingReader to run users' code. That code may read again on its thread: a nested read
/// takes no lock, because the outer one holds it, and waits for no writer. It must not write, which
/// would deadlock: check isReadHere() before writing.
class StripedMutex {
    struct Thread;

public:
    /// Holds the lock for reading. The constructor throws std::system_error.
    class Reader {
    public:
        explicit Reader(StripedMutex& mutex) : lock_(mutex.lockShared(current())) {}
        Reader(Reader const&) = delete;
        Reader& operator=(Reader const&) = delete;
        ~Reader() { unlock(lock_); }

    private:
        std::shared_mutex* lock_; // null if an outer reader of this thread holds it
    };

    /// The same for a reader that runs users' code.
    class CallingReader {
    public:
        explicit CallingReader(StripedMutex& mutex)
            : mutex_(&mutex), thread_(current()), lock_(mutex.lockShared(thread_)),
              outer_(thread_.innermost), stripe_(thread_.stripe) {
            thread_.innermost = this;
            thread_.stripe = 0; // so that nested readers check `innermost`
        }
        CallingReader(CallingReader const&) = delete;
        CallingReader& operator=(CallingReader const&) = delete;
        ~CallingReader() {
            thread_.innermost = outer_;
            thread_.stripe = stripe_;
            unlock(lock_);
        }

    private:
        friend class StripedMutex;
        StripedMutex const* mutex_;
        Thread& thread_;
        std::shared_mutex* lock_;
        CallingReader const* outer_;
        std::size_t stripe_;
    };

    /// Excludes other writers, but no readers, while a writer prepares. The constructor throws
    /// std::system_error.
    class Preparation {
    public:
        explicit Preparation(StripedMutex& mutex) : lock_(mutex.writer_) {}

    private:
        std::lock_guard<std::mutex> lock_;
    };

    /// Excludes readers as well. If the constructor throws std::system_error, no stripe stays
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

    /// True if this thread is in users' code called by a CallingReader of this mutex.
    [[nodiscard]] bool isReadHere() const noexcept { return isReadBy(current()); }

private:
    // Two cache lines each, because processors prefetch the adjacent line.
    struct alignas(128) Stripe {
        std::shared_mutex mutex;
    };

    struct Thread {
        std::size_t stripe; // 0: none yet, or in users' code
        CallingReader const* innermost;
    };

    // Not inlined: in a shared library the compiler calls a function for each access to a
    // thread-local variable rather than keeping its address.
    [[gnu::noinline]] static Thread& current() noexcept {
        static constinit thread_local Thread thread{};
        return thread;
    }

    [[nodiscard]] bool isReadBy(Thread const& reading) const noexcept {
        for (auto const* outer = reading.innermost; outer != nullptr; outer = outer->outer_) {
            if (outer->mutex_ == this) {
                return true;
            }
        }
        return false;
    }

    [[nodiscard]] std::shared_mutex* lockShared(Thread& reading) {
        std::size_t stripe = reading.stripe;
        if (stripe == 0) {
            if (isReadBy(reading)) {
                return nullptr;
            }
            stripe = stripeOf(reading);
        }
        // Relaxed suffices: a reader that sees this late locks before the writer, which waits for
        // it.
        if (isWriterThere_.load(std::memory_order_relaxed)) {
            std::lock_guard<std::mutex> const waiting(writer_);
        }
        std::shared_mutex& mine = stripes_[stripe % stripes_.size()].mutex;
        mine.lock_shared();
        return &mine;
    }

    // Round-robin, so that 16 threads in a row use 16 different stripes.
    [[gnu::noinline]] static std::size_t stripeOf(Thread& reading) noexcept {
        if (reading.innermost != nullptr) {
            CallingReader const* outermost = reading.innermost;
            while (outermost->outer_ != nullptr) {
                outermost = outermost->outer_;
            }
            return outermost->stripe_;
        }
        static std::atomic<std::size_t> threads{0};
        return reading.stripe = 1 + threads.fetch_add(1, std::memory_order_relaxed);
    }

    static void unlock(std::shared_mutex* lock) noexcept {
        if (lock != nullptr) {
            lock->unlock_shared();
        }
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
    std::mutex writer_; // locked by the only writer that prepares, waits or writes
    std::atomic<bool> isWriterThere_{false};
};

} // namespace courier::hub::serialisation

#endif
