// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_SERIALISERS_H
#define COURIER_HUB_SERIALISATION_SERIALISERS_H

#include <courier/hub/core/GenericPayload.h>
#include <courier/hub/serialisation/Export.h>
#include <courier/hub/serialisation/SharedPayload.h>

#include <bedrock/concurrent/threadpool/stop_token.h>

#include <concepts>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// \file
/// The routines that write and read one payload, and the records under which modules register them.
/// Registration.h makes both from two functions.
///
/// Calling an empty routine or an empty factory throws std::bad_function_call. Whatever a routine
/// or factory throws reaches the caller unchanged.
///
/// How a write ends early: a routine that is stopped throws std::system_error with
/// std::errc::operation_canceled; a routine whose stream fails leaves the stream failed. A routine
/// that returns while the stream is good has written everything.

namespace courier::hub::serialisation {

using bedrock::concurrent::threadpool::stop_source;
using bedrock::concurrent::threadpool::stop_token;

/// Throws std::system_error with std::errc::operation_canceled if a stop was requested. A routine
/// that writes calls it once for each piece of work. Takes no lock.
COURIER_HUB_SERIALISATION_EXPORT void throwIfStopped(stop_token const& token);

/// Writes one payload, or one element of it, to a stream. A client gets it from a catalogue; a
/// factory makes it from a routine.
///
/// Move-only. A moved-from serialiser has an empty routine, stop source, text and handle.
///
/// Several threads may move from one object at once, because a move locks a guard. Otherwise
/// thread-compatible: calls and getters take no lock and must not run while the object is moved
/// from or assigned to. Whether several threads may call one serialiser at once depends on its
/// routine.
class COURIER_HUB_SERIALISATION_EXPORT GenericSerialiser {
public:
    /// Writes to the stream. A routine that takes long polls the token with throwIfStopped().
    using Routine = std::function<void(stop_token, std::ostream&)>;

    /// A serialiser that only flushes the stream. It has a stop source of its own. Throws
    /// std::bad_alloc.
    GenericSerialiser();

    /// Without a stop source of its own; a token can still be passed to operator(). Allocates
    /// nothing.
    explicit GenericSerialiser(Routine routine) noexcept
        : routine_(std::move(routine)), stopSource_(bedrock::concurrent::threadpool::nostopstate) {}

    /// With a stop source through which it can be stopped. The serialiser stores the text and the
    /// handle; it gives them no meaning.
    GenericSerialiser(Routine routine, stop_source stopSource, std::string text = {},
                      std::shared_ptr<void> handle = {}) noexcept
        : routine_(std::move(routine)), stopSource_(std::move(stopSource)), text_(std::move(text)),
          handle_(std::move(handle)) {}

    /// Throws std::system_error if the guard of `other` cannot be locked; strong guarantee.
    GenericSerialiser(GenericSerialiser&& other)
        : GenericSerialiser(std::move(other), std::lock_guard<std::mutex>(other.guard_)) {}

    /// Locks the guard of `other`, then this object's guard, never both at once. Throws
    /// std::system_error if a guard cannot be locked. This object is then unchanged; if its own
    /// guard failed, the content of `other` is lost.
    GenericSerialiser& operator=(GenericSerialiser&& other);

    ~GenericSerialiser() = default;

    /// Calls the routine with a token of the serialiser's own stop source.
    void operator()(std::ostream& out) const&;

    /// Calls the routine with this token instead.
    void operator()(stop_token token, std::ostream& out) const&;

    /// The same for an rvalue, as in std::move(serialiser)(out). Then releases the routine, and its
    /// share of the payload with it, even when the routine throws. The serialiser has an empty
    /// routine from the start of the call.
    void operator()(std::ostream& out) &&;
    void operator()(stop_token token, std::ostream& out) &&;

