// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_BUFFERS_H
#define COURIER_HUB_SERIALISATION_BUFFERS_H

#include <courier/hub/serialisation/Export.h>
#include <courier/hub/serialisation/detail/GrowingBytes.h>

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

// On a function or parameter: the result refers to this object or argument. clang then warns when
// it outlives a temporary or a local variable.
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

// The largest size. Checked before any addition, so that no sum wraps.
inline constexpr std::size_t longest = PTRDIFF_MAX;

template <class T, class... Types>
concept OneOf = (std::same_as<std::remove_cvref_t<T>, Types> || ...);
template <class T>
concept ByteOrCharacterReference = OneOf<T, std::byte, char, signed char, unsigned char, char8_t>;

// Not an array of characters, which may be a literal with a 0 at its end.
template <class Range>
concept NoLiteral =
    !std::is_array_v<Range> || OneOf<std::remove_extent_t<Range>, std::byte, unsigned char>;
template <class Range>
concept HasBytes = requires(Range const& range) {
    { *std::ranges::data(range) } -> ByteOrCharacterReference;
    { std::ranges::size(range) } -> std::convertible_to<std::size_t>;
};
// Not a view, which has its copy constructor.
template <class Range>
concept ByteRange =
    !std::derived_from<Range, ByteBufferView> && NoLiteral<Range> && HasBytes<Range>;

// Ranges that do not own their bytes, such as a std::string_view or a std::span.
template <class Range>
concept BorrowedByteRange = ByteRange<Range> && std::ranges::enable_borrowed_range<Range>;
template <class Range>
concept OwningByteRange = ByteRange<Range> && !std::ranges::enable_borrowed_range<Range>;
} // namespace detail

/// The iterator of ByteBuffer and ByteBufferView: contiguous, with T = std::byte for mutable and
/// T = std::byte const for read-only access.
///
/// A position is either a raw pointer (external blocks and views) or a position in a buffer in
/// vector form. Positions of different forms are never equal; subtracting or ordering them throws
/// std::runtime_error "Attempting to take difference between incompatible MessageIterators".
///
/// A plain value that owns nothing. Every operation takes constant time, allocates nothing and
/// does not throw, except for subtraction and ordering. Dereferencing or advancing past the end is
/// not checked. Several threads may iterate over one buffer while none changes it.
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
    explicit ByteBufferIterator(T* p) noexcept : address_(p) {}

    /// A position in a vector.
    explicit ByteBufferIterator(VectorPosition p) noexcept
        : address_(std::to_address(p)), inVector_(true) {}

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
        if (a.isVectorForm() != b.isVectorForm()) {
            detail::throwIncompatibleIterators();
        }
        return a.address_ - b.address_;
    }

    /// True when both are the same position in the same form.
    [[nodiscard]] friend bool operator==(ByteBufferIterator const& a,
                                         ByteBufferIterator const& b) noexcept {
        return a.address_ == b.address_ && (a.inVector_ == b.inVector_ || a.address_ == nullptr);
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

    [[nodiscard]] bool isVectorForm() const noexcept { return inVector_ || address_ == nullptr; }

    // The address serves both forms: a loop over it is a loop over a plain pointer, and the form
    // is read only when two positions are compared or subtracted.
    T* address_ = nullptr;
    bool inVector_ = false; // a null address is in vector form whatever this is
};

static_assert(std::is_trivially_copyable_v<ByteBufferIterator<std::byte>>);
static_assert(std::is_trivially_copyable_v<ByteBufferIterator<std::byte const>>);

