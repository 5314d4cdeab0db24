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

// The routines that encode and decode one payload, and the records under which modules register
// them. <courier/hub/serialisation/Registration.h> makes both from two functions.
//
// Calling an empty routine, or asking a record for a serialiser whose factory is empty, throws
// std::bad_function_call. Whatever a routine or factory throws reaches the caller unchanged.
//
// How a write ends early: a routine that was stopped throws std::system_error with
// std::errc::operation_canceled, and one whose stream failed leaves the stream failed. A routine
// that returns while the stream is good has written everything.

namespace courier::hub::serialisation {

using bedrock::concurrent::threadpool::stop_source;
using bedrock::concurrent::threadpool::stop_token;

/// Throws std::system_error with std::errc::operation_canceled if a stop was requested. For
/// routines that write: call it once for each piece of work. Takes no lock.
COURIER_HUB_SERIALISATION_EXPORT void throwIfStopped(stop_token const& token);

/// Writes one prepared payload, or one element of it, to a stream.
///
/// Move-only. A moved-from serialiser has an empty routine, stop source, text and handle.
///
/// Several threads may move from one object at once: its guard is held meanwhile. Otherwise
/// thread-compatible: calls and getters take no guard, and must not run while the object is moved
/// from or assigned to. Whether one serialiser may be called on several threads at once is up to
/// its routine.
class COURIER_HUB_SERIALISATION_EXPORT GenericSerialiser {
public:
    /// Writes to the stream. A routine that takes long polls the token, by throwIfStopped().
    using Routine = std::function<void(stop_token, std::ostream&)>;

    /// A serialiser that only flushes the stream, with a stop state of its own. Throws
    /// std::bad_alloc.
    GenericSerialiser();

    /// Without a stop source of its own; a token can still be passed to operator(). Allocates
    /// nothing.
    explicit GenericSerialiser(Routine routine) noexcept
        : routine_(std::move(routine)), stopSource_(bedrock::concurrent::threadpool::nostopstate) {}

    /// With a stop source through which it can be stopped. The text and the handle are kept with
    /// it; their meaning is up to whoever made them.
    GenericSerialiser(Routine routine, stop_source stopSource, std::string text = {},
                      std::shared_ptr<void> handle = {}) noexcept
        : routine_(std::move(routine)), stopSource_(std::move(stopSource)), text_(std::move(text)),
          handle_(std::move(handle)) {}

    /// Throws std::system_error if the guard of `other` cannot be locked; strong guarantee.
    GenericSerialiser(GenericSerialiser&& other)
        : GenericSerialiser(std::move(other), std::lock_guard<std::mutex>(other.guard_)) {}

    /// Moves under the guard of `other`, then under this object's. Throws std::system_error if a
    /// guard cannot be locked; if that is this object's own, the content of `other` is lost.
    GenericSerialiser& operator=(GenericSerialiser&& other);

    ~GenericSerialiser() = default;

    /// Writes to the stream. The routine gets a token of the serialiser's own stop source.
    void operator()(std::ostream& out) const;

    /// Writes to the stream. The routine gets this token.
    void operator()(stop_token token, std::ostream& out) const;

    /// The source through which this serialiser can be stopped; empty if it has none.
    [[nodiscard]] stop_source getStopSource() const { return stopSource_; }
    /// The text that is kept with this serialiser. Its meaning is up to whoever made it.
    [[nodiscard]] std::string getText() const { return text_; }
    /// What this serialiser keeps alive; null if nothing.
    [[nodiscard]] std::shared_ptr<void> getHandle() const { return handle_; }

private:
    // A moved-from std::function or std::string is not empty with every standard library.
    GenericSerialiser(GenericSerialiser&& other, std::lock_guard<std::mutex> const&)
        : routine_(std::exchange(other.routine_, nullptr)),
          stopSource_(std::move(other.stopSource_)), text_(std::move(other.text_)),
          handle_(std::move(other.handle_)) {
        other.text_.clear();
    }

    Routine routine_;
    stop_source stopSource_;
    std::string text_;
    std::mutex guard_; // held while another object is moved from this one
    std::shared_ptr<void> handle_;
};

class GenericDeserialiser;

namespace detail {
// What can be called with a std::istream&, and copied, as std::function requires.
template <class F>
concept ReadRoutine = !std::same_as<F, GenericDeserialiser> && std::copy_constructible<F> &&
                      std::invocable<F&, std::istream&>;
// What a routine that writes without a token is made from; the routine itself has its constructor.
template <class F, class Target>
concept DeferredRoutine =
    !std::same_as<F, Target> && !std::same_as<F, std::function<void(std::ostream&)>> &&
    std::copy_constructible<F> && std::invocable<F&, std::ostream&>;
} // namespace detail

/// Reads one payload from a stream.
///
/// Copies hold a copy of the routine and share the handle. A moved-from deserialiser has an empty
/// routine and handle.
///
/// Several threads may copy one object at once, and call it if the routine allows that. An
/// assignment replaces the routine without a guard, then the handle under the source's guard and
/// then the target's: two threads must not assign a pair of objects to each other at once, and
/// nobody may call or copy an object while it is assigned to.
class COURIER_HUB_SERIALISATION_EXPORT GenericDeserialiser {
public:
    /// Reads from the stream and returns what it read.
    using Routine = std::function<core::GenericPayload(std::istream&)>;

