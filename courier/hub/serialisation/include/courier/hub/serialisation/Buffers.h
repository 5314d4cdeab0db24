// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_BUFFERS_H
#define COURIER_HUB_SERIALISATION_BUFFERS_H

#include <courier/hub/serialisation/Export.h>
#include <courier/hub/serialisation/detail/GrownBytes.h>

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

// The code below handles raw bytes, bounds included.
#if defined(__clang__) && __clang_major__ >= 16
#pragma clang unsafe_buffer_usage begin
#endif

// On a function or parameter: the result refers to this object or argument. clang then warns if the
// result outlives a temporary or a local variable.
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
// Throw out of line, so that the checks inline well.
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwOutOfRange(char const* message);
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwIncompatibleIterators();
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwBlockWithoutDeleter();
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwTooLong();

// Copies bytes as std::memcpy does. Short pieces, of 8 to 16 bytes, are copied without a call, as
// two words that may overlap: a call costs as much again as the copy.
inline void copyPiece(std::byte* to, std::byte const* from, std::size_t count) noexcept {
    if (count - 8 <= 8) {
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        std::memcpy(&first, from, 8);
        std::memcpy(&last, from + count - 8, 8);
        std::memcpy(to, &first, 8);
        std::memcpy(to + count - 8, &last, 8);
    } else {
        std::memcpy(to, from, count);
    }
}

// The largest size. Checked before any addition, so that no sum wraps.
inline constexpr std::size_t longest = PTRDIFF_MAX;

template <class T, class... Types>
concept OneOf = (std::same_as<std::remove_cvref_t<T>, Types> || ...);
template <class T>
concept ByteOrCharacterReference = OneOf<T, std::byte, char, signed char, unsigned char, char8_t>;

// An array of bytes, but not of characters: that may be a literal with a 0 at its end.
template <class Range>
concept NoCharacterArray =
    !std::is_array_v<Range> || OneOf<std::remove_extent_t<Range>, std::byte, unsigned char>;

template <class Range>
concept ContiguousBytes = requires(Range const& range) {
    { *std::ranges::data(range) } -> ByteOrCharacterReference;
    { std::ranges::size(range) } -> std::convertible_to<std::size_t>;
};

// Not a view, which has its copy constructor.
template <class Range>
concept ByteRange =
    !std::derived_from<Range, ByteBufferView> && NoCharacterArray<Range> && ContiguousBytes<Range>;

// Ranges that do not own their bytes, such as std::string_view and std::span.
template <class Range>
concept BorrowedByteRange = ByteRange<Range> && std::ranges::enable_borrowed_range<Range>;
template <class Range>
concept OwningByteRange = ByteRange<Range> && !std::ranges::enable_borrowed_range<Range>;
} // namespace detail

/// The iterator of ByteBuffer and ByteBufferView: contiguous, with T = std::byte for mutable and
/// T = std::byte const for read-only access.
///
/// A position is in pointer form (external blocks and views) or in vector form (a buffer's own
/// bytes). Positions of different forms are never equal; subtracting them or comparing their order
/// throws std::runtime_error "Attempting to take difference between incompatible MessageIterators".
///
/// A plain value that owns nothing. Every operation takes constant time and allocates nothing. Does
/// not throw, except for subtraction and ordering. Dereferencing or advancing past the end is not
/// checked. Several threads may iterate over one buffer while nobody changes it.
///
/// Loops over it are loops over a plain pointer. But the algorithms of this standard library's
/// `std` namespace copy only its own iterators and pointers by std::memmove: to copy many bytes,
/// pass a std::span<std::byte const> of the buffer or view instead.
template <class T> class ByteBufferIterator {
    static_assert(std::is_same_v<std::remove_const_t<T>, std::byte>);
    using VectorPosition =
        std::conditional_t<std::is_const_v<T>, std::vector<std::byte>::const_iterator,
                           std::vector<std::byte>::iterator>;

public:
    /// Required by std::iterator_traits.
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
        if (a.inVector_ != b.inVector_) {
            detail::throwIncompatibleIterators();
        }
        return a.address_ - b.address_;
    }

    /// True if both are the same position in the same form.
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

    T* address_ = nullptr;
    bool inVector_ = true; // the form; a null pointer is in vector form
};