/// A pointer and a length: contiguous bytes that another object owns.
///
/// Pass it by value. It keeps nothing alive: use it only while the bytes stay where they are, and
/// adopt or copy them into a ByteBuffer to keep them longer. It gives mutable access even when it
/// was made from a pointer to const bytes; do not write through such a view.
///
/// A view with a null start and a length other than 0 can be constructed but is useless: operations
/// that copy its bytes throw; its iterators may only be compared for equality or subtracted, which
/// throws.
///
/// Unless a comment says otherwise, every operation takes constant time, allocates nothing and
/// throws nothing; one that throws leaves the view unchanged. Thread-compatible; whether the bytes
/// may be read on several threads depends on their owner.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferView {
public:
    /// As in standard containers.
    using value_type = std::byte;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = std::byte&;
    using const_reference = std::byte const&;
    using iterator = ByteBufferIterator<std::byte>;
    using const_iterator = ByteBufferIterator<std::byte const>;

    /// A view of no bytes: null start, length 0.
    ByteBufferView() noexcept = default;

    /// The `size` bytes from `data` on. Nothing is checked.
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

    /// True when both have the same bytes, wherever those are. Linear, one block comparison. A null
    /// view with a length equals only another one of the same length.
    [[nodiscard]] friend bool operator==(ByteBufferView const& a,
                                         ByteBufferView const& b) noexcept {
        return a.length_ == b.length_ && (a.length_ == 0 || a.start_ == b.start_ ||
                                          (a.start_ != nullptr && b.start_ != nullptr &&
                                           std::memcmp(a.start_, b.start_, a.length_) == 0));
    }

    /// A pointer to the first byte; null for an empty view that refers to nothing.
    [[nodiscard]] std::byte* data() noexcept { return start_; }
    [[nodiscard]] std::byte const* data() const noexcept { return start_; }

    /// The number of bytes.
    [[nodiscard]] std::size_t size() const noexcept { return length_; }
    /// True when there are none.
    [[nodiscard]] bool empty() const noexcept { return length_ == 0; }

    /// Byte i, unchecked: i must be below size().
    [[nodiscard]] std::byte& operator[](std::size_t i) noexcept { return start_[i]; }
    [[nodiscard]] std::byte const& operator[](std::size_t i) const noexcept { return start_[i]; }

    /// Byte i. Throws std::out_of_range "Attempt to access position beyond the end of the
    /// ByteBufferView" when i is not below size().
    std::byte& at(std::size_t i) { return start_[checked(i)]; }
    std::byte const& at(std::size_t i) const { return start_[checked(i)]; }

    /// The first byte. Throws std::out_of_range "ByteBufferView is empty".
    std::byte& front() { return *nonEmpty(); }
    std::byte const& front() const { return *nonEmpty(); }

    /// Iterators in pointer form. They stay valid while the bytes do, whatever happens to the view.
    [[nodiscard]] iterator begin() noexcept { return {start_, false}; }
    [[nodiscard]] const_iterator begin() const noexcept { return {start_, false}; }
    [[nodiscard]] const_iterator cbegin() noexcept { return std::as_const(*this).begin(); }
    [[nodiscard]] const_iterator cbegin() const noexcept { return begin(); }
    [[nodiscard]] iterator end() noexcept { return {endAddress(), false}; }
    [[nodiscard]] const_iterator end() const noexcept { return {endAddress(), false}; }
    [[nodiscard]] const_iterator cend() noexcept { return std::as_const(*this).end(); }
    [[nodiscard]] const_iterator cend() const noexcept { return end(); }

    /// Makes this the view of no bytes. Like every change of a view, it touches no byte.
    void clear() noexcept { *this = ByteBufferView(); }

    /// Removes the first, or the last, n bytes from the view; one that becomes empty has a null
    /// start. Throws std::out_of_range "Requested to remove more bytes than exist" when n is above
    /// size().
    void trimFront(std::size_t n);
    void trimBack(std::size_t n);

    /// The first, or the last, n bytes; the bytes from `offset` to the end, or `count` of them: as
    /// in std::span, a count of 0 is no bytes, which gives the view of none. Throw
    /// std::out_of_range "Invalid range requested" when the range exceeds the view.
    [[nodiscard]] ByteBufferView first(std::size_t n) const { return subview(0, n); }
    [[nodiscard]] ByteBufferView last(std::size_t n) const;
    [[nodiscard]] ByteBufferView subview(std::size_t offset) const;
    [[nodiscard]] ByteBufferView subview(std::size_t offset, std::size_t count) const;

    /// As subview(offset, count), except that a count of 0 means up to the end. When the count is a
    /// length that may be 0, use subview().
    [[nodiscard]] ByteBufferView makeView(std::size_t offset, std::size_t count) const;

    /// A new buffer with the viewed bytes followed by those of the argument; of a vector of
    /// buffers, of one element after the other. Neither the view nor the argument changes. Linear
    /// in the bytes. Throws std::runtime_error "Attempting to take difference between incompatible
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
    // Arithmetic on a null pointer is undefined, and a null view with a length needs an end too.
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
///     vector form                            external form
///     data ──▶ ┌──────────────┬───────┐      block ──▶ ┌─────────┬────────────────────┬───┐
///              │ bytes        │ spare │                │ trimmed │ bytes              │ … │
///              └──────────────┴───────┘                └─────────┴────────────────────┴───┘
///              ◀─── size ────▶                data ──────────────▶◀─────── size ──────▶
///              ◀───── capacity ──────▶
///
/// In vector form the buffer allocated the bytes itself, or took over a std::vector, which it keeps
/// until it needs more than that vector's capacity. In external form the bytes are a block that was
/// allocated elsewhere and adopted together with the routine that frees it: received data is not
/// copied. The deleter is called exactly once, with the address that was passed in, when the block
/// is released: by clear(), by the first append(), push_back(), reserve() or resize(), by a move
/// assignment into the buffer, or by the destructor. It runs on the thread that releases the block,
/// must not be empty and must not throw:
///
///     ByteBuffer good({std::malloc(n), [](void* p) { std::free(p); }}, n);
///     ByteBuffer bad({borrowed, [](void*) {}}, n);  // nothing keeps `borrowed` alive: use a view
///
/// After releasing its block the buffer keeps the deleter, and what it captured, until it is
/// assigned to, moved from or destroyed. To keep an object alive for as long as its bytes, and no
/// longer, use adopt().
///
/// Move-only; clone() copies. A moved-from buffer is empty and may be used again. To pass bytes for
/// the duration of a call, use a ByteBufferView.
///
/// Moves, clear(), the destructor and the queries take constant time (except for freeing), allocate
/// nothing and throw nothing, unless a comment says otherwise. Other operations give the strong
/// guarantee for the content. Thread-compatible: const operations may run on several threads while
/// none changes the buffer.
///
/// To copy bytes out, use std::span<std::byte const>(buffer): the standard algorithms and
/// containers turn its iterators into one block copy, which some standard libraries do for no
/// others.
class COURIER_HUB_SERIALISATION_EXPORT ByteBuffer {
public:
    /// As in standard containers.
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