    /// Holds anything that can be called with a std::istream&. What returns a GenericPayload is
    /// called as it is; what returns nothing yields an empty payload; any other result yields a
    /// payload of that one element. An empty std::function or a null pointer is accepted: calling
    /// it then throws std::bad_function_call. The handle is kept with the deserialiser and shared
    /// by its copies. Throws std::bad_alloc.
    template <detail::ReadRoutine F>
    GenericDeserialiser(F routine, std::shared_ptr<void> handle = {}) // implicit: takes it over
        : routine_(wrap(std::move(routine))), handle_(std::move(handle)) {}

    /// Throws what copying the routine throws, and std::system_error if the guard of `other` cannot
    /// be locked.
    GenericDeserialiser(GenericDeserialiser const& other);
    /// Throws std::system_error if the guard of `other` cannot be locked; strong guarantee.
    GenericDeserialiser(GenericDeserialiser&& other);

    /// If copying the routine throws, nothing has changed. If a guard cannot be locked,
    /// std::system_error is thrown and the routine has been replaced, but not the handle.
    GenericDeserialiser& operator=(GenericDeserialiser const& other);
    /// If a guard cannot be locked, std::system_error is thrown and the routine has been moved, but
    /// not the handle.
    GenericDeserialiser& operator=(GenericDeserialiser&& other);

    ~GenericDeserialiser() = default;

    /// Reads one payload. What the routine consumed stays consumed, even if it throws.
    [[nodiscard]] core::GenericPayload operator()(std::istream& in) const;

    /// What this deserialiser and its copies keep alive; null if nothing.
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
    mutable std::shared_mutex guard_; // taken while the object is copied, moved from, assigned to
    std::shared_ptr<void> handle_;
};

/// A routine that writes to a stream, kept for later. It copies and moves as the std::function that
/// it holds. Thread-compatible.
class COURIER_HUB_SERIALISATION_EXPORT DeferredSerialiser {
public:
    /// Writes to the stream.
    using Routine = std::function<void(std::ostream&)>;

    /// A routine that does nothing, not even flush.
    DeferredSerialiser();

    /// Takes the routine over, or anything that can be called as one. An empty one throws
    /// std::bad_function_call when called.
    DeferredSerialiser(Routine routine);
    template <detail::DeferredRoutine<DeferredSerialiser> F> DeferredSerialiser(F routine)
        : DeferredSerialiser(Routine(std::move(routine))) {}

    /// Copies or takes over the routine. Copying throws what copying the routine throws.
    DeferredSerialiser(DeferredSerialiser const& other);
    DeferredSerialiser(DeferredSerialiser&& other) noexcept;
    /// If copying throws, nothing has changed.
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
/// A plain value: nothing is checked, and its type identifier and its list of identifiers are
/// independent. A moved-from record has an empty wire format, an empty list and empty factories.
/// Thread-compatible; const members may be called on several threads at once if the factories may.
///
/// <courier/hub/serialisation/Registration.h> makes and registers records from two functions. Write
/// one by hand when the three factories differ.
class COURIER_HUB_SERIALISATION_EXPORT Serialiser {
public:
    /// Makes the serialiser of one element of a shared payload. To keep the payload alive, it moves
    /// the view into the routine of the serialiser that it returns.
    using ViewFactory = std::function<GenericSerialiser(GenericPayloadView&&)>;
    /// The same, with the source through which the caller can stop the write.
    using CancellableViewFactory =
        std::function<GenericSerialiser(GenericPayloadView&&, stop_source&&)>;
    /// Makes the serialiser of a whole payload, which it owns. A payload cannot be copied, so no
    /// std::function holds one; share it instead:
    ///
    ///     [](core::GenericPayload&& payload) {
    ///         auto shared = GenericPayloadWrapperPtr::make(std::move(payload));
    ///         return GenericSerialiser([shared](stop_token const& token, std::ostream& out) {
    ///             write(shared->get(), token, out);
    ///         });
    ///     }
    using PayloadFactory = std::function<GenericSerialiser(core::GenericPayload&&)>;

    /// Look-ups by one identifier match `typeID`; look-ups by a list match `typeIDs` as a whole.
    /// The list is stored as given. It may be empty, but the empty list is a key like any other: of
    /// two records with empty lists in one wire format, the second is a duplicate for the
    /// catalogue.
    Serialiser(std::string wireFormat, std::uint64_t typeID, std::vector<std::uint64_t> typeIDs,
               ViewFactory viewFactory, CancellableViewFactory cancellableViewFactory,
               PayloadFactory payloadFactory) noexcept;

    /// Throws std::bad_alloc, and what copying a factory throws.
    Serialiser(Serialiser const& other);
    Serialiser(Serialiser&& other) noexcept;
    /// Copies member by member: if one throws, those before it have been replaced.
    Serialiser& operator=(Serialiser const& other);
    Serialiser& operator=(Serialiser&& other) noexcept;
    ~Serialiser();

    /// What the constructor was given, by value.
    [[nodiscard]] std::string getWireFormat() const;
    [[nodiscard]] std::uint64_t getTypeID() const noexcept;
    [[nodiscard]] std::vector<std::uint64_t> getTypeIDs() const;

    /// What the factory for these arguments makes. There is no fallback to another factory. Throws
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
/// Copying, moving and threads: as for the GenericDeserialiser inside.
class COURIER_HUB_SERIALISATION_EXPORT Deserialiser {
public:
    /// Throws std::system_error if the guard of the deserialiser cannot be locked.
    Deserialiser(std::string wireFormat, std::uint64_t typeID, GenericDeserialiser deserialiser);

    /// As for the GenericDeserialiser inside.
    Deserialiser(Deserialiser const& other);
    Deserialiser(Deserialiser&& other);
    Deserialiser& operator=(Deserialiser const& other);
    Deserialiser& operator=(Deserialiser&& other);
    ~Deserialiser();

    /// What the constructor was given, by value.
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