static_assert(std::is_trivially_copyable_v<ByteBufferIterator<std::byte>>);
static_assert(std::is_trivially_copyable_v<ByteBufferIterator<std::byte const>>);

/// A pointer and a length: contiguous bytes that somebody else owns.
///
/// Pass it by value, for the length of a call. To keep the bytes longer, adopt or copy them into a
/// ByteBuffer: a view keeps nothing alive, and is valid while the bytes stay where they are. It
/// gives mutable access even if it was made from a pointer to const bytes; do not write through
/// such a view.
///
/// A view with a null start and a length other than 0 can be constructed but is useless: operations
/// that copy its bytes throw; its iterators may only be compared for equality or subtracted, which
/// throws.
///
/// Unless a comment says otherwise, operations take constant time, allocate nothing and do not
/// throw; one that throws gives the strong guarantee. Thread-compatible; whether the bytes may be
/// read on several threads is up to their owner.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferView {
public:
    /// The names that standard containers have.
    using value_type = std::byte;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = std::byte&;
    using const_reference = std::byte const&;
    using iterator = ByteBufferIterator<std::byte>;
    using const_iterator = ByteBufferIterator<std::byte const>;

    /// A view of no bytes: null start, length 0.
    ByteBufferView() noexcept = default;

    /// The `size` bytes that start at `data`. Nothing is checked.
    ByteBufferView(std::byte* data, std::size_t size) noexcept : start_(data), length_(size) {}
    ByteBufferView(std::byte const* data, std::size_t size) noexcept
        : start_(const_cast<std::byte*>(data)), length_(size) {}

    /// The elements of contiguous bytes or characters: a ByteBuffer, a std::span, a std::string, a
    /// std::string_view, a std::vector or std::array of std::byte or any type of character. String
    /// literals are rejected: wrap them in std::string_view.
    template <detail::BorrowedByteRange Range> explicit ByteBufferView(Range range) noexcept
        : ByteBufferView(reinterpret_cast<std::byte const*>(std::ranges::data(range)),
                         std::size_t{std::ranges::size(range)}) {}
    template <detail::OwningByteRange Range>
    explicit ByteBufferView(Range const& range COURIER_HUB_SERIALISATION_LIFETIMEBOUND) noexcept
        : ByteBufferView(reinterpret_cast<std::byte const*>(std::ranges::data(range)),
                         std::size_t{std::ranges::size(range)}) {}

    /// True if both have the same bytes, wherever those are. Linear, one block comparison. A null
    /// view with a length equals only another one of that length.
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

    /// Byte i, unchecked. Precondition: i is below size().
    [[nodiscard]] std::byte& operator[](std::size_t i) noexcept { return start_[i]; }
    [[nodiscard]] std::byte const& operator[](std::size_t i) const noexcept { return start_[i]; }

    /// Byte i. Throws std::out_of_range "Attempt to access position beyond the end of the
    /// ByteBufferView" if i is not below size().
    std::byte& at(std::size_t i) { return start_[checked(i)]; }
    std::byte const& at(std::size_t i) const { return start_[checked(i)]; }

    /// The first byte. Throws std::out_of_range "ByteBufferView is empty".
    std::byte& front() { return *nonEmpty(); }
    std::byte const& front() const { return *nonEmpty(); }

    /// Iterators over the viewed bytes. They are valid while the bytes are, whatever happens to the
    /// view. A view and a const view have all eight functions, as a buffer has.
    [[nodiscard]] ByteBufferIterator<std::byte> begin() noexcept {
        return ByteBufferIterator<std::byte>(start_);
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> begin() const noexcept {
        return ByteBufferIterator<std::byte const>(start_);
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cbegin() noexcept {
        return std::as_const(*this).begin();
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cbegin() const noexcept { return begin(); }
    [[nodiscard]] ByteBufferIterator<std::byte> end() noexcept {
        return ByteBufferIterator<std::byte>(endAddress());
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> end() const noexcept {
        return ByteBufferIterator<std::byte const>(endAddress());
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cend() noexcept {
        return std::as_const(*this).end();
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cend() const noexcept { return end(); }

    /// Makes this a view of no bytes. Like every change of a view, it changes no byte.
    void clear() noexcept { *this = ByteBufferView(); }

    /// Removes the first, or the last, n bytes from the view. A view that becomes empty has a null
    /// start. Throws std::out_of_range "Requested to remove more bytes than exist" if n is above
    /// size().
    void trimFront(std::size_t n);
    void trimBack(std::size_t n);

    /// The first, or the last, n bytes. Throws std::out_of_range "Invalid range requested" if n is
    /// above size().
    [[nodiscard]] ByteBufferView first(std::size_t n) const { return subview(0, n); }
    [[nodiscard]] ByteBufferView last(std::size_t n) const;

    /// The bytes from `offset` to the end, or `count` of them; a count of 0 means no bytes. Throws
    /// std::out_of_range "Invalid range requested" if the range exceeds the view.
    [[nodiscard]] ByteBufferView subview(std::size_t offset) const;
    [[nodiscard]] ByteBufferView subview(std::size_t offset, std::size_t count) const;

    /// The same, but a count of 0 means up to the end; at the end it gives a view of no bytes. For
    /// a count that may be 0, use subview().
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
    [[nodiscard]] ByteBuffer append(std::vector<std::byte> const& bytes);
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
    // Pointer arithmetic on null is undefined, but a null view with a length has an end as well: an
    // address, which is therefore in pointer form.
    [[nodiscard]] std::byte* endAddress() const noexcept {
        return start_ != nullptr ? start_ + length_
                                 : reinterpret_cast<std::byte*>(std::uintptr_t{length_});
    }

    std::byte* start_ = nullptr;
    std::size_t length_ = 0;
};

static_assert(std::is_trivially_copyable_v<ByteBufferView>);

/// A sequence of bytes with exactly one owner, in one of two forms:
///
///     vector form                          external form
///     data ──▶ ┌──────────────┬───────┐    block ──▶ ┌─────────┬────────────────────┬───┐
///              │ bytes        │ spare │              │ trimmed │ live bytes         │ … │
///              └──────────────┴───────┘              └─────────┴────────────────────┴───┘
///              ◀─── size ────▶                  data ──────────▶◀─────── size ───────▶
///              ◀────── capacity ──────▶
///
/// In external form the bytes are a block that was allocated elsewhere and adopted together with
/// the routine that frees it: received data is not copied. adopt() makes such a buffer of any owner
/// of bytes. Use a ByteBufferView instead to pass bytes on for the length of a call, or if nobody
/// gives them away.
///
/// Move-only; clone() copies. A moved-from buffer is empty and may be used again. The deleter is
/// called exactly once, with the block's address, on the thread that releases the block: by
/// clear(), by the first append(), push_back(), resize() or reserve(), by a move assignment into
/// the buffer, or by the destructor. It must not be empty and must not throw. The buffer then keeps
/// the deleter, and what it captured, until it is assigned to, moved from or destroyed; a deleter
/// that captures an owner should reset it.
///
///     ByteBuffer good({std::malloc(n), [](void* p) { std::free(p); }}, n);
///     ByteBuffer bad({borrowed, [](void*) {}}, n);  // nobody keeps `borrowed` alive: use a view
///
/// Operations give the strong guarantee unless a comment says otherwise. Moving, clear(), the
/// destructor and the queries do not throw. Thread-compatible.
///
/// Moving, clear(), the destructor and the queries take constant time, except for freeing, and
/// allocate nothing. The queries do the same in both forms, without a branch.
class COURIER_HUB_SERIALISATION_EXPORT ByteBuffer {
public:
    /// The names that standard containers have.
    using value_type = std::byte;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = std::byte&;
    using const_reference = std::byte const&;
    using iterator = ByteBufferIterator<std::byte>;
    using const_iterator = ByteBufferIterator<std::byte const>;

    /// The routine that frees a block.
    using Deleter = std::function<void(void*)>;
    /// A block together with the routine that frees it.
    using Block = std::unique_ptr<void, Deleter>;

    /// An empty buffer in vector form. Allocates nothing.
    ByteBuffer() noexcept : deleter_() {}

    /// n bytes of value 0. Memory that comes fresh from the system is not touched. Throws
    /// std::length_error "vector too long" above 2^63 - 1, std::bad_alloc.
    explicit ByteBuffer(std::size_t n);

    /// Takes the vector over without copying its bytes. It is kept as it is until the buffer grows.
    explicit ByteBuffer(std::vector<std::byte> bytes) noexcept;

    /// Adopts the first n bytes of a block without copying them. n is not checked. A null block
    /// gives an empty buffer, whatever n is. Throws std::invalid_argument for a block with an empty
    /// deleter; the block is then left to the caller, who still has its address.
    ByteBuffer(Block block, std::size_t n)
        : data_(n != 0 ? static_cast<std::byte*>(block.get()) : nullptr),
          size_(block ? n : 0), storage_{static_cast<std::byte*>(block.get()), 0},
          deleter_(takeDeleter(block.get_deleter())) {
        // Released before anything throws: a pointer without a deleter ends the process.
        if (block.release() != nullptr && !deleter_) {
            storage_ = {};
            detail::throwBlockWithoutDeleter();
        }
    }

    /// A copy of the viewed bytes, allocated to the exact size. Throws std::runtime_error
    /// "Attempting to take difference between incompatible MessageIterators" for a null view with
    /// a length, std::length_error "vector too long" above 2^63 - 1 bytes, std::bad_alloc.
    explicit ByteBuffer(ByteBufferView const& view);

    /// Takes over the other buffer's content and leaves it empty.
    ByteBuffer(ByteBuffer&& other) noexcept { takeFrom(other); }

    /// Releases this buffer's previous content, a block by its own deleter, before it returns.
    ByteBuffer& operator=(ByteBuffer&& other) noexcept {
        if (!isGiven() && (isExternal() || deleter_)) {
            // The old deleter may own `other` or inspect this buffer: it runs last.
            ByteBuffer taken(std::move(other));
            ByteBuffer const former(std::move(*this));
            assign(taken);
        } else if (this != &other) {
            assign(other);
        }
        return *this;
    }

    ~ByteBuffer() {
        releaseStorage();
        std::destroy_at(&deleter_);
    }

    /// The number of bytes.
    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    /// True if there are none.
    [[nodiscard]] bool empty() const noexcept { return size_ == 0; }

    /// The number of bytes that this buffer can hold without allocating; 0 in external form, in
    /// which nothing can be added.
    [[nodiscard]] std::size_t capacity() const noexcept { return storage_.capacity; }

    /// The first byte; null when empty.
    [[nodiscard]] std::byte* data() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return data_;
    }
    [[nodiscard]] std::byte const* data() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return data_;
    }

    /// Byte i, unchecked. Precondition: i is below size().
    [[nodiscard]] std::byte& operator[](std::size_t i) noexcept { return data_[i]; }
    [[nodiscard]] std::byte const& operator[](std::size_t i) const noexcept { return data_[i]; }

    /// Byte i. Throws std::out_of_range "Attempt to access position beyond the end of the
    /// ByteBuffer" if i is not below size().
    std::byte& at(std::size_t i) { return data_[checked(i)]; }
    std::byte const& at(std::size_t i) const { return data_[checked(i)]; }

    /// The first byte. Throws std::out_of_range "ByteBuffer is empty".
    std::byte& front() { return *nonEmpty(); }
    std::byte const& front() const { return *nonEmpty(); }

    /// Iterators over the bytes. Everything that moves or frees the bytes invalidates them:
    /// append(), push_back(), resize(), reserve(), clear(), trimFront() in vector form, a move
    /// assignment into this buffer, and its destruction. After a move out of this buffer they refer
    /// to the bytes of the other one. The non-const cbegin() and cend() exist because a view has
    /// them as well.
    [[nodiscard]] ByteBufferIterator<std::byte>
    begin() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {data_, !isExternal()};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const>
    begin() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {data_, !isExternal()};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cbegin() noexcept {
        return std::as_const(*this).begin();
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cbegin() const noexcept { return begin(); }
    [[nodiscard]] ByteBufferIterator<std::byte>
    end() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {data_ + size_, !isExternal()};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const>
    end() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {data_ + size_, !isExternal()};
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cend() noexcept {
        return std::as_const(*this).end();
    }
    [[nodiscard]] ByteBufferIterator<std::byte const> cend() const noexcept { return end(); }

    /// True if both have the same bytes, in whatever form. Linear, one block comparison.
    [[nodiscard]] friend bool operator==(ByteBuffer const& a, ByteBuffer const& b) noexcept {
        return ByteBufferView(a) == ByteBufferView(b);
    }
    [[nodiscard]] friend bool operator==(ByteBuffer const& a, ByteBufferView b) noexcept {
        return ByteBufferView(a) == b;
    }

    /// Empties the buffer. A block is released; in vector form the capacity stays.
    void clear() noexcept;

    /// Adds a copy of the argument's bytes at the end, of a vector of buffers element after
    /// element. The argument does not change, even if it is an rvalue. An empty argument changes
    /// nothing; any other, even a list of empty buffers, leaves the buffer in vector form. This
    /// buffer, or a view of its bytes, may be passed as the argument: its bytes are those from
    /// before the call.
    ///
    /// Amortised linear in the bytes added: when it must enlarge, it makes room for half as much
    /// again. The first append in external form copies the block's bytes as well. Throws
    /// std::length_error "vector too long" if that room would exceed 2^63 - 1 bytes,
    /// std::bad_alloc, and for a null view with a length std::runtime_error "Attempting to take
    /// difference between incompatible MessageIterators" (a buffer in external form is then in
    /// vector form, with the same bytes).
    ByteBuffer& append(ByteBuffer&& other) { return append(ByteBufferView(other)); }
    ByteBuffer& append(ByteBuffer const& other) { return append(ByteBufferView(other)); }
    ByteBuffer& append(std::vector<ByteBuffer>&& others) { return append(std::as_const(others)); }
    ByteBuffer& append(std::vector<ByteBuffer> const& others);
    ByteBuffer& append(std::vector<std::byte>&& bytes) { return append(ByteBufferView(bytes)); }
    ByteBuffer& append(std::vector<std::byte> const& bytes) {
        return append(ByteBufferView(bytes));
    }
    ByteBuffer& append(ByteBufferView view) {
        std::size_t const needed = size_ + view.size(); // less than size_ if it wraps
        if (needed > size_ && needed <= storage_.capacity && storage_.start != nullptr &&
            view.data() != nullptr) {
            detail::copyPiece(storage_.start + size_, view.data(), view.size());
            data_ = storage_.start;
            size_ = needed;
        } else {
            appendSlowly(view);
        }
        return *this;
    }

    /// Adds one byte at the end; the buffer is then in vector form. Amortised constant, but the
    /// first call in external form copies the block's bytes. Throws std::length_error "vector too
    /// long", std::bad_alloc.
    void push_back(std::byte&& b) { push_back(std::as_const(b)); }
    void push_back(std::byte const& b);

    /// Removes bytes at the end or adds bytes of value 0; the buffer is then in vector form. When
    /// it must enlarge, it makes room for half as much again. Throws std::length_error "vector too
    /// long" if that room would exceed 2^63 - 1 bytes, std::bad_alloc.
    void resize(std::size_t n);

    /// Makes the capacity at least n; the buffer is then in vector form. Linear in size() if it has
    /// to allocate. Throws std::length_error "vector too long" if n is above 2^63 - 1,
    /// std::bad_alloc.
    void reserve(std::size_t n);

    /// Removes the first n bytes. Constant in external form, in which no byte moves; in vector form
    /// the remaining bytes move once. Throws std::out_of_range "Requested to remove more bytes than
    /// exist" if n is above size().
    void trimFront(std::size_t n);

    /// Removes the last n bytes. Constant; no byte moves. Throws std::out_of_range "Requested to
    /// remove more bytes than exist" if n is above size().
    void trimBack(std::size_t n);

    /// A new buffer in vector form with a copy of the bytes, allocated to the exact size. Throws
    /// std::length_error "vector too long", std::bad_alloc.
    [[nodiscard]] ByteBuffer clone() const { return ByteBuffer(ByteBufferView(*this)); }

    /// Views of some of the bytes, as ByteBufferView has them. They are valid as long as an
    /// iterator would be.
    [[nodiscard]] ByteBufferView
    first(std::size_t n) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return ByteBufferView(*this).first(n);
    }
    [[nodiscard]] ByteBufferView last(std::size_t n) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return ByteBufferView(*this).last(n);
    }
    [[nodiscard]] ByteBufferView
    subview(std::size_t offset) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return ByteBufferView(*this).subview(offset);
    }
    [[nodiscard]] ByteBufferView
    subview(std::size_t offset, std::size_t count) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return ByteBufferView(*this).subview(offset, count);
    }
    [[nodiscard]] ByteBufferView
    makeView(std::size_t offset, std::size_t count) COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return ByteBufferView(*this).makeView(offset, count);
    }
    [[nodiscard]] ByteBufferView
    makeView(std::size_t offset, std::size_t count) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return ByteBufferView(*this).makeView(offset, count);
    }

