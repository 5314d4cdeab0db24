// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Buffers.h>

#include <algorithm>
#include <stdexcept>

namespace courier::hub::serialisation {

static_assert(std::contiguous_iterator<ByteBufferIterator<std::byte>>);
static_assert(std::contiguous_iterator<ByteBufferIterator<std::byte const>>);

namespace {

using detail::GrownBytes;
using detail::longest;
using detail::throwTooLong;

std::size_t sum(std::size_t a, std::size_t b) {
    if (a > longest || b > longest - a) {
        throwTooLong();
    }
    return a + b;
}

// Half as much again, so that later appends of similar size need no new storage.
std::size_t growthTarget(std::size_t n) { return sum(n, n / 2); }

void copy(std::byte const* from, std::size_t count, std::byte* to) noexcept {
    if (count != 0) { // std::memcpy takes no null, even to copy nothing
        std::memcpy(to, from, count);
    }
}

GrownBytes allocate(std::size_t n) { return n != 0 ? GrownBytes::allocate(n) : GrownBytes(); }

// True if p points into [start, start + size), whatever object that is.
bool isWithin(std::byte const* p, std::byte const* start, std::size_t size) noexcept {
    std::less<> const before;
    return !before(p, start) && before(p, start + size);
}

} // namespace

namespace detail {

void throwOutOfRange(char const* message) { throw std::out_of_range(message); }

void throwIncompatibleIterators() {
    throw std::runtime_error("Attempting to take difference between incompatible MessageIterators");
}

void throwTooLong() { throw std::length_error("vector too long"); }

void throwBlockWithoutDeleter() {
    throw std::invalid_argument("ByteBuffer needs a deleter for its block");
}

void requireBytes(ByteBufferView view) {
    if (view.data() == nullptr && !view.empty()) {
        throwIncompatibleIterators();
    }
}

} // namespace detail

// ByteBufferView

void ByteBufferView::trimFront(std::size_t n) {
    if (n > length_) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    length_ -= n;
    start_ = start_ == nullptr || length_ == 0 ? nullptr : start_ + n;
}

void ByteBufferView::trimBack(std::size_t n) {
    if (n > length_) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    length_ -= n;
    start_ = length_ == 0 ? nullptr : start_;
}

ByteBufferView ByteBufferView::last(std::size_t n) const {
    if (n > length_) {
        detail::throwOutOfRange("Invalid range requested");
    }
    return subview(length_ - n, n);
}

ByteBufferView ByteBufferView::subview(std::size_t offset) const {
    if (offset > length_) {
        detail::throwOutOfRange("Invalid range requested");
    }
    return subview(offset, length_ - offset);
}

ByteBufferView ByteBufferView::subview(std::size_t offset, std::size_t count) const {
    if (offset > length_ || count > length_ - offset) {
        detail::throwOutOfRange("Invalid range requested");
    }
    return {start_ == nullptr ? nullptr : start_ + offset, count};
}

ByteBufferView ByteBufferView::makeView(std::size_t offset, std::size_t count) const {
    if (offset == length_ && count == 0) {
        return {};
    }
    return count == 0 ? subview(offset) : subview(offset, count);
}

ByteBuffer ByteBufferView::append(ByteBuffer&& other) { return append(ByteBufferView(other)); }

ByteBuffer ByteBufferView::append(ByteBuffer const& other) { return append(ByteBufferView(other)); }

ByteBuffer ByteBufferView::append(std::vector<ByteBuffer>&& others) {
    return append(std::as_const(others));
}

ByteBuffer ByteBufferView::append(std::vector<ByteBuffer> const& others) {
    ByteBuffer result(*this);
    result.append(others);
    return result;
}

ByteBuffer ByteBufferView::append(std::vector<std::byte>&& bytes) {
    return append(ByteBufferView(bytes));
}

ByteBuffer ByteBufferView::append(std::vector<std::byte> const& bytes) {
    return append(ByteBufferView(bytes));
}

ByteBuffer ByteBufferView::append(ByteBufferView view) {
    ByteBuffer result(*this);
    result.append(view);
    return result;
}

ByteBufferView::operator ByteBuffer() const { return ByteBuffer(*this); }

// ByteBuffer

ByteBuffer::ByteBuffer(std::size_t n) : ByteBuffer() {
    if (n > longest) {
        throwTooLong();
    }
    if (n != 0) {
        set(GrownBytes::allocateZeroed(n), n);
    }
}

ByteBuffer::ByteBuffer(std::vector<std::byte> bytes) noexcept : ByteBuffer() {
    if (bytes.capacity() != 0) {
        std::destroy_at(&deleter_);
        std::construct_at(&given_, std::move(bytes));
        storage_.capacity = given_.capacity();
        setSize(given_.size());
    }
}

ByteBuffer::ByteBuffer(ByteBufferView const& view) : ByteBuffer() {
    detail::requireBytes(view);
    if (view.size() > longest) {
        throwTooLong();
    }
    set(allocate(view.size()), view.size());
    copy(view.data(), view.size(), data_);
}

void ByteBuffer::clear() noexcept {
    if (isExternal()) {
        releaseAny();
    } else {
        setSize(0);
    }
}

ByteBuffer& ByteBuffer::append(std::vector<ByteBuffer> const& others) {
    if (others.empty()) {
        return *this;
    }
    std::size_t const held = size_;
    std::size_t added = 0;
    for (ByteBuffer const& other : others) {
        added = sum(added, other.size());
    }
    extend(added, [&](std::byte* to) {
        for (ByteBuffer const& other : others) {
            std::size_t const count = &other == this ? held : other.size();
            copy(other.data_, count, to);
            to += count;
        }
    });
    return *this;
}

void ByteBuffer::appendSlowly(ByteBufferView view) {
    if (view.empty()) {
        return;
    }
    if (view.data() == nullptr) {
        extend(view.size(), [](std::byte*) {});
        trimBack(view.size());
        detail::throwIncompatibleIterators();
    }
    bool const isOwn = isWithin(view.data(), data_, size_);
    std::size_t const offset = isOwn ? static_cast<std::size_t>(view.data() - data_) : 0;
    extend(view.size(),
           [&](std::byte* to) { copy(isOwn ? data_ + offset : view.data(), view.size(), to); });
}

void ByteBuffer::push_back(std::byte const& b) {
    std::byte const value = b; // b may lie in what is released
    if (isExternal() || size_ == storage_.capacity) {
        std::size_t const least = sum(size_, 1);
        reserve(std::max(least, std::min(2 * size_, longest)));
    }
    setSize(size_ + 1);
    data_[size_ - 1] = value;
}

void ByteBuffer::resize(std::size_t n) {
    std::size_t const held = std::min(n, size_);
    if (isExternal() || n > storage_.capacity) {
        std::size_t const target = growthTarget(n);
        if (storage_.start != nullptr && !isExternal() && held != 0) {
            storage_.grow(target); // may move its pages, without touching them
            setSize(n);
            std::memset(data_ + held, 0, n - held);
        } else {
            GrownBytes const fresh =
                target != 0 ? GrownBytes::allocateZeroed(target) : GrownBytes();
            copy(data_, held, fresh.start);
            moveTo(fresh, n);
        }
        return;
    }
    setSize(n);
    if (n > held && !isGiven()) { // a vector has done so
        std::memset(data_ + held, 0, n - held);
    }
}

void ByteBuffer::reserve(std::size_t n) {
    if (n > longest) {
        throwTooLong();
    }
    if (isExternal() || n > storage_.capacity) {
        std::size_t const target = std::max(n, size_);
        if (storage_.start != nullptr && !isExternal()) {
            storage_.grow(target);
            setSize(size_);
        } else {
            GrownBytes const fresh = allocate(target);
            copy(data_, size_, fresh.start);
            moveTo(fresh, size_);
        }
    }
}

void ByteBuffer::trimFront(std::size_t n) {
    if (n > size_) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    if (isExternal()) {
        size_ -= n;
        data_ = size_ == 0 ? nullptr : data_ + n;
    } else if (n != 0) {
        std::memmove(data_, data_ + n, size_ - n);
        setSize(size_ - n);
    }
}

void ByteBuffer::trimBack(std::size_t n) {
    if (n > size_) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    if (isExternal()) {
        size_ -= n;
        data_ = size_ == 0 ? nullptr : data_;
    } else {
        setSize(size_ - n);
    }
}

// Releases whatever keeps the bytes. Precondition: there is something.
void ByteBuffer::releaseAny() noexcept {
    data_ = nullptr;
    size_ = 0;
    GrownBytes released = std::exchange(storage_, {});
    if (released.start == nullptr) {
        std::destroy_at(&given_);
        std::construct_at(&deleter_);
    } else if (released.capacity != 0) {
        released.free();
    } else {
        deleter_(released.start); // last: it may look at this buffer
    }
}

// Precondition: nothing keeps bytes.
void ByteBuffer::set(GrownBytes storage, std::size_t size) noexcept {
    storage_ = storage;
    setSize(size);
}

// Precondition: in vector form, and size is at most the capacity.
void ByteBuffer::setSize(std::size_t size) noexcept {
    if (isGiven()) {
        given_.resize(size); // within its capacity
    }
    size_ = size;
    data_ = size == 0 ? nullptr : isGiven() ? given_.data() : storage_.start;
}

// Exchanges what keeps the bytes for storage that has a copy of them.
void ByteBuffer::moveTo(GrownBytes fresh, std::size_t size) noexcept {
    releaseStorage();
    set(fresh, size);
}

// Enlarges the buffer by `added` bytes, which `fill` writes. When it is called, the bytes held are
// at data_, and a block or vector that they came from has not been released yet.
template <class Fill> void ByteBuffer::extend(std::size_t added, Fill fill) {
    std::size_t const held = size_;
    std::size_t const needed = sum(held, added);
    if (!isExternal() && needed <= storage_.capacity) {
        setSize(needed);
        fill(data_ + held);
    } else if (storage_.start != nullptr && !isExternal()) {
        storage_.grow(growthTarget(needed));
        setSize(needed);
        fill(data_ + held);
    } else {
        GrownBytes const fresh = allocate(growthTarget(needed));
        copy(data_, held, fresh.start);
        fill(fresh.start + held);
        moveTo(fresh, needed);
    }
}

} // namespace courier::hub::serialisation