    /// The source through which this serialiser can be stopped; empty if it has none.
    [[nodiscard]] stop_source getStopSource() const { return stopSource_; }
    /// The text that the constructor was given.
    [[nodiscard]] std::string getText() const { return text_; }
    /// The handle that the constructor was given; null if none. The serialiser keeps it alive.
    [[nodiscard]] std::shared_ptr<void> getHandle() const { return handle_; }

private:
    // The standard leaves the value of a moved-from std::function or std::string open: both are
    // reset.
    GenericSerialiser(GenericSerialiser&& other, std::lock_guard<std::mutex> const&)
        : routine_(std::exchange(other.routine_, nullptr)),
          stopSource_(std::move(other.stopSource_)), text_(std::move(other.text_)),
          handle_(std::move(other.handle_)) {
        other.text_.clear();
    }

    Routine routine_;
    stop_source stopSource_;
    std::string text_;
    std::mutex guard_; // locked while this object is moved from or assigned to
    std::shared_ptr<void> handle_;
};

class GenericDeserialiser;

namespace detail {
// Callable with a std::istream&, and copyable, as std::function requires.
template <class F>
concept ReadRoutine = !std::same_as<F, GenericDeserialiser> && std::copy_constructible<F> &&
                      std::invocable<F&, std::istream&>;
// Callable with a std::ostream&, and copyable. The std::function itself has its own constructor.
template <class F, class Target>
concept DeferredRoutine =
    !std::same_as<F, Target> && !std::same_as<F, std::function<void(std::ostream&)>> &&
    std::copy_constructible<F> && std::invocable<F&, std::ostream&>;
} // namespace detail

/// Reads one payload from a stream. A client gets it from a catalogue; a module makes it from a
/// routine and registers it.
///
/// A copy has a copy of the routine and shares the handle. A moved-from deserialiser has an empty
/// routine and handle.
///
/// Several threads may copy one object at once, and call it if its routine allows that. Do not
/// assign to an object in use elsewhere, nor from one that another thread changes: an assignment
/// replaces the routine without a lock. It then locks the source's guard and the target's, in this
/// order, to replace the handle, so assigning two objects to each other at once may deadlock.
class COURIER_HUB_SERIALISATION_EXPORT GenericDeserialiser {
public:
    /// Reads from the stream and returns what it read.
    using Routine = std::function<core::GenericPayload(std::istream&)>;

    /// From anything that can be called with a std::istream&. If it returns a GenericPayload, that
    /// is the result; if it returns nothing, the result is an empty payload; otherwise it is a
    /// payload of the one element returned. An empty std::function or a null pointer is accepted;
    /// calling it throws std::bad_function_call. The deserialiser and its copies keep the handle
    /// alive. Throws std::bad_alloc, and what moving the routine throws. Implicit, because it takes
    /// the routine over.
    template <detail::ReadRoutine F>
    GenericDeserialiser(F routine, std::shared_ptr<void> handle = {})
        : routine_(wrap(std::move(routine))), handle_(std::move(handle)) {}

    /// Throws what copying the routine throws, and std::system_error if the guard of `other` cannot
    /// be locked.
    GenericDeserialiser(GenericDeserialiser const& other);
    /// Throws std::system_error if the guard of `other` cannot be locked; strong guarantee.
    GenericDeserialiser(GenericDeserialiser&& other);

    /// Throws what copying the routine throws; nothing has then changed. Throws std::system_error
    /// if a guard cannot be locked; the routine has then been replaced, but not the handle.
    GenericDeserialiser& operator=(GenericDeserialiser const& other);
    /// Throws std::system_error if a guard cannot be locked; the routine has then been moved, but
    /// not the handle.
    GenericDeserialiser& operator=(GenericDeserialiser&& other);

    ~GenericDeserialiser() = default;

    /// Calls the routine. If it throws, what it has read from the stream stays read.
    [[nodiscard]] core::GenericPayload operator()(std::istream& in) const;