private:
    [[nodiscard]] bool isExternal() const noexcept {
        return (storage_.capacity == 0) & (storage_.start != nullptr); // without a branch
    }
    [[nodiscard]] bool isGiven() const noexcept {
        return storage_.start == nullptr && storage_.capacity != 0;
    }

    [[nodiscard]] std::size_t checked(std::size_t i) const {
        if (i >= size_) {
            detail::throwOutOfRange("Attempt to access position beyond the end of the ByteBuffer");
        }
        return i;
    }
    [[nodiscard]] std::byte* nonEmpty() const {
        if (size_ == 0) {
            detail::throwOutOfRange("ByteBuffer is empty");
        }
        return data_;
    }

    // A moved-from std::function is not empty with every standard library.
    [[nodiscard]] static Deleter takeDeleter(Deleter& from) noexcept {
        Deleter taken = std::move(from);
        from = nullptr;
        return taken;
    }

    // Precondition: neither member of the union is alive. Leaves `other` empty, with an empty
    // deleter.
    void takeFrom(ByteBuffer& other) noexcept {
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
        storage_ = std::exchange(other.storage_, {});
        if (isGiven()) {
            std::construct_at(&given_, std::move(other.given_));
            std::destroy_at(&other.given_);
            std::construct_at(&other.deleter_);
        } else {
            std::construct_at(&deleter_, takeDeleter(other.deleter_));
        }
    }

    // Precondition: no block, and `other` is another buffer.
    void assign(ByteBuffer& other) noexcept {
        releaseStorage();
        std::destroy_at(&deleter_);
        takeFrom(other);
    }

    // Leaves the buffer empty and in vector form, with the deleter alive, before a deleter runs.
    void releaseStorage() noexcept {
        if (storage_.start != nullptr || storage_.capacity != 0) {
            releaseAny();
        }
    }
    void releaseAny() noexcept;

    void set(detail::GrownBytes storage, std::size_t size) noexcept;
    void setSize(std::size_t size) noexcept;
    void appendSlowly(ByteBufferView view);
    void moveTo(detail::GrownBytes fresh, std::size_t size) noexcept;
    template <class Fill> void extend(std::size_t added, Fill fill);

    // What keeps the bytes, and which member of the union is alive:
    //
    //                          storage_.start     storage_.capacity   alive
    //     nothing              null               0                   deleter_
    //     bytes of its own     where they are     their room          deleter_
    //     a vector given       null               its capacity        given_
    //     a block              as handed over     0                   deleter_
    //
    // The deleter is that of the block, or of an earlier one.
    std::byte* data_ = nullptr; // null when empty
    std::size_t size_ = 0;
    detail::GrownBytes storage_;
    union {
        Deleter deleter_;
        std::vector<std::byte> given_; // never empty of capacity
    };
};