    /// An empty buffer; nothing is allocated.
    ByteBuffer() noexcept : deleter_() {}

    /// n bytes of value 0. Large ones come from the system as zeros and are not touched. Throws
    /// std::length_error "vector too long" above 2^63 - 1, std::bad_alloc.
    explicit ByteBuffer(std::size_t n);

    /// Takes the vector over without copying its bytes.
    explicit ByteBuffer(std::vector<std::byte> bytes) noexcept
        : bytes_(bytes.data(), bytes.size()) {
        if (bytes_.isBorrowed()) {
            std::construct_at(&vector_, std::move(bytes));
        } else {
            std::construct_at(&deleter_);
        }
    }

    /// Adopts the first n bytes of a block without copying them. n is not checked. A null block
    /// gives an empty buffer, whatever n is. Throws std::invalid_argument for a block with an empty
    /// deleter; the block is then not freed.
    ByteBuffer(Block block, std::size_t n)
        : bytes_(static_cast<std::byte*>(block.get()), block != nullptr ? n : 0) {
        if (block != nullptr && !block.get_deleter()) {
            static_cast<void>(block.release()); // without a deleter its destructor terminates
            detail::throwBlockWithoutDeleter();
        }
        block_ = block.release();
        std::construct_at(&deleter_, takeDeleter(block.get_deleter()));
    }

    /// A copy of the viewed bytes, allocated to the exact size. Throws std::runtime_error
    /// "Attempting to take difference between incompatible MessageIterators" for a null view with
    /// a length, std::length_error "vector too long" above 2^63 - 1 bytes, std::bad_alloc.
    explicit ByteBuffer(ByteBufferView const& view);

    /// Takes over the other buffer's content and leaves it empty.
    ByteBuffer(ByteBuffer&& other) noexcept
        : ByteBuffer(detail::GrowingBytes(std::move(other.bytes_)),
                     std::exchange(other.block_, nullptr), other) {}

    /// Frees what this buffer held, the block by its own deleter, before it returns.
    ByteBuffer& operator=(ByteBuffer&& other) noexcept {
        if (bytes_.data() != nullptr || deleter_) {
            // The old deleter may own `other` or inspect this buffer: it runs last.
            ByteBuffer taken(std::move(other));
            ByteBuffer const former(std::move(*this));
            take(taken);
        } else { // to itself, this changes nothing
            take(other);
        }
        return *this;
    }

    ~ByteBuffer() {
        if (holdsVector()) {
            std::destroy_at(&vector_);
        } else {
            releaseBlock();
            std::destroy_at(&deleter_);
        }
    }

    /// The number of bytes.
    [[nodiscard]] std::size_t size() const noexcept { return bytes_.size(); }
    /// True when there are none.
    [[nodiscard]] bool empty() const noexcept { return size() == 0; }