    /// The handle that this deserialiser and its copies keep alive; null if none.
    [[nodiscard]] std::shared_ptr<void> getHandle() const { return handle_; }

private:
    template <class F> static Routine wrap(F routine) {
        using Result = std::invoke_result_t<F&, std::istream&>;
        if constexpr (std::is_pointer_v<F> || std::is_member_pointer_v<F>) { // it may be null
            return wrap(std::function<Result(std::istream&)>(routine));
        } else if constexpr (std::is_same_v<std::remove_cvref_t<Result>, core::GenericPayload>) {
            static_assert(!std::is_lvalue_reference_v<Result>,
                          "a payload cannot be copied: the routine returns it by value");
            return routine;
        } else if constexpr (std::is_void_v<Result>) {
            return [kept = std::move(routine)](std::istream& in) mutable {
                kept(in);
                return core::GenericPayload();
            };
        } else {
            return [kept = std::move(routine)](std::istream& in) mutable {
                core::GenericPayload payload;
                payload.add(std::make_shared<std::remove_cvref_t<Result>>(kept(in)));
                return payload;
            };
        }
    }

    GenericDeserialiser(GenericDeserialiser const& other,
                        std::shared_lock<std::shared_mutex> const&);
    GenericDeserialiser(GenericDeserialiser&& other, std::lock_guard<std::shared_mutex> const&);

    Routine routine_;
    mutable std::shared_mutex guard_; // locked for construction from this object, and assignment
    std::shared_ptr<void> handle_;
};

/// A routine that writes to a stream, stored for later. For a write that can be stopped, use
/// GenericSerialiser. Copyable; a moved-from one has an unspecified routine. Thread-compatible.
class COURIER_HUB_SERIALISATION_EXPORT DeferredSerialiser {
public:
    /// Writes to the stream.
    using Routine = std::function<void(std::ostream&)>;

    /// Has a routine that does nothing. Unlike that of a GenericSerialiser, it does not flush.
    DeferredSerialiser();

    /// From a routine, or anything that can be called as one. If it is empty, calling it throws
    /// std::bad_function_call.
    DeferredSerialiser(Routine routine);
    template <detail::DeferredRoutine<DeferredSerialiser> F> DeferredSerialiser(F routine)
        : DeferredSerialiser(Routine(std::move(routine))) {}

    /// Copies or takes over the routine. The copy throws what copying the routine throws.
    DeferredSerialiser(DeferredSerialiser const& other);
    DeferredSerialiser(DeferredSerialiser&& other) noexcept;
    /// The same. Strong guarantee.
    DeferredSerialiser& operator=(DeferredSerialiser const& other);
    DeferredSerialiser& operator=(DeferredSerialiser&& other) noexcept;
    ~DeferredSerialiser();

    /// Calls the routine.
    void operator()(std::ostream& out) const;

private:
    Routine routine_;
};

/// The record under which a module registers how a payload type is written in one wire format.
///
/// addFormat() and addWriter() of Registration.h make and register one from a function. Make one by
/// hand if the three factories differ.
///
/// A plain value. Nothing is checked; its type identifier and its list of identifiers are
/// independent. A moved-from record has an empty wire format, an empty list and empty factories.
/// Thread-compatible; several threads may call getSerialiser() at once if the factory allows that.
class COURIER_HUB_SERIALISATION_EXPORT Serialiser {
public:
    /// Makes the serialiser of one element of a shared payload. Move the view into the serialiser's
    /// routine: it keeps the payload alive.
    using ViewFactory = std::function<GenericSerialiser(GenericPayloadView&&)>;
    /// The same, with the source through which the caller can stop the write.
    using CancellableViewFactory =
        std::function<GenericSerialiser(GenericPayloadView&&, stop_source&&)>;
    /// Makes the serialiser of a whole payload. A std::function cannot hold a payload, which is
    /// move-only, so share it:
    ///
    ///     [](core::GenericPayload&& payload) {
    ///         auto shared = GenericPayloadWrapperPtr::make(std::move(payload));
    ///         return GenericSerialiser([shared](stop_token const& token, std::ostream& out) {
    ///             write(shared->get(), token, out);
    ///         });
    ///     }
    using PayloadFactory = std::function<GenericSerialiser(core::GenericPayload&&)>;

