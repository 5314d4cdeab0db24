// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_BUFFERS_H
#define COURIER_HUB_SERIALISATION_BUFFERS_H

#include <courier/hub/serialisation/Export.h>

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

// On a function or parameter: what comes out refers to this object or argument. clang then warns
// where the result outlives a temporary or a local variable.
#if defined(__clang__)
#define COURIER_HUB_SERIALISATION_LIFETIMEBOUND [[clang::lifetimebound]]
#else
#define COURIER_HUB_SERIALISATION_LIFETIMEBOUND
#endif

/// Buffers, streams that read and write them in place, the catalogue of serialisers, the fan-out.
namespace courier::hub::serialisation {

static_assert(sizeof(std::size_t) == 8, "courier::hub::serialisation needs a 64-bit std::size_t");

class ByteBuffer;
class ByteBufferView;

namespace detail {
// The throwing ends of inline checks, kept out of line so that the checks inline well.
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwOutOfRange(char const* message);
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwIncompatibleIterators();
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwBlockWithoutDeleter();
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwTooLong();

// The most bytes that a buffer holds. Lengths are compared with it before anything is added to
// them, so that no sum wraps, and so that the standard library's own message is never seen.
inline constexpr std::size_t longest = PTRDIFF_MAX;

template <class T, class... Types>
concept OneOf = (std::same_as<std::remove_cvref_t<T>, Types> || ...);
template <class T>
concept ByteOrCharacterReference = OneOf<T, std::byte, char, signed char, unsigned char, char8_t>;

// Neither a view, which has its copy constructor, nor an array of characters, which may be a
// literal with a 0 at its end.
template <class Range>
concept ByteRange =
    !std::derived_from<Range, ByteBufferView> &&
    (!std::is_array_v<Range> ||
     OneOf<std::remove_extent_t<Range>, std::byte, unsigned char>)&&requires(Range const& range) {
    { *std::ranges::data(range) } -> ByteOrCharacterReference;
    { std::ranges::size(range) } -> std::convertible_to<std::size_t>;
};

// Its bytes do not go with it: a std::string_view, a std::span.
template <class Range>
concept BorrowedByteRange = ByteRange<Range> && std::ranges::enable_borrowed_range<Range>;
template <class Range>
concept OwningByteRange = ByteRange<Range> && !std::ranges::enable_borrowed_range<Range>;
} // namespace detail

/// The iterator of ByteBuffer and ByteBufferView: contiguous, with T = std::byte for mutable and
/// T = std::byte const for read-only access.
///
/// A position is either a raw pointer (external blocks and views) or a position in the buffer's own
/// vector. Positions of different forms are never equal; taking their difference, or comparing
/// their order, throws std::runtime_error "Attempting to take difference between incompatible
/// MessageIterators".
///
/// A plain value that owns nothing. Every operation takes constant time, allocates nothing and,
/// but for the difference, throws nothing. Dereferencing or advancing past the end is not checked.
/// Several threads may walk one buffer while nobody changes it.
template <class T> class ByteBufferIterator {
    static_assert(std::is_same_v<std::remove_const_t<T>, std::byte>);
    using VectorPosition =
        std::conditional_t<std::is_const_v<T>, std::vector<std::byte>::const_iterator,
                           std::vector<std::byte>::iterator>;

public:
    /// As the standard library asks for.
    using iterator_concept = std::contiguous_iterator_tag;
    using iterator_category = std::random_access_iterator_tag;
    using value_type = std::byte;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using reference = T&;

    /// Equal to an iterator made from a null pointer.
    ByteBufferIterator() noexcept = default;

    /// A position in memory.
    explicit ByteBufferIterator(T* p) noexcept : address_(p), inVector_(p == nullptr) {}

    /// A position in a vector.
    explicit ByteBufferIterator(VectorPosition p) noexcept : address_(std::to_address(p)) {}

    /// The read-only iterator at the position of a mutable one.
    template <std::same_as<std::byte> Mutable>
    ByteBufferIterator(ByteBufferIterator<Mutable> const& other) noexcept
        : address_(other.address_), inVector_(other.inVector_) {}

    /// The byte here, or n bytes further on.
    reference operator*() const noexcept { return *address_; }
    pointer operator->() const noexcept { return address_; }
    reference operator[](difference_type n) const noexcept { return address_[n]; }

    /// Moves by n bytes, or by one.
    ByteBufferIterator& operator+=(difference_type n) noexcept {
        address_ += n;
        return *this;
    }
    ByteBufferIterator& operator-=(difference_type n) noexcept { return *this += -n; }
    ByteBufferIterator& operator++() noexcept { return *this += 1; }
    ByteBufferIterator& operator--() noexcept { return *this += -1; }
    ByteBufferIterator operator++(int) noexcept { return std::exchange(*this, *this + 1); }
    ByteBufferIterator operator--(int) noexcept { return std::exchange(*this, *this - 1); }

    /// The position n bytes away.
    [[nodiscard]] friend ByteBufferIterator operator+(ByteBufferIterator it,
                                                      difference_type n) noexcept {
        return it += n;
    }
    [[nodiscard]] friend ByteBufferIterator operator+(difference_type n,
                                                      ByteBufferIterator it) noexcept {
        return it += n;
    }
    [[nodiscard]] friend ByteBufferIterator operator-(ByteBufferIterator it,
                                                      difference_type n) noexcept {
        return it -= n;
    }

    /// The number of bytes from b to a. Throws std::runtime_error for positions of different forms.
    [[nodiscard]] friend difference_type operator-(ByteBufferIterator const& a,
                                                   ByteBufferIterator const& b) {
        // No vector that has bytes has a null address: such a pair is that of a null view.
        if (a.inVector_ != b.inVector_ || !a.address_ != !b.address_) {
            detail::throwIncompatibleIterators();
        }
        return a.address_ - b.address_;
    }

    /// Whether both are one position of one form.
    [[nodiscard]] friend bool operator==(ByteBufferIterator const& a,
                                         ByteBufferIterator const& b) noexcept {
        return a.address_ == b.address_ && a.inVector_ == b.inVector_;
    }

    /// Throws std::runtime_error for positions of different forms.
    friend std::strong_ordering operator<=>(ByteBufferIterator const& a,
                                            ByteBufferIterator const& b) {
        return (a - b) <=> 0;
    }

private:
    friend class ByteBuffer;
    friend class ByteBufferView;
    friend class ByteBufferIterator<std::byte const>;

    ByteBufferIterator(T* address, bool inVector) noexcept
        : address_(address), inVector_(inVector) {}

    // The address serves both forms: a loop over it is a loop over a plain pointer, and the form
    // is asked only where two positions meet.
    T* address_ = nullptr;
    bool inVector_ = true; // the form; true of a null pointer, too
};

static_assert(std::is_trivially_copyable_v<ByteBufferIterator<std::byte>>);
static_assert(std::is_trivially_copyable_v<ByteBufferIterator<std::byte const>>);

/// A pointer and a length: contiguous bytes that somebody else owns.
///
/// Pass it by value. It keeps nothing alive: use it only while the bytes stay where they are, and
/// adopt or copy them into a ByteBuffer to keep them longer. It gives mutable access also when it
/// was made from a pointer to const bytes; do not write through such a view.
///
/// A view with a null start and a length other than 0 can be made, but it is no use: the operations
/// that copy its bytes refuse it, and of its iterators only the comparison for equality and the
/// difference, which throws, are defined.
///
/// Unless a comment says otherwise, every operation takes constant time, allocates nothing and
/// throws nothing; one that throws leaves the view as it was. A view may be read and copied on
/// several threads at once; whether its bytes may is up to their owner.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferView {
public:
    /// A view of no bytes: null start, length 0.
    ByteBufferView() noexcept = default;