    /// How many bytes fit before the next allocation, as in std::vector; 0 in external form.
    [[nodiscard]] std::size_t capacity() const noexcept {
        return holdsVector() ? vector_.capacity() : bytes_.capacity();
    }

    /// A pointer to the first byte; null when empty.
    [[nodiscard]] std::byte* data() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return empty() ? nullptr : bytes_.data();
    }
    [[nodiscard]] std::byte const* data() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return empty() ? nullptr : bytes_.data();
    }

    /// Byte i, unchecked: i must be below size().
    [[nodiscard]] std::byte& operator[](std::size_t i) noexcept { return bytes_.data()[i]; }
    [[nodiscard]] std::byte const& operator[](std::size_t i) const noexcept {
        return bytes_.data()[i];
    }

    /// Byte i. Throws std::out_of_range "Attempt to access position beyond the end of the
    /// ByteBuffer" when i is not below size().
    std::byte& at(std::size_t i) { return bytes_.data()[checked(i)]; }
    std::byte const& at(std::size_t i) const { return bytes_.data()[checked(i)]; }

    /// The first byte. Throws std::out_of_range "ByteBuffer is empty".
    std::byte& front() { return *nonEmpty(); }
    std::byte const& front() const { return *nonEmpty(); }

    /// Iterators are invalidated by whatever moves or frees the bytes: append(), push_back(),
    /// reserve(), resize(), clear(), trimFront() in vector form, a move assignment into this
    /// buffer, its destruction. When this buffer is moved from, they belong to the other one.
    [[nodiscard]] iterator begin() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {bytes_.data(), !isExternal()};
    }
    [[nodiscard]] const_iterator begin() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {bytes_.data(), !isExternal()};
    }
    [[nodiscard]] const_iterator cbegin() noexcept { return std::as_const(*this).begin(); }
    [[nodiscard]] const_iterator cbegin() const noexcept { return begin(); }
    [[nodiscard]] iterator end() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {bytes_.data() + size(), !isExternal()};
    }
    [[nodiscard]] const_iterator end() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {bytes_.data() + size(), !isExternal()};
    }
    [[nodiscard]] const_iterator cend() noexcept { return std::as_const(*this).end(); }
    [[nodiscard]] const_iterator cend() const noexcept { return end(); }

    /// True when both have the same bytes, in either form. Linear, one block comparison.
    [[nodiscard]] friend bool operator==(ByteBuffer const& a, ByteBuffer const& b) noexcept {
        return ByteBufferView(a) == ByteBufferView(b);
    }
    [[nodiscard]] friend bool operator==(ByteBuffer const& a, ByteBufferView b) noexcept {
        return ByteBufferView(a) == b;
    }

    /// Empties the buffer and releases its block, if it has one; in vector form the capacity stays.
    void clear() noexcept;

    /// Adds a copy of the argument's bytes at the end; of a vector of buffers, of one element after
    /// the other. The argument does not change, even when it is an rvalue. An empty argument
    /// changes nothing; any other, even a list of empty buffers, leaves the buffer in vector form.
    /// This buffer, or a view of its bytes, may be the argument or one of the buffers in it: its
    /// bytes are those from before the call.
    ///
    /// Amortised linear in the bytes added: when it must enlarge, it makes room for half as much
    /// again in one allocation; the first append in external form copies the block's bytes. Throws
    /// std::length_error "vector too long" when that room would exceed 2^63 - 1 bytes,
    /// std::bad_alloc, and for a null view with a length std::runtime_error "Attempting to take
    /// difference between incompatible MessageIterators" (the buffer is then in vector form).
    ByteBuffer& append(ByteBuffer&& other) { return append(std::as_const(other)); }
    ByteBuffer& append(ByteBuffer const& other) { return append(ByteBufferView(other)); }
    ByteBuffer& append(std::vector<ByteBuffer>&& others) { return append(std::as_const(others)); }
    ByteBuffer& append(std::vector<ByteBuffer> const& others);
    ByteBuffer& append(std::vector<std::byte>&& bytes) { return append(std::as_const(bytes)); }
    ByteBuffer& append(std::vector<std::byte> const& bytes) {
        return append(ByteBufferView(bytes));
    }
    ByteBuffer& append(ByteBufferView view) {
        if (view.size() - 1 < bytes_.room() && view.data() != nullptr) { // 0 - 1 is no less
            bytes_.append(view.data(), view.size());
        } else {
            appendBeyondRoom(view);
        }
        return *this;
    }

    /// Adds one byte at the end; afterwards the buffer is in vector form. Amortised constant,
    /// except that the first one in external form copies the block's bytes. Throws
    /// std::length_error "vector too long", std::bad_alloc.
    void push_back(std::byte&& b) { push_back(std::as_const(b)); }
    void push_back(std::byte const& b) {
        if (bytes_.room() != 0) {
            bytes_.append(&b, 1);
        } else {
            pushBackBeyondRoom(b);
        }
    }

    /// Makes the capacity at least n, exactly n when it must enlarge; afterwards the buffer is in
    /// vector form. The content stays. Throws std::length_error "vector too long" above 2^63 - 1,
    /// std::bad_alloc.
    void reserve(std::size_t n);

    /// Drops bytes at the end or adds bytes of value 0; afterwards the buffer is in vector form.
    /// When it must enlarge, it makes room for half as much again in one allocation. Throws
    /// std::length_error "vector too long" when that room would exceed 2^63 - 1 bytes,
    /// std::bad_alloc.
    void resize(std::size_t n);

    /// Removes the first n bytes. Constant in external form, where no byte moves; in vector form
    /// the remaining bytes move once. Throws std::out_of_range "Requested to remove more bytes than
    /// exist" when n is above size().
    void trimFront(std::size_t n);
    /// Removes the last n bytes, in either form without moving any; the form and the capacity stay.
    /// Throws as trimFront() does.
    void trimBack(std::size_t n);

    /// A new buffer in vector form with a copy of the bytes, allocated to the exact size. Throws
    /// std::length_error "vector too long", std::bad_alloc.
    [[nodiscard]] ByteBuffer clone() const { return ByteBuffer(wholeView()); }

    /// A view of the first, or of the last, n bytes; of the bytes from `offset` to the end, or of
    /// `count` of them: as in std::span, a count of 0 is no bytes. It is valid as long as an
    /// iterator would be. Throw std::out_of_range "Invalid range requested" when the range exceeds
    /// the buffer.
    [[nodiscard]] ByteBufferView
    first(std::size_t n) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().first(n);
    }
    [[nodiscard]] ByteBufferView last(std::size_t n) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().last(n);
    }
    [[nodiscard]] ByteBufferView
    subview(std::size_t offset) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().subview(offset);
    }
    [[nodiscard]] ByteBufferView
    subview(std::size_t offset, std::size_t count) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().subview(offset, count);
    }

    /// As subview(offset, count), except that a count of 0 means up to the end. When the count is a
    /// length that may be 0, use subview().
    [[nodiscard]] ByteBufferView
    makeView(std::size_t offset, std::size_t count) COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().makeView(offset, count);
    }
    [[nodiscard]] ByteBufferView
    makeView(std::size_t offset, std::size_t count) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().makeView(offset, count);
    }

