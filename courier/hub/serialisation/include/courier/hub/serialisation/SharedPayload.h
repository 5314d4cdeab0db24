// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_SHARED_PAYLOAD_H
#define COURIER_HUB_SERIALISATION_SHARED_PAYLOAD_H

#include <courier/hub/core/GenericPayload.h>
#include <courier/hub/serialisation/Export.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

/// \file
/// One payload on the heap, shared by counted references:
///
///     GenericPayloadView ─┐
///     GenericPayloadView ─┼─▶ GenericPayloadWrapper ──▶ Sentinel ◀── waiting threads
///     GenericPayloadView ─┘     payload, count
///
/// Dropping the last reference destroys the payload and then releases the Sentinel.

namespace courier::hub::serialisation {

/// Tells when a shared payload has been destroyed: it is then released, and stays so. It does not
/// tell whether the payload was written.
///
/// Neither copied nor moved; shared by std::shared_ptr. Every operation throws std::system_error if
/// the mutex cannot be locked, with nothing changed. Thread-safe.
class Sentinel {
public:
    Sentinel() = default;
    Sentinel(Sentinel const&) = delete;
    Sentinel& operator=(Sentinel const&) = delete;
    ~Sentinel() = default;

    /// Makes it released and wakes all waiting threads. Called when the payload has been destroyed.
    void notify() {
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            released_ = true;
        }
        condition_.notify_all();
    }

    /// Blocks until it is released. **Whatever holds a serialiser keeps the payload, even after the
    /// serialiser has written:** a std::future holds its task, and what that captured, until the
    /// future is destroyed, and a thread pool may hold its task objects. In a task, call
    /// std::move(serialiser)(out), which releases the payload as soon as it is written.
    void wait() const {
        std::unique_lock<std::mutex> lock(mutex_);
        condition_.wait(lock, [this] { return released_; });
    }

    /// Blocks until it is released, but no longer than the timeout. A timeout of zero, less, or NaN
    /// returns at once. More than 365 days waits without limit.
    /// @return whether it is released.
    template <class Rep, class Period>
    [[nodiscard]] bool waitFor(std::chrono::duration<Rep, Period> const& timeout) const {
        // A deadline far beyond this would overflow the clock.
        std::chrono::duration<double> const seconds = timeout;
        if (seconds > std::chrono::hours(24 * 365)) {
            wait();
            return true;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        if (!(seconds > std::chrono::seconds(0))) { // this comparison is false for a NaN
            return released_;
        }
        return condition_.wait_for(lock, timeout, [this] { return released_; });
    }

    /// True if it is released. Does not wait.
    [[nodiscard]] bool isReleased() const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return released_;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable condition_;
    bool released_ = false;           // guarded by mutex_
    std::shared_ptr<void> keepAlive_; // reserved: part of the ABI, never set here
};

class GenericPayloadWrapperPtr;

/// The reference count of a shared payload, and its Sentinel. The count starts at 0: whoever makes
/// an object takes the first reference, with a GenericPayloadWrapperPtr. Neither copied nor moved.
/// Thread-safe. That the count is a plain integer under a mutex is part of the interface.
class COURIER_HUB_SERIALISATION_EXPORT GenericPayloadWrapperRefCount {
public:
    /// Allocates the Sentinel. Throws std::bad_alloc.
    GenericPayloadWrapperRefCount();
    GenericPayloadWrapperRefCount(GenericPayloadWrapperRefCount const&) = delete;
    GenericPayloadWrapperRefCount& operator=(GenericPayloadWrapperRefCount const&) = delete;

    /// Releases the Sentinel. By then the derived class has destroyed the payload.
    virtual ~GenericPayloadWrapperRefCount();

    /// Adds one reference. Throws std::system_error if the mutex cannot be locked.
    void addRef();

    /// Drops one reference; the last one deletes this object. Terminates if the lock fails.
    void release() noexcept;

    /// The Sentinel that tells when the payload has been destroyed. It may outlive this object.
    [[nodiscard]] std::shared_ptr<Sentinel> getSentinel() const;

private:
    friend class GenericPayloadWrapperPtr; // sets the count without a lock
    friend class FanOutReferences;         // the same, and drops several at once
    void release(std::uint32_t references) noexcept;

    std::uint32_t count_ = 0; // guarded by mutex_
    std::shared_ptr<Sentinel> sentinel_;
    std::mutex mutex_;
};

/// A payload on the heap, owned by the references to it. Make one with
/// GenericPayloadWrapperPtr::make(). The count is thread-safe. No lock guards the payload, so
/// threads that share it may only read it.
class COURIER_HUB_SERIALISATION_EXPORT GenericPayloadWrapper
    : public GenericPayloadWrapperRefCount {
public:
    /// Takes the payload over. Throws std::bad_alloc; the argument is then unchanged.
    explicit GenericPayloadWrapper(core::GenericPayload&& payload);

    /// Destroys the payload; the base class then releases the Sentinel.
    ~GenericPayloadWrapper() override;

    /// The payload. Takes no lock.
    [[nodiscard]] core::GenericPayload& get() noexcept { return payload_; }
    [[nodiscard]] core::GenericPayload const& get() const noexcept { return payload_; }

private:
    core::GenericPayload payload_;
};

/// A counted reference to a shared payload, or null. The last one destroys the payload. A
/// moved-from one is null.
///
/// Thread-compatible; several threads may copy and drop their own references to one payload at
/// once. One pointer in size. Copying or dropping a reference locks the payload's mutex once;
/// moving takes no lock.
class GenericPayloadWrapperPtr {
public:
    /// Null.
    GenericPayloadWrapperPtr() noexcept = default;

