// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_BYTE_BUFFER_ITERATOR_H
#define COURIER_HUB_SERIALISATION_BYTE_BUFFER_ITERATOR_H

#include <courier/hub/serialisation/Export.h>

#include <compare>
#include <concepts>
#include <cstddef>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace courier::hub::serialisation {

class ByteBuffer;
class ByteBufferView;

namespace detail {
// Out of line, so that their callers inline well.
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwIncompatibleIterators();
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void endOutOfBounds(std::size_t i,
                                                                  std::size_t size) noexcept;

// The check of an access that is unchecked otherwise. It is on if the user defines COURIER_HARDENED
// or has the standard library check the same: libstdc++ by _GLIBCXX_ASSERTIONS, libc++ by one of
// its hardening modes.
inline void checkAccess([[maybe_unused]] std::size_t i,
                        [[maybe_unused]] std::size_t size) noexcept {
#if defined(COURIER_HARDENED) || defined(_GLIBCXX_ASSERTIONS) ||                                   \
    (defined(_LIBCPP_HARDENING_MODE) && _LIBCPP_HARDENING_MODE != _LIBCPP_HARDENING_MODE_NONE)
    if (i >= size) {
        endOutOfBounds(i, size);
    }
#endif
}
} // namespace detail

/// The iterator of ByteBuffer and ByteBufferView. It is contiguous. T is std::byte for mutable and
/// std::byte const for read-only access.
///
/// A position is in pointer form (external blocks and views) or in vector form (buffers in vector
/// form). Positions of different forms are never equal. Subtracting or ordering them throws
/// std::runtime_error "Attempting to take difference between incompatible MessageIterators". A null
/// position is in vector form.
///
/// A plain value that owns nothing. No operation throws, except for subtraction and ordering.
/// Dereferencing and advancing past the end are not checked; in hardened mode (see ByteBuffer)
/// dereferencing the null position is. Thread-compatible. Every operation takes constant time and
/// allocates nothing.
template <class T> class ByteBufferIterator {
    static_assert(std::is_same_v<std::remove_const_t<T>, std::byte>);
    using VectorPosition =
        std::conditional_t<std::is_const_v<T>, std::vector<std::byte>::const_iterator,
                           std::vector<std::byte>::iterator>;

public:
    /// Required by std::iterator_traits. The category stays random access, as C++17 has no
    /// contiguous one.
    using iterator_concept = std::contiguous_iterator_tag;
    using iterator_category = std::random_access_iterator_tag;
    using value_type = std::byte;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using reference = T&;

    /// The null position.
    ByteBufferIterator() noexcept = default;

    /// A position in pointer form.
    explicit ByteBufferIterator(T* p) noexcept : address_(p) {}

    /// A position in vector form.
    explicit ByteBufferIterator(VectorPosition p) noexcept
        : address_(std::to_address(p)), inVector_(true) {}

    /// The read-only iterator at the position of a mutable one.
    template <std::same_as<std::byte> Mutable>
    ByteBufferIterator(ByteBufferIterator<Mutable> const& other) noexcept
        : address_(other.address_), inVector_(other.inVector_) {}

    /// The byte here, or n bytes further on.
    reference operator*() const noexcept { return (*this)[0]; }
    pointer operator->() const noexcept { return address_; }
    reference operator[](difference_type n) const noexcept {
        detail::checkAccess(0, address_ == nullptr ? 0 : 1); // a position does not know its end
        return address_[n];
    }

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

    /// The number of bytes from b to a. Throws std::runtime_error if the forms differ.
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

    /// The sign of a - b. Throws as the difference does.
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

    // One address for both forms, so that a loop compiles to a loop over a plain pointer. The form
    // is read only to compare or subtract positions.
    T* address_ = nullptr;
    bool inVector_ = false; // ignored for a null address
};

static_assert(std::is_trivially_copyable_v<ByteBufferIterator<std::byte>>);
static_assert(std::is_trivially_copyable_v<ByteBufferIterator<std::byte const>>);

} // namespace courier::hub::serialisation

#endif