private:
    ByteBuffer(detail::GrowingBytes bytes, void* block, ByteBuffer& other) noexcept
        : block_(block), bytes_(std::move(bytes)) {
        takeOwner(other);
    }

    [[nodiscard]] bool isExternal() const noexcept { return block_ != nullptr; }
    [[nodiscard]] bool holdsVector() const noexcept { return !isExternal() && bytes_.isBorrowed(); }

    [[nodiscard]] ByteBufferView wholeView() const noexcept {
        return {bytes_.data(), bytes_.size()};
    }
    [[nodiscard]] std::size_t checked(std::size_t i) const {
        if (i >= size()) {
            detail::throwOutOfRange("Attempt to access position beyond the end of the ByteBuffer");
        }
        return i;
    }
    [[nodiscard]] std::byte* nonEmpty() const {
        if (empty()) {
            detail::throwOutOfRange("ByteBuffer is empty");
        }
        return bytes_.data();
    }

    // A moved-from std::function may still hold its target.
    [[nodiscard]] static Deleter takeDeleter(Deleter& from) noexcept {
        Deleter taken = std::move(from);
        from = nullptr;
        return taken;
    }

    // Leaves the buffer empty, as the deleter finds it. Precondition: holdsVector() is false.
    void releaseBlock() noexcept {
        if (block_ != nullptr) {
            bytes_.forget();
            deleter_(std::exchange(block_, nullptr));
        }
    }

    // Preconditions: block_ and bytes_ have been taken over already; neither member of the union is
    // alive.
    void takeOwner(ByteBuffer& other) noexcept {
        if (holdsVector()) {
            std::construct_at(&vector_, std::move(other.vector_));
            std::destroy_at(&other.vector_);
            std::construct_at(&other.deleter_);
        } else {
            std::construct_at(&deleter_, takeDeleter(other.deleter_));
        }
    }

    // Precondition: this buffer is as default-constructed, so that nothing need be destroyed.
    void take(ByteBuffer& other) noexcept {
        detail::GrowingBytes bytes(std::move(other.bytes_));
        block_ = std::exchange(other.block_, nullptr);
        std::construct_at(&bytes_, std::move(bytes));
        takeOwner(other);
    }

    void appendBeyondRoom(ByteBufferView view);
    void pushBackBeyondRoom(std::byte b);
    void resizeVector(std::size_t n);
    void setCapacity(std::size_t capacity, std::size_t kept);
    void become(detail::GrowingBytes bytes) noexcept;
    template <class ForEachPiece> void appendPieces(std::size_t added, ForEachPiece forEachPiece);

    void* block_ = nullptr;      // as it was passed in; null in vector form
    detail::GrowingBytes bytes_; // the content, in every form; borrowed from a block or vector_
    union {
        Deleter deleter_;               // alive unless vector_ is
        std::vector<std::byte> vector_; // alive in vector form while bytes_ borrows its bytes
    };
};