    /// The `size` bytes from `data` on. Nothing is checked.
    ByteBufferView(std::byte* data, std::size_t size) noexcept : start_(data), length_(size) {}
    ByteBufferView(std::byte const* data, std::size_t size) noexcept
        : start_(const_cast<std::byte*>(data)), length_(size) {}

    /// The elements of contiguous bytes or characters: a ByteBuffer, a std::span, a std::string, a
    /// std::string_view, a std::vector or std::array of std::byte or any type of character. Not of
    /// a literal: say std::string_view.
    template <detail::BorrowedByteRange Range> explicit ByteBufferView(Range range) noexcept
        : ByteBufferView(reinterpret_cast<std::byte const*>(std::ranges::data(range)),
                         std::size_t{std::ranges::size(range)}) {}
    template <detail::OwningByteRange Range>
    explicit ByteBufferView(Range const& range COURIER_HUB_SERIALISATION_LIFETIMEBOUND) noexcept
        : ByteBufferView(reinterpret_cast<std::byte const*>(std::ranges::data(range)),
                         std::size_t{std::ranges::size(range)}) {}

    /// Whether both have the same bytes, wherever those are. Linear, one block comparison. A null
    /// view with a length equals only its like.
    [[nodiscard]] friend bool operator==(ByteBufferView const& a,
                                         ByteBufferView const& b) noexcept {
        return a.length_ == b.length_ && (a.length_ == 0 || a.start_ == b.start_ ||
                                          (a.start_ != nullptr && b.start_ != nullptr &&
                                           std::memcmp(a.start_, b.start_, a.length_) == 0));
    }

