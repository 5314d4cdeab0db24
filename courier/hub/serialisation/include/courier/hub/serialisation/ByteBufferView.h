// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_BYTE_BUFFER_VIEW_H
#define COURIER_HUB_SERIALISATION_BYTE_BUFFER_VIEW_H

#include <courier/hub/serialisation/ByteBufferIterator.h>
#include <courier/hub/serialisation/Export.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

// On a function or parameter: the result refers to this object or argument. clang then warns when
// it outlives a temporary or a local variable.
#if defined(__clang__)
#define COURIER_HUB_SERIALISATION_LIFETIMEBOUND [[clang::lifetimebound]]
#else
#define COURIER_HUB_SERIALISATION_LIFETIMEBOUND
#endif

namespace courier::hub::serialisation {

namespace detail {
// Out of line, so that the checks inline well.
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwOutOfRange(char const* message);

template <class T, class... Types>
concept OneOf = (std::same_as<std::remove_cvref_t<T>, Types> || ...);
template <class T>
concept ByteOrCharacterReference = OneOf<T, std::byte, char, signed char, unsigned char, char8_t>;

// An array of characters is rejected: it may be a literal, with a 0 at its end.
template <class Range>
concept NoLiteral =
    !std::is_array_v<Range> || OneOf<std::remove_extent_t<Range>, std::byte, unsigned char>;
template <class Range>
concept HasBytes = requires(Range const& range) {
    { *std::ranges::data(range) } -> ByteOrCharacterReference;
    { std::ranges::size(range) } -> std::convertible_to<std::size_t>;
};
// A view is excluded: it has its copy constructor.
template <class Range>
concept ByteRange =
    !std::derived_from<Range, ByteBufferView> && NoLiteral<Range> && HasBytes<Range>;

// Ranges that do not own their bytes, such as a std::string_view or a std::span.
template <class Range>
concept BorrowedByteRange = ByteRange<Range> && std::ranges::enable_borrowed_range<Range>;
template <class Range>
concept OwningByteRange = ByteRange<Range> && !std::ranges::enable_borrowed_range<Range>;
} // namespace detail

/// A pointer and a length: contiguous bytes that another object owns.
///
/// Pass it by value, to give access to bytes for the duration of a call. To keep bytes longer,
/// adopt or copy them into a ByteBuffer.
///
/// A view owns nothing. It is valid while the bytes stay where they are. It gives mutable access
/// even when it was made from a pointer to const bytes; do not write through such a view.
///
/// A view with a null start and a length other than 0 can be constructed but is useless. Operations
/// that copy its bytes throw. Its iterators may be compared for equality; subtracting or ordering
/// them throws.
///
/// An operation that throws leaves the view unchanged; the others do not throw. Thread-compatible;
/// whether several threads may read the bytes depends on their owner. Unless a comment says
/// otherwise, every operation takes constant time and allocates nothing.
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

    /// The view of no bytes: null start, length 0.
    ByteBufferView() noexcept = default;

    /// The first `size` bytes at `data`. Nothing is checked.
    ByteBufferView(std::byte* data, std::size_t size) noexcept : start_(data), length_(size) {}
    ByteBufferView(std::byte const* data, std::size_t size) noexcept
        : start_(const_cast<std::byte*>(data)), length_(size) {}

    // A pointer has no length, and a literal a 0 at its end.
    template <std::same_as<char> WrapInStdStringView>
    explicit ByteBufferView(WrapInStdStringView const*) = delete;

    /// The elements of a contiguous range of bytes or characters: a ByteBuffer, a std::span, a
    /// std::string, a std::string_view, a std::vector or std::array of std::byte or of any
    /// character type. String literals are rejected: wrap them in std::string_view.
    template <detail::BorrowedByteRange Range> explicit ByteBufferView(Range range) noexcept
        : ByteBufferView(reinterpret_cast<std::byte const*>(std::ranges::data(range)),
                         std::size_t{std::ranges::size(range)}) {}
    template <detail::OwningByteRange Range>
    explicit ByteBufferView(Range const& range COURIER_HUB_SERIALISATION_LIFETIMEBOUND) noexcept
        : ByteBufferView(reinterpret_cast<std::byte const*>(std::ranges::data(range)),
                         std::size_t{std::ranges::size(range)}) {}

    /// True when both have the same bytes, at whatever addresses. Linear: one block comparison. A
    /// null view with a length equals only another one of the same length.
    [[nodiscard]] friend bool operator==(ByteBufferView const& a,
                                         ByteBufferView const& b) noexcept {
        return a.length_ == b.length_ && (a.length_ == 0 || a.start_ == b.start_ ||
                                          (a.start_ != nullptr && b.start_ != nullptr &&
                                           std::memcmp(a.start_, b.start_, a.length_) == 0));
    }

    /// The start: a pointer to the first byte, if there is one. Null for the view of no bytes.
    [[nodiscard]] std::byte* data() noexcept { return start_; }
    [[nodiscard]] std::byte const* data() const noexcept { return start_; }

