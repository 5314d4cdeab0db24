// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_DETAIL_GROWINGBYTES_H
#define COURIER_HUB_SERIALISATION_DETAIL_GROWINGBYTES_H

#include <courier/hub/serialisation/Export.h>

#include <cstddef>
#include <cstring>
#include <type_traits>
#include <utility>

namespace courier::hub::serialisation::detail {

// As std::memcpy, which costs a call and a search for the best way: up to 64 bytes are copied by a
// few overlapping copies of constant length, which are inlined.
inline void copyBytes(void* to, void const* from, std::size_t n) noexcept {
    auto* const target = static_cast<std::byte*>(to);
    auto const* const source = static_cast<std::byte const*>(from);
    auto const copyEnds = [&](auto constant) {
        std::memcpy(target, source, constant);
        std::memcpy(target + n - constant, source + n - constant, constant);
    };
    if (n > 64) {
        std::memcpy(target, source, n);
    } else if (n > 32) {
        copyEnds(std::integral_constant<std::size_t, 32>());
    } else if (n >= 16) {
        copyEnds(std::integral_constant<std::size_t, 16>());
    } else if (n >= 8) {
        copyEnds(std::integral_constant<std::size_t, 8>());
    } else if (n >= 4) {
        copyEnds(std::integral_constant<std::size_t, 4>());
    } else if (n != 0) { // the first, the middle and the last one
        target[0] = source[0];
        target[n / 2] = source[n / 2];
        target[n - 1] = source[n - 1];
    }
}

// A range of bytes that grows. It owns its bytes, in memory from std::malloc, or borrows them until
// it first enlarges them:
//
//     capacity > 0: owned           data ──▶ │ bytes ─ size ─▶ │ room           │
//                                            ◀─────────── capacity ────────────▶
//     capacity = 0: borrowed        data ──▶ │ bytes ─ size ─▶ │
//
// std::malloc, because std::realloc moves the pages of a large block instead of copying them, and
// std::calloc gets zeroed pages without writing to them.
//
// Move-only; a moved-from object is empty. Strong guarantee. Thread-compatible.
class GrowingBytes {
public:
    GrowingBytes() noexcept = default;

    // Borrows the bytes, which must stay valid until they are replaced.
    GrowingBytes(std::byte* data, std::size_t size) noexcept : GrowingBytes(data, size, 0) {}

    // n bytes of value 0, owned. Throws std::bad_alloc. Precondition: n <= capacity.
    COURIER_HUB_SERIALISATION_EXPORT static GrowingBytes zeroed(std::size_t n,
                                                                std::size_t capacity);

    GrowingBytes(GrowingBytes&& other) noexcept { take(other); }
    GrowingBytes& operator=(GrowingBytes&& other) noexcept {
        GrowingBytes taken(std::move(other));
        std::swap(data_, taken.data_);
        std::swap(size_, taken.size_);
        std::swap(capacity_, taken.capacity_);
        return *this;
    }
    ~GrowingBytes() {
        if (capacity_ != 0) {
            release(data_);
        }
    }

    [[nodiscard]] std::byte* data() const noexcept { return data_; }
    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    // 0 when the bytes are borrowed.
    [[nodiscard]] std::size_t capacity() const noexcept { return capacity_; }
    [[nodiscard]] bool isBorrowed() const noexcept { return capacity_ == 0 && data_ != nullptr; }

    // How many bytes can be added without a new allocation.
    [[nodiscard]] std::size_t room() const noexcept {
        return capacity_ > size_ ? capacity_ - size_ : 0;
    }

    // Makes the bytes owned, with exactly this capacity. Throws std::bad_alloc. Precondition:
    // size() <= capacity.
    COURIER_HUB_SERIALISATION_EXPORT void reallocate(std::size_t capacity);

    // Takes over the other's bytes. Precondition: this object has none.
    void take(GrowingBytes& other) noexcept {
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
        capacity_ = std::exchange(other.capacity_, 0);
    }
    // Makes this object empty without freeing its bytes.
    void forget() noexcept {
        data_ = nullptr;
        size_ = 0;
        capacity_ = 0;
    }

    // Adds n bytes of unspecified value; returns the first. Precondition: n <= room().
    std::byte* extend(std::size_t n) noexcept {
        size_ += n;
        return data_ + (size_ - n);
    }
    // Adds a copy of n bytes, which may be bytes of this object. Preconditions: 0 < n <= room(), p
    // is not null.
    void append(std::byte const* p, std::size_t n) noexcept { copyBytes(extend(n), p, n); }

    // Removes the first, or the last, n bytes. When the first are removed, borrowed bytes keep
    // their address and owned ones move to the front. Precondition: n <= size().
    void trimFront(std::size_t n) noexcept {
        size_ -= n;
        if (capacity_ == 0) {
            data_ += n;
        } else if (n != 0) {
            std::memmove(data_, data_ + n, size_);
        }
    }
    void trimBack(std::size_t n) noexcept { size_ -= n; }

private:
    GrowingBytes(std::byte* data, std::size_t size, std::size_t capacity) noexcept
        : data_(data), size_(size), capacity_(capacity) {}

    COURIER_HUB_SERIALISATION_EXPORT static void release(std::byte* data) noexcept;

    std::byte* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

} // namespace courier::hub::serialisation::detail

#endif
