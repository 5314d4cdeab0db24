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

// One payload on the heap, shared by counted reference:
//
//   GenericPayloadView ─┐
//   GenericPayloadView ─┼─▶ GenericPayloadWrapper ──▶ Sentinel ◀── whoever waits
//   GenericPayloadView ─┘     payload, count
//
// When the last reference goes, the payload is destroyed first and the Sentinel released then.

namespace courier::hub::serialisation {

/// Tells whether a payload has been released. Goes from unreleased to released once, and never
/// back. Every operation may be called from any thread at any time; a mutex that cannot be locked
/// throws std::system_error.
class Sentinel {
public:
    Sentinel() = default;
    Sentinel(Sentinel const&) = delete;
    Sentinel& operator=(Sentinel const&) = delete;
    ~Sentinel() = default;

    /// Releases, and wakes all who wait. Called by the payload's holder.
    void notify() {
        {
            std::lock_guard const lock(mutex_);
            released_ = true;
        }
        condition_.notify_all();
    }

    /// Blocks until released; returns at once when it already is.
    void wait() const {
        std::unique_lock lock(mutex_);
        condition_.wait(lock, [this] { return released_; });
    }

    /// Blocks until released, but no longer than the given time. Any duration is fine: a negative
    /// one only asks, one of years waits as wait() does.
    /// @return whether it is released.
    template <class Rep, class Period>
    bool waitFor(std::chrono::duration<Rep, Period> const& timeout) const {
        // Neither a deadline that far off nor one before the clock's start can be computed.
        std::chrono::duration<double> const seconds = timeout;
        if (seconds > std::chrono::hours(24 * 365)) {
            wait();
            return true;
        }
        std::unique_lock lock(mutex_);
        return seconds <= std::chrono::seconds(0)
                   ? released_
                   : condition_.wait_for(lock, timeout, [this] { return released_; });
    }

    /// Whether it is released, without blocking for it.
    [[nodiscard]] bool isReleased() const {
        std::lock_guard const lock(mutex_);
        return released_;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable condition_;
    bool released_ = false;           // guarded by mutex_
    std::shared_ptr<void> keepAlive_; // part of the layout that modules compile in; not set here
};

/// The counting base of the shared payload. Made with a count of 0: whoever makes one takes the
/// first reference, with a GenericPayloadWrapperPtr. Any thread may call any operation.
class COURIER_HUB_SERIALISATION_EXPORT GenericPayloadWrapperRefCount {
public:
    /// Allocates the Sentinel. Throws std::bad_alloc.
    GenericPayloadWrapperRefCount();
    GenericPayloadWrapperRefCount(GenericPayloadWrapperRefCount const&) = delete;
    GenericPayloadWrapperRefCount& operator=(GenericPayloadWrapperRefCount const&) = delete;

    /// Releases the Sentinel; the payload is gone by then.
    virtual ~GenericPayloadWrapperRefCount();

    /// Adds one reference. Throws std::system_error when the mutex cannot be locked.
    void addRef();

    /// Drops one reference; the last one deletes this object. A failing lock ends the process.
    void release() noexcept;

    /// The Sentinel that tells when this object is gone. It may outlive it.
    [[nodiscard]] std::shared_ptr<Sentinel> getSentinel() const;

private:
    std::uint32_t count_ = 0; // guarded by mutex_
    std::shared_ptr<Sentinel> sentinel_;
    std::mutex mutex_;
};

/// A payload on the heap, owned by the references to it. The payload itself is not guarded.
class COURIER_HUB_SERIALISATION_EXPORT GenericPayloadWrapper
    : public GenericPayloadWrapperRefCount {
public:
    /// Takes the payload over. Throws std::bad_alloc; the argument is then intact.
    explicit GenericPayloadWrapper(core::GenericPayload&& payload);

    /// Destroys the payload before the base releases the Sentinel.
    ~GenericPayloadWrapper() override;

    /// The payload. Takes no lock.
    [[nodiscard]] core::GenericPayload& get() noexcept { return payload_; }
    [[nodiscard]] core::GenericPayload const& get() const noexcept { return payload_; }

private:
    core::GenericPayload payload_;
};

/// A counted reference to a shared payload, or null. One pointer in size. A moved-from one is null.
/// Copying and dropping a reference locks the payload's mutex once; moving locks nothing.
/// References to one payload may be copied and dropped on several threads at once.
class GenericPayloadWrapperPtr {
public:
    /// Null.
    GenericPayloadWrapperPtr() noexcept = default;