    /// The first byte; null for an empty view that refers to nothing.
    [[nodiscard]] std::byte* data() noexcept { return start_; }
    [[nodiscard]] std::byte const* data() const noexcept { return start_; }

    /// The number of bytes.
    [[nodiscard]] std::size_t size() const noexcept { return length_; }
    /// Whether there are none.
    [[nodiscard]] bool empty() const noexcept { return length_ == 0; }

    /// Byte i, unchecked: i must be below size().
    [[nodiscard]] std::byte& operator[](std::size_t i) noexcept { return start_[i]; }
    [[nodiscard]] std::byte const& operator[](std::size_t i) const noexcept { return start_[i]; }

    /// Byte i. Throws std::out_of_range "Attempt to access position beyond the end of the
    /// ByteBufferView" when i is not below size().
    [[nodiscard]] std::byte& at(std::size_t i) { return start_[checked(i)]; }
    [[nodiscard]] std::byte const& at(std::size_t i) const { return start_[checked(i)]; }

    /// The first byte. Throws std::out_of_range "ByteBufferView is empty".
    [[nodiscard]] std::byte& front() { return *nonEmpty(); }
    [[nodiscard]] std::byte const& front() const { return *nonEmpty(); }

    /// Iterators into the viewed bytes: valid as long as those are, whatever becomes of the view.
    [[nodiscard]] ByteBufferIterator<std::byte> begin() noexcept {
        return {start_, start_ == nullptr};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> begin() const noexcept {
        return {start_, start_ == nullptr};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cbegin() noexcept {
        return std::as_const(*this).begin();
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cbegin() const noexcept { return begin(); }
    [[nodiscard]] ByteBufferIterator<std::byte> end() noexcept {
        return {endAddress(), start_ == nullptr};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> end() const noexcept {
        return {endAddress(), start_ == nullptr};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cend() noexcept {
        return std::as_const(*this).end();
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cend() const noexcept { return end(); }

    /// Makes this the view of no bytes. Like every change of a view, it touches no byte.
    void clear() noexcept { *this = ByteBufferView(); }

    /// Drops the first n bytes from the view; one that ends up empty has a null start. Throws
    /// std::out_of_range "Requested to remove more bytes than exist" when n is above size().
    void trimFront(std::size_t n);

    /// The `count` bytes from `offset` on; a count of 0 reaches to the end, and at the end gives
    /// the view of no bytes. Throws std::out_of_range "Invalid range requested" when the range
    /// leaves the view.
    [[nodiscard]] ByteBufferView makeView(std::size_t offset, std::size_t count) const;

    /// A new buffer with the viewed bytes followed by those of the argument; of a vector of
    /// buffers, element after element. Neither the view nor the argument changes. Linear in the
    /// bytes. Throws std::runtime_error "Attempting to take difference between incompatible
    /// MessageIterators" for a null view with a length, std::length_error "vector too long",
    /// std::bad_alloc.
    [[nodiscard]] ByteBuffer append(ByteBuffer&& other);
    [[nodiscard]] ByteBuffer append(ByteBuffer const& other);
    [[nodiscard]] ByteBuffer append(std::vector<ByteBuffer>&& others);
    [[nodiscard]] ByteBuffer append(std::vector<ByteBuffer> const& others);
    [[nodiscard]] ByteBuffer append(std::vector<std::byte>&& bytes);
    [[nodiscard]] ByteBuffer append(ByteBufferView view);

    /// A new buffer with a copy of the bytes; throws as the buffer's constructor does.
    [[nodiscard]] explicit operator ByteBuffer() const;

private:
    [[nodiscard]] std::size_t checked(std::size_t i) const {
        if (i >= length_) {
            detail::throwOutOfRange(
                "Attempt to access position beyond the end of the ByteBufferView");
        }
        return i;
    }
    [[nodiscard]] std::byte* nonEmpty() const {
        if (length_ == 0) {
            detail::throwOutOfRange("ByteBufferView is empty");
        }
        return start_;
    }
    // Pointer arithmetic on null is undefined, but a null view with a length needs an end as well.
    [[nodiscard]] std::byte* endAddress() const noexcept {
        return start_ != nullptr ? start_ + length_
                                 : reinterpret_cast<std::byte*>(std::uintptr_t{length_});
    }

    std::byte* start_ = nullptr;
    std::size_t length_ = 0;
};

static_assert(std::is_trivially_copyable_v<ByteBufferView>);

/// A sequence of bytes with exactly one owner, kept in one of two forms:
///
///     vector form                          external form
///     start: null                          block ──▶ ┌─────────┬────────────────────┬───┐
///     owned ──▶ ┌──────────────┬───────┐             │ trimmed │ live bytes         │ … │
///               │ bytes        │ spare │             └─────────┴────────────────────┴───┘
///               └──────────────┴───────┘   start ──────────────▶◀─────── size ───────▶
///
/// In external form the bytes are a block that was allocated elsewhere and adopted together with
/// the routine that frees it: received data is not copied. The deleter is called exactly once, with
/// the address that was handed over, when the block is no longer needed: by clear(), the first
/// append(), push_back() or resize(), a move assignment into the buffer, or the destructor. A
/// buffer that has given its block back keeps the deleter and what that captured: they go along
/// when it is moved, and end when something else is moved in or the buffer ends. The deleter runs
/// on the thread that gives the block back, must not be empty and must not throw:
///
///     ByteBuffer good({std::malloc(n), [](void* p) { std::free(p); }}, n);
///     ByteBuffer bad({borrowed, [](void*) {}}, n);  // nobody keeps `borrowed` alive: use a view
///
/// Move-only; clone() copies. A moved-from buffer is empty and may be used again. Use a
/// ByteBufferView to pass bytes on for the length of a call.
///
/// Moving, clear(), the destructor and the queries take constant time (but for freeing), allocate
/// nothing and throw nothing, unless a comment says otherwise. An operation that throws leaves the
/// content as it was. No operation locks: a buffer belongs to one thread at a time, and const
/// operations may run on several threads while nobody changes it.
class COURIER_HUB_SERIALISATION_EXPORT ByteBuffer {
public:
    /// The routine that frees a block.
    using Deleter = std::function<void(void*)>;
    /// A block together with the routine that frees it.
    using Block = std::unique_ptr<void, Deleter>;

    /// An empty buffer; nothing is allocated.
    ByteBuffer() noexcept : owned_() {}

    /// n bytes of value 0. Throws std::length_error "vector too long" above 2^63 - 1,
    /// std::bad_alloc.
    explicit ByteBuffer(std::size_t n);

    /// Takes the vector over without copying its bytes.
    explicit ByteBuffer(std::vector<std::byte> bytes) noexcept : owned_(std::move(bytes)) {}

    /// Adopts the first n bytes of a block without copying them. n is trusted. A null block gives
    /// an empty buffer, whatever n is. Throws std::invalid_argument for a block with an empty
    /// deleter; the block is then left to the caller, who still has its address.
    ByteBuffer(Block block, std::size_t n)
        : deleter_(takeDeleter(block.get_deleter())),
          start_(static_cast<std::byte*>(block.get())), external_{block.release(), n} {
        if (start_ == nullptr) {
            std::construct_at(&owned_);
        } else if (!deleter_) { // let go by now: what cannot be freed would end the process
            detail::throwBlockWithoutDeleter();
        }
    }

    /// A copy of the viewed bytes, allocated to the exact size. Throws std::runtime_error
    /// "Attempting to take difference between incompatible MessageIterators" for a null view with
    /// a length, std::length_error "vector too long" above 2^63 - 1 bytes, std::bad_alloc.
    explicit ByteBuffer(ByteBufferView const& view);

    /// Takes over what the other buffer held, and leaves it empty.
    ByteBuffer(ByteBuffer&& other) noexcept
        : deleter_(takeDeleter(other.deleter_)), start_(other.start_) {
        takeBytes(other);
    }

    /// Frees what this buffer held, the block by its own deleter, before it returns.
    ByteBuffer& operator=(ByteBuffer&& other) noexcept {
        if (start_ != nullptr || deleter_) {
            // What goes with a block may own `other`, or look at this buffer: it goes last.
            ByteBuffer taken(std::move(other));
            ByteBuffer const former(std::move(*this));
            replaceBy(taken);
        } else if (this != &other) {
            replaceBy(other);
        }
        return *this;
    }

    ~ByteBuffer() {
        releaseBlock();
        std::destroy_at(&owned_);
    }

    /// The number of bytes.
    [[nodiscard]] std::size_t size() const noexcept {
        return start_ != nullptr ? external_.size : owned_.size();
    }
    /// Whether there are none.
    [[nodiscard]] bool empty() const noexcept { return size() == 0; }

    /// The first byte; null when empty.
    [[nodiscard]] std::byte* data() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return empty() ? nullptr : base();
    }
    [[nodiscard]] std::byte const* data() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return empty() ? nullptr : base();
    }

    /// Byte i, unchecked: i must be below size().
    [[nodiscard]] std::byte& operator[](std::size_t i) noexcept { return base()[i]; }
    [[nodiscard]] std::byte const& operator[](std::size_t i) const noexcept { return base()[i]; }

    /// Byte i. Throws std::out_of_range "Attempt to access position beyond the end of the
    /// ByteBuffer" when i is not below size().
    [[nodiscard]] std::byte& at(std::size_t i) { return base()[checked(i)]; }
    [[nodiscard]] std::byte const& at(std::size_t i) const { return base()[checked(i)]; }

    /// The first byte. Throws std::out_of_range "ByteBuffer is empty".
    [[nodiscard]] std::byte& front() { return *nonEmpty(); }
    [[nodiscard]] std::byte const& front() const { return *nonEmpty(); }

    /// Iterators are invalid after anything that moves or frees the bytes: append(), push_back(),
    /// resize(), clear(), trimFront() in vector form, a move assignment into this buffer, the end
    /// of the buffer. A move out of it hands them to the other buffer.
    [[nodiscard]] ByteBufferIterator<std::byte>
    begin() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {base(), start_ == nullptr};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const>
    begin() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {base(), start_ == nullptr};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cbegin() noexcept {
        return std::as_const(*this).begin();
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cbegin() const noexcept { return begin(); }
    [[nodiscard]] ByteBufferIterator<std::byte>
    end() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {base() + size(), start_ == nullptr};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const>
    end() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {base() + size(), start_ == nullptr};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cend() noexcept {
        return std::as_const(*this).end();
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cend() const noexcept { return end(); }

    /// Whether both have the same bytes, in whatever form. Linear, one block comparison.
    [[nodiscard]] friend bool operator==(ByteBuffer const& a, ByteBuffer const& b) noexcept {
        return ByteBufferView(a) == ByteBufferView(b);
    }
    [[nodiscard]] friend bool operator==(ByteBuffer const& a, ByteBufferView b) noexcept {
        return ByteBufferView(a) == b;
    }

    /// Empties the buffer and frees its block, if it has one; a vector keeps its capacity.
    void clear() noexcept;

    /// Adds a copy of the argument's bytes at the end, of a vector of buffers element after
    /// element; the argument does not change, also where it is an rvalue. An empty argument changes
    /// nothing; any other, a list of empty buffers too, leaves the buffer in vector form. The
    /// argument may be, hold or view this buffer's own bytes: they count as they were before the
    /// call.
    ///
    /// Linear in the bytes added, amortised: when it must enlarge, it makes room for half as much
    /// again in one allocation, and the first append to an external block moves that block's bytes.
    /// Throws std::length_error "vector too long" where that room would exceed 2^63 - 1 bytes,
    /// std::bad_alloc, and for a null view with a length std::runtime_error "Attempting to take
    /// difference between incompatible MessageIterators" (an external block has then been
    /// exchanged for a vector with the same bytes).
    ByteBuffer& append(ByteBuffer&& other) { return append(std::as_const(other)); }
    ByteBuffer& append(ByteBuffer const& other);
    ByteBuffer& append(std::vector<ByteBuffer>&& others) { return append(std::as_const(others)); }
    ByteBuffer& append(std::vector<ByteBuffer> const& others);
    ByteBuffer& append(std::vector<std::byte>&& bytes);
    ByteBuffer& append(ByteBufferView view) {
        if (start_ == nullptr && view.size() <= owned_.capacity() - owned_.size() &&
            view.data() != nullptr && !isOwn(view.data())) {
            owned_.insert(owned_.end(), view.data(), view.data() + view.size());
        } else {
            appendBeyondRoom(view);
        }
        return *this;
    }

    /// Adds one byte at the end; afterwards the buffer is in vector form. Amortised constant, but
    /// the first one moves an external block's bytes. Throws std::length_error "vector too long",
    /// std::bad_alloc.
    void push_back(std::byte&& b) { push_back(std::as_const(b)); }
    void push_back(std::byte const& b);

    /// Drops bytes at the end or adds bytes of value 0; afterwards the buffer is in vector form.
    /// Enlarging makes room for half as much again in one allocation. Throws std::length_error
    /// "vector too long" where that room would exceed 2^63 - 1 bytes, std::bad_alloc.
    void resize(std::size_t n);

    /// Removes the first n bytes. Constant in external form, where no byte moves; in vector form
    /// the remaining bytes move once. Throws std::out_of_range "Requested to remove more bytes than
    /// exist" when n is above size().
    void trimFront(std::size_t n);

    /// A new buffer in vector form with a copy of the bytes, allocated to the exact size. Throws
    /// std::length_error "vector too long", std::bad_alloc.
    [[nodiscard]] ByteBuffer clone() const;

    /// A view of the `count` bytes from `offset` on; a count of 0 reaches to the end, and at the
    /// end gives the view of no bytes. It is valid as long as an iterator would be. Throws
    /// std::out_of_range "Invalid range requested" when the range leaves the buffer.
    [[nodiscard]] ByteBufferView
    makeView(std::size_t offset, std::size_t count) COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return std::as_const(*this).makeView(offset, count);
    }
    [[nodiscard]] ByteBufferView
    makeView(std::size_t offset, std::size_t count) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND;

private:
    [[nodiscard]] std::byte* base() noexcept { return start_ != nullptr ? start_ : owned_.data(); }
    [[nodiscard]] std::byte const* base() const noexcept {
        return start_ != nullptr ? start_ : owned_.data();
    }
    [[nodiscard]] std::size_t checked(std::size_t i) const {
        if (i >= size()) {
            detail::throwOutOfRange("Attempt to access position beyond the end of the ByteBuffer");
        }
        return i;
    }
    [[nodiscard]] std::byte* nonEmpty() {
        return const_cast<std::byte*>(std::as_const(*this).nonEmpty());
    }
    [[nodiscard]] std::byte const* nonEmpty() const {
        if (empty()) {
            detail::throwOutOfRange("ByteBuffer is empty");
        }
        return base();
    }

    // Whether p points into the vector's bytes, or right behind them.
    [[nodiscard]] bool isOwn(std::byte const* p) const noexcept {
        std::less_equal<> const notAfter;
        return notAfter(owned_.data(), p) && notAfter(p, owned_.data() + owned_.size());
    }

    // A moved-from std::function may still hold what it held.
    [[nodiscard]] static Deleter takeDeleter(Deleter& from) noexcept {
        Deleter taken = std::move(from);
        from = nullptr;
        return taken;
    }

    // Leaves the buffer in vector form, which the deleter finds if it looks.
    void releaseBlock() noexcept {
        if (start_ != nullptr) {
            void* const block = external_.block;
            start_ = nullptr;
            std::construct_at(&owned_);
            deleter_(block);
        }
    }

    // To be called where start_ is the other's already, and neither member of the union lives.
    void takeBytes(ByteBuffer& other) noexcept {
        if (start_ != nullptr) {
            external_ = other.external_;
            other.start_ = nullptr;
            std::construct_at(&other.owned_);
        } else {
            std::construct_at(&owned_, std::move(other.owned_));
        }
    }

    // To be called without a block and a deleter.
    void replaceBy(ByteBuffer& other) noexcept {
        std::destroy_at(&owned_);
        // Half the cost of an assignment, which swaps with a std::function of its own.
        std::destroy_at(&deleter_);
        std::construct_at(&deleter_, takeDeleter(other.deleter_));
        start_ = other.start_;
        takeBytes(other);
    }

    void appendBeyondRoom(ByteBufferView view);
    [[nodiscard]] std::vector<std::byte> copyWithRoomFor(std::size_t n) const;
    void becomeVector(std::vector<std::byte>&& bytes) noexcept;
    template <class ForEachPiece> void appendPieces(std::size_t added, ForEachPiece forEachPiece);

    struct External {
        void* block; // as it was handed over
        std::size_t size;
    };

    Deleter deleter_;
    std::byte* start_ = nullptr; // first live byte of the block; null in vector form
    union {                      // external_ lives while start_ is not null, owned_ otherwise
        External external_;
        std::vector<std::byte> owned_;
    };
};

static_assert(std::is_nothrow_move_constructible_v<ByteBuffer>);
static_assert(std::is_nothrow_move_assignable_v<ByteBuffer>);
static_assert(!std::is_copy_constructible_v<ByteBuffer> && !std::is_copy_assignable_v<ByteBuffer>);

} // namespace courier::hub::serialisation

// The iterators of a view outlive it.
template <> inline constexpr bool
    std::ranges::enable_borrowed_range<courier::hub::serialisation::ByteBufferView> = true;

#endif