    /// Moves the payload to the heap and refers to it: two allocations. Throws std::bad_alloc; the
    /// argument is then unchanged.
    [[nodiscard]] static GenericPayloadWrapperPtr make(core::GenericPayload&& payload) {
        auto* const made = new GenericPayloadWrapper(std::move(payload));
        made->count_ = 1; // no other thread can reach it yet: no lock
        return GenericPayloadWrapperPtr(made, false);
    }

    /// Refers to the wrapper, which may be null. Adds a reference if addReference is true;
    /// otherwise takes over a reference of the caller. Throws std::system_error if the mutex cannot
    /// be locked.
    explicit GenericPayloadWrapperPtr(GenericPayloadWrapper* wrapper, bool addReference = true)
        : wrapper_(wrapper) {
        if (wrapper_ != nullptr && addReference) {
            wrapper_->addRef();
        }
    }

    /// Adds a reference. Throws std::system_error if the mutex cannot be locked.
    GenericPayloadWrapperPtr(GenericPayloadWrapperPtr const& other)
        : GenericPayloadWrapperPtr(other.wrapper_) {}
    /// Takes the reference over.
    GenericPayloadWrapperPtr(GenericPayloadWrapperPtr&& other) noexcept
        : wrapper_(std::exchange(other.wrapper_, nullptr)) {}

    /// As the constructors. Then drops the reference held before. Strong guarantee.
    GenericPayloadWrapperPtr& operator=(GenericPayloadWrapperPtr const& other) {
        return *this = GenericPayloadWrapperPtr(other);
    }
    GenericPayloadWrapperPtr& operator=(GenericPayloadWrapperPtr&& other) noexcept {
        GenericPayloadWrapperPtr taken(std::move(other));
        std::swap(wrapper_, taken.wrapper_);
        return *this;
    }

    /// Drops the reference; the last one destroys the payload. Terminates if the lock fails.
    ~GenericPayloadWrapperPtr() {
        if (wrapper_ != nullptr) {
            wrapper_->release();
        }
    }

    /// The wrapper, or null. Precondition of `->` and `*`: not null.
    [[nodiscard]] GenericPayloadWrapper* get() const noexcept { return wrapper_; }
    [[nodiscard]] GenericPayloadWrapper* operator->() const noexcept { return wrapper_; }
    [[nodiscard]] GenericPayloadWrapper& operator*() const noexcept { return *wrapper_; }
    /// True if it is not null.
    [[nodiscard]] explicit operator bool() const noexcept { return wrapper_ != nullptr; }

private:
    GenericPayloadWrapper* wrapper_ = nullptr;
};

static_assert(std::is_nothrow_move_constructible_v<GenericPayloadWrapperPtr>);
static_assert(std::is_nothrow_move_assignable_v<GenericPayloadWrapperPtr>);

/// One element of a shared payload. It keeps the whole payload alive. A moved-from view has no
/// payload.
///
/// Thread-compatible; several threads may copy and destroy their own views of one payload at once.
/// Copying or destroying a view locks the payload's mutex once; moving takes no lock.
struct GenericPayloadView {
    std::size_t index;                ///< the element's position in the payload
    GenericPayloadWrapperPtr wrapper; ///< the shared payload

    /// Refers to one element of the payload. Nothing is checked.
    GenericPayloadView(GenericPayloadWrapperPtr payload, std::size_t element) noexcept
        : index(element), wrapper(std::move(payload)) {}

    /// A copy adds a reference. Throws std::system_error if the mutex cannot be locked; strong
    /// guarantee.
    GenericPayloadView(GenericPayloadView const&) = default;
    GenericPayloadView(GenericPayloadView&&) noexcept = default;
    GenericPayloadView& operator=(GenericPayloadView const& other) {
        return *this = GenericPayloadView(other); // copies first: strong guarantee
    }
    GenericPayloadView& operator=(GenericPayloadView&&) noexcept = default;
    ~GenericPayloadView() = default;

    /// The type identifier of the element. Throws std::out_of_range if the index is not below the
    /// number of type identifiers, or if the view is moved-from.
    [[nodiscard]] std::uint64_t getTypeID() const {
        core::GenericPayload const& shared = payload();
        if (index >= shared.typeIDs.size()) {
            core::detail::throwNoElement(index, shared.elementCount, shared.typeIDs.size(),
                                         shared.values.size());
        }
        return shared.typeIDs[index];
    }

    /// The element, whose type must be T. No lock guards it: serialisers that share a payload may
    /// only read it. Throws what core::GenericPayload::get() throws, and std::out_of_range if the
    /// view is moved-from.
    template <class T> [[nodiscard]] T& get() const { return payload().get<T>(index); }

private:
    [[nodiscard]] core::GenericPayload& payload() const {
        if (!wrapper) {
            throwNoPayload();
        }
        return wrapper->get();
    }
    [[noreturn]] COURIER_HUB_SERIALISATION_EXPORT static void throwNoPayload();
};

} // namespace courier::hub::serialisation

#endif