    /// Refers to the wrapper, which may be null, and adds a reference unless told that the caller
    /// hands his own over. Throws std::system_error when the mutex cannot be locked.
    explicit GenericPayloadWrapperPtr(GenericPayloadWrapper* wrapper, bool addReference = true)
        : wrapper_(wrapper) {
        if (wrapper_ != nullptr && addReference) {
            wrapper_->addRef();
        }
    }

    /// Adds a reference. Throws std::system_error when the mutex cannot be locked.
    GenericPayloadWrapperPtr(GenericPayloadWrapperPtr const& other)
        : GenericPayloadWrapperPtr(other.wrapper_) {}
    /// Takes the reference over.
    GenericPayloadWrapperPtr(GenericPayloadWrapperPtr&& other) noexcept
        : wrapper_(std::exchange(other.wrapper_, nullptr)) {}

    /// As the constructors; drops the reference held before. When it throws, nothing has changed.
    GenericPayloadWrapperPtr& operator=(GenericPayloadWrapperPtr const& other) {
        return *this = GenericPayloadWrapperPtr(other);
    }
    GenericPayloadWrapperPtr& operator=(GenericPayloadWrapperPtr&& other) noexcept {
        GenericPayloadWrapperPtr taken(std::move(other));
        std::swap(wrapper_, taken.wrapper_);
        return *this;
    }

    /// Drops the reference; the last one destroys the payload. A failing lock ends the process.
    ~GenericPayloadWrapperPtr() {
        if (wrapper_ != nullptr) {
            wrapper_->release();
        }
    }

    /// The wrapper, or null; it must not be null for `->` and `*`.
    [[nodiscard]] GenericPayloadWrapper* get() const noexcept { return wrapper_; }
    [[nodiscard]] GenericPayloadWrapper* operator->() const noexcept { return wrapper_; }
    [[nodiscard]] GenericPayloadWrapper& operator*() const noexcept { return *wrapper_; }
    /// Whether it is not null.
    [[nodiscard]] explicit operator bool() const noexcept { return wrapper_ != nullptr; }

private:
    GenericPayloadWrapper* wrapper_ = nullptr;
};

static_assert(std::is_nothrow_move_constructible_v<GenericPayloadWrapperPtr>);
static_assert(std::is_nothrow_move_assignable_v<GenericPayloadWrapperPtr>);

/// One element of a shared payload, which lives at least as long as the view. Copying costs what
/// copying the counted reference costs; moving costs nothing and leaves a view of no payload.
struct GenericPayloadView {
    std::size_t index;                ///< the element that the view names
    GenericPayloadWrapperPtr wrapper; ///< the payload that it shares

    /// Names element `index` of the wrapper's payload; nothing is checked.
    GenericPayloadView(GenericPayloadWrapperPtr payload, std::size_t element) noexcept
        : index(element), wrapper(std::move(payload)) {}

    /// The type identifier of the element. Throws std::out_of_range past the end of the payload's
    /// type identifiers, and for a moved-from view.
    [[nodiscard]] std::uint64_t getTypeID() const { return payload().typeIDs.at(index); }

    /// The element, whose type must be T. No lock guards it: serialisers of one payload that run at
    /// once may only read. Throws std::out_of_range past the end and for a moved-from view,
    /// std::bad_cast when the element has another type, or no value.
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