    /// A look-up by one identifier matches `typeID`. A look-up by a list matches the whole of
    /// `typeIDs`, which may be empty. An empty list is a key like any other: of two records with
    /// empty lists in one wire format, the catalogue treats the second as a duplicate.
    Serialiser(std::string wireFormat, std::uint64_t typeID, std::vector<std::uint64_t> typeIDs,
               ViewFactory viewFactory, CancellableViewFactory cancellableViewFactory,
               PayloadFactory payloadFactory) noexcept;

    /// Throws std::bad_alloc, and what copying a factory throws.
    Serialiser(Serialiser const& other);
    Serialiser(Serialiser&& other) noexcept;
    /// Copies member by member. If copying one throws, the members before it have been replaced.
    Serialiser& operator=(Serialiser const& other);
    Serialiser& operator=(Serialiser&& other) noexcept;
    ~Serialiser();

    /// A copy of what the constructor was given.
    [[nodiscard]] std::string getWireFormat() const;
    [[nodiscard]] std::uint64_t getTypeID() const noexcept;
    [[nodiscard]] std::vector<std::uint64_t> getTypeIDs() const;

    /// Calls the factory for these arguments. There is no fallback to another factory. Throws
    /// std::bad_function_call if it is empty; the arguments are then unchanged.
    [[nodiscard]] GenericSerialiser getSerialiser(GenericPayloadView&& view) const;
    [[nodiscard]] GenericSerialiser getSerialiser(GenericPayloadView&& view,
                                                  stop_source&& stopSource) const;
    [[nodiscard]] GenericSerialiser getSerialiser(core::GenericPayload&& payload) const;

private:
    friend struct RecordKeys; // reads in place what the getters copy

    std::string wireFormat_;
    std::uint64_t typeID_;
    std::vector<std::uint64_t> typeIDs_;
    ViewFactory viewFactory_;
    CancellableViewFactory cancellableViewFactory_;
    PayloadFactory payloadFactory_;
};

static_assert(std::is_nothrow_move_constructible_v<Serialiser>);
static_assert(std::is_nothrow_move_assignable_v<Serialiser>);

/// The record under which a module registers how a payload type is read from one wire format.
///
/// addFormat() and addReader() of Registration.h make and register one from a function.
///
/// A plain value. A moved-from record has an unspecified wire format and an empty deserialiser.
/// Threads: as for GenericDeserialiser.
class COURIER_HUB_SERIALISATION_EXPORT Deserialiser {
public:
    /// Throws std::system_error if the guard of the deserialiser cannot be locked.
    Deserialiser(std::string wireFormat, std::uint64_t typeID, GenericDeserialiser deserialiser);

    /// As for the GenericDeserialiser inside; a copy also throws std::bad_alloc.
    Deserialiser(Deserialiser const& other);
    Deserialiser(Deserialiser&& other);
    /// The same. If copying the routine throws, nothing has changed; if a guard cannot be locked,
    /// only the routine has been replaced.
    Deserialiser& operator=(Deserialiser const& other);
    /// If a guard cannot be locked, everything but the handle has been moved.
    Deserialiser& operator=(Deserialiser&& other);
    ~Deserialiser();

    /// A copy of what the constructor was given.
    [[nodiscard]] std::string getWireFormat() const;
    [[nodiscard]] std::uint64_t getTypeID() const noexcept;

    /// A copy of the deserialiser. Throws what copying it throws.
    [[nodiscard]] GenericDeserialiser getDeserialiser() const;

private:
    friend struct RecordKeys; // reads in place what the getters copy

    std::string wireFormat_;
    std::uint64_t typeID_;
    GenericDeserialiser deserialiser_;
};

} // namespace courier::hub::serialisation

#endif