    /// The number of bytes.
    [[nodiscard]] std::size_t size() const noexcept { return length_; }
    /// True when size() is 0.
    [[nodiscard]] bool empty() const noexcept { return length_ == 0; }

    /// Byte i. Precondition: i < size(), checked in hardened mode only (see ByteBuffer).
    [[nodiscard]] std::byte& operator[](std::size_t i) noexcept {
        detail::checkAccess(i, length_);
        return start_[i];
    }
    [[nodiscard]] std::byte const& operator[](std::size_t i) const noexcept {
        detail::checkAccess(i, length_);
        return start_[i];
    }

    /// Byte i. Throws std::out_of_range "Attempt to access position beyond the end of the
    /// ByteBufferView" when i is not below size().
    std::byte& at(std::size_t i) { return start_[checked(i)]; }
    std::byte const& at(std::size_t i) const { return start_[checked(i)]; }

    /// The first byte. Throws std::out_of_range "ByteBufferView is empty".
    std::byte& front() { return *nonEmpty(); }
    std::byte const& front() const { return *nonEmpty(); }

    /// Iterators in pointer form. They stay valid while the bytes do, even after the view is
    /// changed or destroyed. The overloads of cbegin() and cend() that are not const are part of
    /// the interface.
    [[nodiscard]] iterator begin() noexcept { return {start_, false}; }
    [[nodiscard]] const_iterator begin() const noexcept { return {start_, false}; }
    [[nodiscard]] const_iterator cbegin() noexcept { return std::as_const(*this).begin(); }
    [[nodiscard]] const_iterator cbegin() const noexcept { return begin(); }
    [[nodiscard]] iterator end() noexcept { return {endAddress(), false}; }
    [[nodiscard]] const_iterator end() const noexcept { return {endAddress(), false}; }
    [[nodiscard]] const_iterator cend() noexcept { return std::as_const(*this).end(); }
    [[nodiscard]] const_iterator cend() const noexcept { return end(); }

    /// Makes this the view of no bytes. Changing a view never changes the bytes.
    void clear() noexcept { *this = ByteBufferView(); }

    /// Removes the first, or the last, n bytes from the view. A view that becomes empty has a null
    /// start. Throws std::out_of_range "Requested to remove more bytes than exist" when n is above
    /// size().
    void trimFront(std::size_t n);
    void trimBack(std::size_t n);

    /// A part of the view: the first n bytes, the last n, those from `offset` to the end, or
    /// `count` of these. As in std::span, a count of 0 gives no bytes. Throws std::out_of_range
    /// "Invalid range requested" when the part exceeds the view.
    [[nodiscard]] ByteBufferView first(std::size_t n) const { return subview(0, n); }
    [[nodiscard]] ByteBufferView last(std::size_t n) const;
    [[nodiscard]] ByteBufferView subview(std::size_t offset) const;
    [[nodiscard]] ByteBufferView subview(std::size_t offset, std::size_t count) const;

    /// As subview(offset, count), except that a count of 0 means up to the end. If the count is a
    /// length that may be 0, use subview().
    [[nodiscard]] ByteBufferView makeView(std::size_t offset, std::size_t count) const;

    /// A new buffer with the viewed bytes, followed by a copy of the argument's bytes; for a vector
    /// of buffers, by those of each element in turn. Neither the view nor the argument changes, not
    /// even an rvalue: that overload is part of the interface. Linear in the bytes. Throws
    /// std::runtime_error "Attempting to take difference between incompatible MessageIterators" if
    /// either is a null view with a length, std::length_error "vector too long", std::bad_alloc.
    [[nodiscard]] ByteBuffer append(ByteBuffer&& other);
    [[nodiscard]] ByteBuffer append(ByteBuffer const& other);
    [[nodiscard]] ByteBuffer append(std::vector<ByteBuffer>&& others);
    [[nodiscard]] ByteBuffer append(std::vector<ByteBuffer> const& others);
    [[nodiscard]] ByteBuffer append(std::vector<std::byte>&& bytes);
    [[nodiscard]] ByteBuffer append(std::vector<std::byte> const& bytes);
    [[nodiscard]] ByteBuffer append(ByteBufferView view);

    /// A new buffer with a copy of the bytes. Linear. Throws as the buffer's constructor does.
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
    // A null view with a length needs an end, too, but arithmetic on a null pointer is undefined.
    [[nodiscard]] std::byte* endAddress() const noexcept {
        return start_ != nullptr ? start_ + length_
                                 : reinterpret_cast<std::byte*>(std::uintptr_t{length_});
    }

    std::byte* start_ = nullptr;
    std::size_t length_ = 0;
};

static_assert(std::is_trivially_copyable_v<ByteBufferView>);

} // namespace courier::hub::serialisation

// The iterators of a view outlive it.
template <> inline constexpr bool
    std::ranges::enable_borrowed_range<courier::hub::serialisation::ByteBufferView> = true;

#endif