static_assert(std::is_nothrow_move_constructible_v<ByteBuffer>);
static_assert(std::is_nothrow_move_assignable_v<ByteBuffer>);
static_assert(!std::is_copy_constructible_v<ByteBuffer> && !std::is_copy_assignable_v<ByteBuffer>);

namespace detail {
COURIER_HUB_SERIALISATION_EXPORT void requireBytes(ByteBufferView view);

template <class Owner> ByteBuffer adopt(ByteBufferView view, std::unique_ptr<Owner> owner) {
    requireBytes(view);
    if (view.data() == nullptr) {
        return ByteBuffer(); // there is no block for which a deleter would be called
    }
    ByteBuffer::Deleter free = [kept = owner.get()](void*) { delete kept; };
    static_cast<void>(owner.release());
    return ByteBuffer(ByteBuffer::Block(view.data(), std::move(free)), view.size());
}
} // namespace detail

/// A buffer in external form over the bytes of their owner: a std::string, a std::vector<char>, any
/// type whose bytes a ByteBufferView can show. The owner is moved to the heap, with one allocation;
/// no byte is copied unless the owner's move copies it, as that of a short std::string does.
///
///     ByteBuffer message = adopt(std::string("text"));
///
/// The owner is destroyed when the block is released, on that thread, exactly once. An owner
/// without any bytes may be destroyed before the call returns. Its destructor must not throw.
/// Throws std::bad_alloc and what moving the owner throws; the owner passed in is then destroyed.
template <detail::OwningByteRange Owner> [[nodiscard]] ByteBuffer adopt(Owner owner) {
    auto kept = std::make_unique<Owner>(std::move(owner));
    ByteBufferView const view(*kept); // of the owner in its final place
    return detail::adopt(view, std::move(kept));
}

/// The same for an owner that keeps the bytes of `view` alive in another way: a std::shared_ptr, a
/// mapping, a message of a library. Moving the owner must not move the bytes. Also throws
/// std::runtime_error "Attempting to take difference between incompatible MessageIterators" for a
/// null view with a length.
///
///     ByteBuffer bytes = adopt(ByteBufferView(message->text), message); // a std::shared_ptr
template <class Owner> [[nodiscard]] ByteBuffer adopt(ByteBufferView view, Owner owner) {
    return detail::adopt(view, std::make_unique<Owner>(std::move(owner)));
}

} // namespace courier::hub::serialisation

// The iterators of a view outlive it.
template <> inline constexpr bool
    std::ranges::enable_borrowed_range<courier::hub::serialisation::ByteBufferView> = true;

#if defined(__clang__) && __clang_major__ >= 16
#pragma clang unsafe_buffer_usage end
#endif

#endif