static_assert(std::is_nothrow_move_constructible_v<ByteBuffer>);
static_assert(std::is_nothrow_move_assignable_v<ByteBuffer>);
static_assert(!std::is_copy_constructible_v<ByteBuffer> && !std::is_copy_assignable_v<ByteBuffer>);

namespace detail {
template <class Owner>
[[nodiscard]] ByteBuffer adoptHeld(ByteBufferView bytes, std::unique_ptr<Owner> owner) {
    if (bytes.data() == nullptr) {
        return ByteBuffer();
    }
    ByteBuffer::Deleter destroyOwner = [held = owner.get()](void*) { delete held; };
    ByteBuffer::Block block(bytes.data(), std::move(destroyOwner));
    static_cast<void>(owner.release());
    return ByteBuffer(std::move(block), bytes.size());
}

// A pointer, a std::span or a std::string_view keeps nothing alive.
template <class Owner>
concept KeepsBytes =
    std::is_object_v<Owner> && !std::is_pointer_v<Owner> && !std::is_array_v<Owner> &&
    !std::ranges::enable_borrowed_range<Owner> && !std::same_as<Owner, std::nullptr_t>;
} // namespace detail

/// A buffer in external form over the bytes of an object that owns them, such as a std::string or a
/// std::vector of characters. The owner is moved into the buffer, or copied when it is an lvalue:
///
///     ByteBuffer text = adopt(std::move(string));
///
/// The owner is destroyed when the block is released, on that thread, and not later; its destructor
/// must not throw. An owner without bytes gives an empty buffer. One allocation, for the owner.
/// Throws std::bad_alloc, and what moving the owner throws; the owner is then left to the caller.
template <class Owner>
requires detail::KeepsBytes<std::remove_cvref_t<Owner>> &&
    detail::OwningByteRange<std::remove_cvref_t<Owner>>
[[nodiscard]] ByteBuffer adopt(Owner&& owner) {
    auto held = std::make_unique<std::remove_cvref_t<Owner>>(std::forward<Owner>(owner));
    ByteBufferView const bytes(*held); // of a short string, they have moved with it
    return detail::adoptHeld(bytes, std::move(held));
}

/// The same over bytes that any object keeps alive: a std::shared_ptr, a mapping, a message. They
/// must stay where they are when the owner is moved; those of a short std::string do not:
///
///     ByteBuffer bytes = adopt(ByteBufferView(file.data(), file.size()), std::move(file));
///
/// Also throws std::runtime_error "Attempting to take difference between incompatible
/// MessageIterators" for a null view with a length.
template <class Owner>
requires detail::KeepsBytes<std::remove_cvref_t<Owner>>
[[nodiscard]] ByteBuffer adopt(ByteBufferView bytes, Owner&& owner) {
    if (bytes.data() == nullptr && !bytes.empty()) {
        detail::throwIncompatibleIterators();
    }
    return detail::adoptHeld(
        bytes, std::make_unique<std::remove_cvref_t<Owner>>(std::forward<Owner>(owner)));
}

} // namespace courier::hub::serialisation

// The iterators of a view outlive it.
template <> inline constexpr bool
    std::ranges::enable_borrowed_range<courier::hub::serialisation::ByteBufferView> = true;

#if defined(__clang__) && __clang_major__ >= 16
#pragma clang unsafe_buffer_usage end
#endif

#endif
