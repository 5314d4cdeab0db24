// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_SERIALISERS_H
#define COURIER_HUB_SERIALISATION_SERIALISERS_H

#include <courier/hub/core/GenericPayload.h>
#include <courier/hub/serialisation/Export.h>
#include <courier/hub/serialisation/SharedPayload.h>

#include <bedrock/concurrent/threadpool/stop_token.h>

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
// them. Calling an empty routine, or asking a record for a serialiser whose factory is empty,
// throws std::bad_function_call; whatever a routine or factory throws reaches the caller unchanged.

namespace courier::hub::serialisation {

using bedrock::concurrent::threadpool::stop_source;
using bedrock::concurrent::threadpool::stop_token;

/// Writes one prepared payload, or one element of it, to a stream.
///
/// Move-only. A moved-from serialiser has an empty routine, stop source, text and handle. It may be
/// moved from on one thread while another does the same: its guard is held meanwhile. Calls and
/// getters are not guarded, and must not run while it is moved from or assigned to; whether one
/// serialiser may be called on several threads at once is up to its routine.
class COURIER_HUB_SERIALISATION_EXPORT GenericSerialiser {
public:
    /// Writes to the stream, and looks at the token as often as it likes to.
    using Routine = std::function<void(stop_token, std::ostream&)>;

    /// A serialiser that only flushes the stream, with a stop state of its own. Throws
    /// std::bad_alloc.
    GenericSerialiser();

    /// A serialiser that cannot be stopped by itself: its stop source is empty. Allocates nothing
    /// but what the routine itself needs.
    explicit GenericSerialiser(Routine routine) noexcept
        : routine_(std::move(routine)), stopSource_(bedrock::concurrent::threadpool::nostopstate) {}

    /// A serialiser that stops with the given source. The text and the handle travel with it.
    GenericSerialiser(Routine routine, stop_source stopSource, std::string text = {},
                      std::shared_ptr<void> handle = {}) noexcept
        : routine_(std::move(routine)), stopSource_(std::move(stopSource)), text_(std::move(text)),
          handle_(std::move(handle)) {}

    /// Throws std::system_error when the guard of `other` cannot be locked; nothing has then moved.
    GenericSerialiser(GenericSerialiser&& other)
        : GenericSerialiser(std::move(other), std::lock_guard(other.guard_)) {}

    /// Takes over what `other` holds under its guard, then exchanges it for what this object held
    /// under its own. Throws as the constructor does.
    GenericSerialiser& operator=(GenericSerialiser&& other);

    ~GenericSerialiser() = default;

    /// Writes to the stream; the routine is handed a token of the serialiser's own stop source.
    void operator()(std::ostream& out) const;

    /// Writes to the stream; the routine is handed this token.
    void operator()(stop_token token, std::ostream& out) const;

    /// The source through which this serialiser is stopped; empty where there is none.
    [[nodiscard]] stop_source getStopSource() const { return stopSource_; }
    /// The text that travels with this serialiser; it means what its maker wants it to.
    [[nodiscard]] std::string getText() const { return text_; }
    /// What this serialiser keeps alive; null where its maker gave nothing.
    [[nodiscard]] std::shared_ptr<void> getHandle() const { return handle_; }

private:
    // Not every standard library empties what a std::function or a std::string is moved from.
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

/// Reads one payload from a stream.
///
/// Copies hold a copy of the routine and share the handle. A moved-from deserialiser has an empty
/// routine and handle. Copies may be taken on several threads at once, and calls made where the
/// routine allows it. An assignment exchanges the handle under the source's guard and then the
/// target's: two threads must not assign a pair of objects to each other at once, and nobody may
/// call or copy an object while it is assigned to.
class COURIER_HUB_SERIALISATION_EXPORT GenericDeserialiser {
public:
    /// Reads from the stream and returns what was read.
    using Routine = std::function<core::GenericPayload(std::istream&)>;

    /// Holds a routine. One that returns a GenericPayload is called as it is; one that returns
    /// nothing yields an empty payload; any other yields a payload of that one element. An empty
    /// routine is accepted; calling it throws. The handle travels with the deserialiser. Throws
    /// std::bad_alloc.
    template <class R> explicit GenericDeserialiser(std::function<R(std::istream&)> routine,
                                                    std::shared_ptr<void> handle = {})
        : routine_(wrap(std::move(routine))), handle_(std::move(handle)) {}

    /// Throws what copying the routine throws, std::system_error when the guard of `other` cannot
    /// be locked.
    GenericDeserialiser(GenericDeserialiser const& other);
    /// Throws std::system_error when the guard of `other` cannot be locked; nothing has then moved.
    GenericDeserialiser(GenericDeserialiser&& other);

    /// Copying the routine comes first: when it throws, nothing has changed.
    GenericDeserialiser& operator=(GenericDeserialiser const& other);
    GenericDeserialiser& operator=(GenericDeserialiser&& other);

    ~GenericDeserialiser() = default;

    /// Reads one payload. What the routine consumed stays consumed, also when it throws.
    [[nodiscard]] core::GenericPayload operator()(std::istream& in) const;

    /// What this deserialiser and its copies keep alive; null where their maker gave nothing.
    [[nodiscard]] std::shared_ptr<void> getHandle() const { return handle_; }

private:
    template <class R> static Routine wrap(std::function<R(std::istream&)> routine) {
        if constexpr (std::is_same_v<R, core::GenericPayload>) {
            return routine;
        } else if constexpr (std::is_void_v<R>) {
            return [routine = std::move(routine)](std::istream& in) {
                routine(in);
                return core::GenericPayload();
            };
        } else {
            return [routine = std::move(routine)](std::istream& in) {
                core::GenericPayload payload;
                payload.add(std::make_shared<std::remove_cvref_t<R>>(routine(in)));
                return payload;
            };
        }
    }

    GenericDeserialiser(GenericDeserialiser const& other,
                        std::shared_lock<std::shared_mutex> const&);
    GenericDeserialiser(GenericDeserialiser&& other, std::lock_guard<std::shared_mutex> const&);

    Routine routine_;
    mutable std::shared_mutex guard_;
    std::shared_ptr<void> handle_;
};

/// A routine that writes to a stream, kept for later. It copies and moves as the std::function that
/// it holds; one object belongs to one thread at a time.
class COURIER_HUB_SERIALISATION_EXPORT DeferredSerialiser {
public:
    /// Writes to the stream.
    using Routine = std::function<void(std::ostream&)>;

    /// A routine that does nothing, not even flush.
    DeferredSerialiser();

    /// Takes the routine over; an empty one throws std::bad_function_call when called.
    explicit DeferredSerialiser(Routine routine);

    /// Copies or takes over the routine. Copying throws what copying the routine throws.
    DeferredSerialiser(DeferredSerialiser const& other);
    DeferredSerialiser(DeferredSerialiser&& other) noexcept;
    /// When copying throws, nothing has changed.
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
/// A plain value; nothing relates its type identifier to its list of them, and nothing is checked.
/// Const members may be called on several threads at once if the factories may.
class COURIER_HUB_SERIALISATION_EXPORT Serialiser {
public:
    /// Makes the serialiser of one element of a shared payload. It keeps the payload alive by
    /// moving the view into the routine of the serialiser that it returns.
    using ViewFactory = std::function<GenericSerialiser(GenericPayloadView&&)>;
    /// The same, for a write that the caller can stop.
    using CancellableViewFactory =
        std::function<GenericSerialiser(GenericPayloadView&&, stop_source&&)>;
    /// Makes the serialiser of a whole payload, which it owns.
    using PayloadFactory = std::function<GenericSerialiser(core::GenericPayload&&)>;

    /// `typeID` is what look-ups by one identifier match, `typeIDs` what look-ups by a list match
    /// as a whole; it is stored as given and may be empty.
    Serialiser(std::string wireFormat, std::uint64_t typeID, std::vector<std::uint64_t> typeIDs,
               ViewFactory viewFactory, CancellableViewFactory cancellableViewFactory,
               PayloadFactory payloadFactory) noexcept;

    /// Throws std::bad_alloc, and what copying a factory throws.
    Serialiser(Serialiser const& other);
    /// A moved-from record has an empty wire format, an empty list and empty factories.
    Serialiser(Serialiser&& other) noexcept;
    /// Copies member by member: when one throws, those before it have been replaced.
    Serialiser& operator=(Serialiser const& other);
    Serialiser& operator=(Serialiser&& other) noexcept;
    ~Serialiser();

    /// What the constructor was given, by value.
    [[nodiscard]] std::string getWireFormat() const;
    [[nodiscard]] std::uint64_t getTypeID() const noexcept;
    [[nodiscard]] std::vector<std::uint64_t> getTypeIDs() const;

    /// What the factory for these arguments makes; none stands in for another. Throws
    /// std::bad_function_call when it is empty: the arguments are then untouched.
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
/// Copies, moves and threads: as for the GenericDeserialiser inside.
class COURIER_HUB_SERIALISATION_EXPORT Deserialiser {
public:
    /// Throws std::system_error when the guard of the deserialiser cannot be locked.
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
